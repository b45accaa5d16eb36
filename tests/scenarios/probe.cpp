#include "tests/scenarios/probe.h"

#include <string>

#include "tests/fake/director.h"
#include "tests/scenarios/relay_view.h"

namespace scenario {

int Probe::Act(CmsRelayParams& params, CmsRelayTarget& target, Json::Value& data) {
    const Json::Value reply = fake::Ask("Probe::Action", fake::Args(FlagsSet(params), Shown(target), data));
    if (!reply["relayRequest"].isNull()) {
        target.relayRequest = reply["relayRequest"];
    }
    for (const Json::Value& rvId : reply["rvIds"]) {
        target.rvIds.push_back(rvId.asInt());
    }
    for (const std::string& rvId : reply["requestByRv"].getMemberNames()) {
        target.requestByRv[std::stoi(rvId)] = reply["requestByRv"][rvId];
    }
    if (reply["stopOnHostError"].asBool()) {
        target.stopOnHostError = true;
    }
    if (!reply["data"].isNull()) {
        data = reply["data"];
    }
    return Play(reply);
}

int Probe::CheckBefore(CmsRelayParams& params) {
    const Json::Value reply = fake::Ask("Probe::PreCheck", fake::Args(FlagsSet(params)));
    for (const Json::Value& name : reply["clear"]) {
        SwitchFlag(params, name.asString(), false);
    }
    return Play(reply);
}

int Probe::StepAfter(CmsRelayParams& params, CmsRelayTarget& target, bool ok) {
    return Play(fake::Ask("Probe::PostStep", fake::Args(FlagsSet(params), Shown(target), ok)));
}

int Probe::Play(const Json::Value& reply) {
    if (const Json::Value& error = reply["error"]; !error.empty()) {
        SetErrorCode(static_cast<PV_WEBAPI_ERR_CODE>(error[0].asInt()), error[1].asString(),
                     error[2].asString());
    }
    return reply["returns"].asInt();
}

}  // namespace scenario
