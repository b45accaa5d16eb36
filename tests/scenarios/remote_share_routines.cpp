// Routines of remote folders: mounting, mount points and their paths, creation.

#include <string>

#include "tests/scenarios/handler_routines.h"
#include "tests/scenarios/relay_view.h"
#include "webapi/share/mount_point_path.h"

namespace scenario {

namespace {

Json::Value DoMount(OpenHandler& handler, Args args) {
    return handler.DoMount(static_cast<SHARE_MOUNT_TYPE>(args["mountType"].asInt()));
}

Json::Value CheckShareAvailable(OpenHandler& handler, Args args) {
    handler.Preset(args["before"]);
    return handler.CheckShareAvailable();
}

Json::Value GetShareOwnerRvId(OpenHandler& handler, Args args) {
    CmsRelayParams params;
    params.actFromHost = args["actFromHost"].asBool();
    return handler.GetShareOwnerRvId(params);
}

Json::Value PrepareRelay(OpenHandler& handler, Args args) {
    CmsRelayTarget target;
    const int rvId = args["rvId"].asInt();
    if (!args["before"].isNull()) {
        target.requestByRv[rvId] = args["before"];
    }
    Json::Value returned;
    returned["result"] = handler.PrepareCreateRemoteRelayParam(rvId, args["isCmsHost"].asBool(), target);
    returned["target"] = Shown(target);
    return returned;
}

template <int (*GetPart)(const std::string&, std::string&)>
Json::Value PathPart(RoutineContext& context) {
    std::string name = context.args["before"].asString();
    Json::Value returned;
    returned["result"] = GetPart(context.args["path"].asString(), name);
    returned["name"] = name;
    return returned;
}

}  // namespace

std::vector<Routine> RemoteShareRoutines() {
    constexpr bool kReturns = true;
    return {
        {"DoMount", Defaults(R"({"mountType": 0})"), kReturns, false, kHandled<DoMount>, IsZero},
        {"CheckShareAvailable", Defaults(R"({"before": null})"), kReturns, false,
         kHandled<CheckShareAvailable>, IsZero},
        {"GetShareOwnerRvId", Defaults(R"({"actFromHost": false})"), kReturns, false,
         kHandled<GetShareOwnerRvId>, nullptr},
        {"PrepareCreateRemoteRelayParam", Defaults(R"({"rvId": 0, "isCmsHost": false, "before": null})"),
         kReturns, false, kHandled<PrepareRelay>, nullptr},
        {"GetVolumeNameFromPath", Defaults(R"({"path": "", "before": ""})"), kReturns, false,
         PathPart<GetVolumeNameFromPath>, IsResultZero},
        {"GetShareNameFromPath", Defaults(R"({"path": "", "before": ""})"), kReturns, false,
         PathPart<GetShareNameFromPath>, IsResultZero},
        {"HandleCreateRemoteRecShare", Defaults(R"({"flags": [], "results": null})"), kReturns, false,
         kHandled<PlayPhase<&ShareHandler::HandleCreateRemoteRecShare>>, IsResultZero},
    };
}

}  // namespace scenario
