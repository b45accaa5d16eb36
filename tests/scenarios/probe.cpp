#include "tests/scenarios/probe.h"

#include <string>

#include "tests/fake/director.h"

namespace scenario {

namespace {

struct Flag {
    const char* name;
    bool CmsRelayParams::*member;
};

constexpr Flag kFlags[] = {
    {"isCmsHost", &CmsRelayParams::isCmsHost},
    {"recServerOwnStatusOk", &CmsRelayParams::recServerOwnStatusOk},
    {"isCmsPaired", &CmsRelayParams::isCmsPaired},
    {"relayedCmd", &CmsRelayParams::relayedCmd},
    {"needRelay", &CmsRelayParams::needRelay},
    {"relayedFromHost", &CmsRelayParams::relayedFromHost},
    {"actFromHost", &CmsRelayParams::actFromHost},
};

// The flags that are set, by name, in the order of their declaration.
Json::Value FlagsSet(const CmsRelayParams& params) {
    Json::Value names(Json::arrayValue);
    for (const Flag& flag : kFlags) {
        if (params.*flag.member) {
            names.append(flag.name);
        }
    }
    return names;
}

void ClearFlag(CmsRelayParams& params, const std::string& name) {
    for (const Flag& flag : kFlags) {
        if (name == flag.name) {
            params.*flag.member = false;
        }
    }
}

// The members that differ from a fresh target.
Json::Value Shown(const CmsRelayTarget& target) {
    Json::Value shown(Json::objectValue);
    if (target.stopOnHostError) {
        shown["stopOnHostError"] = true;
    }
    if (target.relayStatus != CMS_RELAY_NONE) {
        shown["relayStatus"] = target.relayStatus;
    }
    if (!target.results.isNull()) {
        shown["results"] = target.results;
    }
    if (!target.relayRequest.isNull()) {
        shown["relayRequest"] = target.relayRequest;
    }
    for (const int rvId : target.rvIds) {
        shown["rvIds"].append(rvId);
    }
    for (const auto& [rvId, request] : target.requestByRv) {
        shown["requestByRv"][std::to_string(rvId)] = request;
    }
    return shown;
}

}  // namespace

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
        ClearFlag(params, name.asString());
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
