#include "tests/scenarios/relay_view.h"

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

}  // namespace

Json::Value FlagsSet(const CmsRelayParams& params) {
    Json::Value names(Json::arrayValue);
    for (const Flag& flag : kFlags) {
        if (params.*flag.member) {
            names.append(flag.name);
        }
    }
    return names;
}

bool SwitchFlag(CmsRelayParams& params, const std::string& name, bool isSet) {
    for (const Flag& flag : kFlags) {
        if (name == flag.name) {
            params.*flag.member = isSet;
            return true;
        }
    }
    return false;
}

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

}  // namespace scenario
