#include "tests/scenarios/handler_routines.h"

#include <sstream>
#include <stdexcept>

#include "tests/scenarios/relay_view.h"

namespace scenario {

Json::Value PlayPhase(OpenHandler& handler, ShareAction action, Args args) {
    CmsRelayParams params;
    params.needRelay = false;
    for (const Json::Value& flag : args["flags"]) {
        if (!SwitchFlag(params, flag.asString(), true)) {
            throw std::invalid_argument("no such flag: " + flag.asString());
        }
    }
    CmsRelayTarget target;
    target.results = args["results"];
    Json::Value data;
    Json::Value returned;
    returned["result"] = (handler.*action)(params, target, data);
    returned["target"] = Shown(target);
    returned["data"] = data;
    return returned;
}

Json::Value Defaults(const char* json) {
    Json::Value value;
    std::istringstream in(json);
    in >> value;
    return value;
}

}  // namespace scenario
