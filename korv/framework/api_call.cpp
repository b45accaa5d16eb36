#include "korv/framework/api_call.h"

#include <soci/soci.h>

#include "korv/framework/api_registry.h"
#include "korv/framework/error_code.h"
#include "korv/framework/log.h"
#include "korv/framework/request_scope.h"
#include "korv/framework/request_state.h"

namespace korv {
namespace {

CallEnd Run(KORV::APIEntry entry, KORV::APIRequest& request, KORV::APIResponse& response,
            const std::string& name) {
    const auto log = [&name](const std::string& what) { LogLine(name + " threw: " + what); };
    try {
        entry(&request, &response);
        return CallEnd::kAnswered;
    } catch (const Json::Exception& error) {
        log(error.what());
        return CallEnd::kMalformed;
    } catch (const soci::soci_error& error) {
        // what() would hold bound values, which may be secrets.
        log("database: " + error.get_error_message());
    } catch (const std::exception& error) {
        log(error.what());
    } catch (...) {
        log("something that is no std::exception");
    }
    return CallEnd::kFailed;
}

}  // namespace

CallEnd CallMethod(std::unique_ptr<KORV::APIRequest::State> state, Answer& answer) {
    const ApiRegistry::Lookup found = Registry().Find(state->api, state->version, state->method);
    if (found.entry == nullptr) {
        answer.Error(found.hasApi ? kErrorNoSuchMethod : kErrorNoSuchApi, Json::Value());
        return found.hasApi ? CallEnd::kNoSuchMethod : CallEnd::kNoSuchApi;
    }
    const RequestScope scope;
    const std::string name = state->api + " " + state->method;
    KORV::APIRequest request(std::move(state));
    KORV::APIResponse response(std::make_unique<KORV::APIResponse::State>(KORV::APIResponse::State{answer}));
    CallEnd end = Run(found.entry, request, response, name);
    if (end == CallEnd::kAnswered && !answer.IsGiven()) {
        LogLine(name + " answered nothing");
        end = CallEnd::kFailed;
    }
    if (end != CallEnd::kAnswered) {
        answer.Abandon(end == CallEnd::kMalformed ? kErrorMalformed : kErrorInternal);
    }
    return end;
}

}  // namespace korv
