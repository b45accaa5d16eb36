#pragma once

#include <memory>

#include <json/json.h>

namespace KORV {

// The answer to one request. Made by the framework, borrowed by the module for one call of an entry function.
// An answer that has been given an error keeps it: a later success is ignored and logged. Never throws.
// Implemented in korv/framework/api_response.cpp.
class APIResponse {
public:
    // The platform's own data behind an answer; each platform defines it for itself.
    struct State;

    explicit APIResponse(std::unique_ptr<State> state);
    ~APIResponse();
    APIResponse(const APIResponse&) = delete;
    APIResponse& operator=(const APIResponse&) = delete;

    // Answers success with `data` (any JSON value; null leaves "data" out of the answer).
    void SetSuccess(const Json::Value& data);

    // Answers the error `code` (> 0 as a rule) with `data`, which stands in the answer both as the error's
    // "errors" and as "data" (null leaves both out).
    void SetError(int code, const Json::Value& data);

private:
    std::unique_ptr<State> m_state;
};

}  // namespace KORV
