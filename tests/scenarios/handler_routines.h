#pragma once

#include <vector>

#include <json/json.h>

#include "tests/scenarios/routines.h"
#include "webapi/share/share_handler.h"

// What the tables of routines share: a handler of one's own whose error state can be seen.
namespace scenario {

class OpenHandler : public ShareHandler {
public:
    explicit OpenHandler(RoutineContext& context) : ShareHandler(&context.request, &context.response) {}

    using ShareHandler::errorCode;
    using ShareHandler::errorParams;
    using ShareHandler::pairAuthenticated;

    // Sets the error state that `parts` describes ([code, param1, param2]); null leaves it as it is.
    void Preset(const Json::Value& parts) {
        if (!parts.isNull()) {
            SetErrorCode(static_cast<PV_WEBAPI_ERR_CODE>(parts[0].asInt()), parts[1].asString(),
                         parts[2].asString());
        }
    }
};

using Args = const Json::Value&;

template <class Handler>
ErrorState StateOf(Handler& handler) {
    return {handler.errorCode, handler.errorParams[kErrorParam1], handler.errorParams[kErrorParam2]};
}

// Runs `body(handler, args)` with a fresh handler and notes its error state.
template <auto Body>
Json::Value WithHandler(RoutineContext& context) {
    OpenHandler handler(context);
    Json::Value returned = Body(handler, context.args);
    context.error = StateOf(handler);
    return returned;
}

template <auto Body>
constexpr Json::Value (*kHandled)(RoutineContext&) = &WithHandler<Body>;

// One phase of a relayed method by itself: {result, target, data}.
//   args  "flags": names of the flags that are set; "results": the target's before
Json::Value PlayPhase(OpenHandler& handler, ShareAction action, Args args);

template <ShareAction Action>
Json::Value PlayPhase(OpenHandler& handler, Args args) {
    return PlayPhase(handler, Action, args);
}

// A routine's arguments, written as JSON.
Json::Value Defaults(const char* json);

inline bool IsZero(const Json::Value& returned) { return returned.asInt() == 0; }
inline bool IsResultZero(const Json::Value& returned) { return returned["result"].asInt() == 0; }

std::vector<Routine> RemoteShareRoutines();
std::vector<Routine> ShareLifeRoutines();

}  // namespace scenario
