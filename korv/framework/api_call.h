#pragma once

#include <memory>

#include "platform/korv/api_request.h"

#include "korv/framework/answer.h"

namespace korv {

// How a request ended.
enum class CallEnd {
    kAnswered,   // by its method
    kNoSuchApi,  // by the framework, with the code of the same name; likewise below
    kNoSuchMethod,
    kMalformed,  // the method met a parameter of the wrong type
    kFailed,     // the method threw something else, or answered nothing
};

// Runs the method that `state` names and leaves its answer in `answer`, which has been given afterwards in
// every case. Exceptions end here: they are logged with their text, the client gets a code only. Calls may
// nest.
CallEnd CallMethod(std::unique_ptr<KORV::APIRequest::State> state, Answer& answer);

}  // namespace korv
