#include "platform/korv/api_response.h"

#include "korv/framework/answer.h"

KORV::APIResponse::APIResponse(std::unique_ptr<State> state) : m_state(std::move(state)) {}

KORV::APIResponse::~APIResponse() = default;

void KORV::APIResponse::SetSuccess(const Json::Value& data) { m_state->answer.Success(data); }

void KORV::APIResponse::SetError(int code, const Json::Value& data) { m_state->answer.Error(code, data); }
