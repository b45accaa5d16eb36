#include "platform/korv/api_runner.h"

#include "korv/framework/api_call.h"
#include "korv/framework/request_state.h"

void KORV::APIRunner::Exec(Json::Value& response, const char* api, int version, const char* method,
                           const Json::Value& request, const char* user) {
    auto state = std::make_unique<APIRequest::State>();
    state->api = api;
    state->version = version;
    state->method = method;
    if (request.isObject()) {
        state->params = request;
    }
    state->user = user;
    state->isAuthorized = true;
    state->isInProcess = true;
    // `response` may be the caller's `request` too, so it is replaced at the end only.
    Json::Value value;
    korv::ValueAnswer answer(value);
    korv::CallMethod(std::move(state), answer);
    response = std::move(value);
}
