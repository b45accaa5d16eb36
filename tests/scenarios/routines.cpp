#include "tests/scenarios/routines.h"

#include <algorithm>
#include <stdexcept>

#include "platform/pavane/shared_folder_storage.h"

#include "include/run_as_scope.h"
#include "tests/scenarios/handler_routines.h"
#include "tests/scenarios/probe.h"
#include "webapi/share/external_devices.h"
#include "webapi/share/external_disks.h"
#include "webapi/share/relay_params.h"
#include "webapi/share/share_handler.h"
#include "webapi/share/share_privilege.h"

namespace scenario {

namespace {

Json::Value Authenticate(OpenHandler& handler, Args) {
    Json::Value returned;
    returned["admitted"] = handler.Authenticate();
    returned["paired"] = handler.pairAuthenticated;
    return returned;
}

Json::Value SetErrorCode(OpenHandler& handler, Args args) {
    for (const Json::Value& error : args["errors"]) {
        handler.Preset(error);
    }
    return {};
}

Json::Value WriteErrorResponse(OpenHandler& handler, Args args) {
    handler.Preset(args["before"]);
    handler.WriteErrorResponse(args["data"]);
    return {};
}

Json::Value CheckErrorInfo(OpenHandler& handler, Args args) {
    handler.Preset(args["before"]);
    return handler.CheckErrorInfo(args["reply"]);
}

Json::Value DoCreateShare(OpenHandler& handler, Args args) {
    return handler.DoCreateShare(args["hidden"].asBool(), args["name"].asString(), args["volPath"].asString(),
                                 args["desc"].asString(), args["encryption"].asBool(),
                                 args["encPasswd"].asString());
}

Json::Value DoEditShare(OpenHandler& handler, Args args) {
    return handler.DoEditShare(args["hidden"].asBool(), args["volume"].asString(), args["name"].asString(),
                               args["newName"].asString(), args["desc"].asString(),
                               args["encryption"].asBool(), args["encPasswd"].asString());
}

Json::Value FillRelayParam(RoutineContext& context) {
    CmsRelayTarget target;
    target.relayRequest = context.args["relayRequest"];
    FillShareRelayParam(target, context.args["blHideShare"].asBool(), context.args["blEncryption"].asBool(),
                        context.args["blRecLimit"].asBool(), context.args["recLimitGB"].asInt(),
                        context.args["shareName"].asString(), context.args["description"].asString(),
                        context.args["encPasswd"].asString());
    return target.relayRequest;
}

Json::Value EnumSharedFolders(RoutineContext& context) {
    std::list<SharedFolderStorage> rows;
    for (const Json::Value& before : context.args["before"]) {
        rows.push_back(
            {before["name"].asString(), before["share_id"].asInt(), before["application_id"].asInt()});
    }
    Json::Value returned;
    returned["result"] = SharedFolderStorage::m_DBAccess.Enum(rows, context.args["condition"].asString(),
                                                              context.args["order"].asString(),
                                                              context.args["limit"].asString());
    returned["rows"] = Json::arrayValue;
    for (const SharedFolderStorage& row : rows) {
        Json::Value& shown = returned["rows"].append(Json::objectValue);
        shown["name"] = row.name;
        shown["share_id"] = row.shareId;
        shown["application_id"] = row.applicationId;
    }
    return returned;
}

Json::Value CheckPrivilege(RoutineContext& context) {
    return CheckSharePrivilege(context.args["name"].asString(), context.args["user"].asString(),
                               context.args["mask"].asUInt());
}

Json::Value EnumExternalShares(RoutineContext& context) {
    Json::Value response;
    response["sharelist"] = Json::Value(Json::arrayValue);
    Json::Value returned;
    returned["result"] = ExtShareListEnum(response, context.args["user"].asString(),
                                          context.args["deviceType"].asInt(), context.args["mask"].asUInt());
    returned["sharelist"] = response["sharelist"];
    return returned;
}

Json::Value ListPartitions(RoutineContext& context) {
    ExtPartitionTable table;
    GetExtDevInfo(context.args["deviceType"].asInt(), table);
    Json::Value returned(Json::arrayValue);
    for (const ExtPartition* partition : table) {
        Json::Value& shown = returned.append(Json::objectValue);
        shown["status"] = partition->status;
        shown["text"] = partition->text;
        shown["share"] = partition->shareName;
        shown["path"] = partition->mountPath;
    }
    return returned;
}

Json::Value RunAsRoot(RoutineContext& context) {
    constexpr int kLine = 77;
    const RunAsScope root("scope.cpp", kLine);
    const bool entered = static_cast<bool>(root);
    if (const Json::Value& uid = context.args["euid_inside"]; !uid.isNull()) {
        context.world.euid = uid.asInt();
    }
    if (const Json::Value& gid = context.args["egid_inside"]; !gid.isNull()) {
        context.world.egid = gid.asInt();
    }
    if (context.args["throws_inside"].asBool()) {
        throw std::runtime_error("thrown inside the scope");
    }
    return entered;
}

Json::Value RelayWithProbe(RoutineContext& context) {
    Probe probe(&context.request, &context.response);
    probe.CmsRelayWebApi(&Probe::Act, context.args["pre_check"].asBool() ? &Probe::CheckBefore : nullptr,
                         context.args["post_step"].asBool() ? &Probe::StepAfter : nullptr);
    context.error = StateOf(probe);
    return {};
}

Json::Value IsAdmitted(RoutineContext& context) {
    return IsLogAdmitted(static_cast<LOG_CATEG>(context.args["category"].asInt()),
                         static_cast<LOG_LEVEL>(context.args["level"].asInt()));
}

Json::Value CheckPidLevel(RoutineContext& context) {
    return ChkPidLevel(static_cast<LOG_LEVEL>(context.args["level"].asInt()));
}

bool IsAdmittedCaller(const Json::Value& returned) { return returned["admitted"].asBool(); }

std::vector<Routine> MakeRoutines() {
    constexpr bool kReturns = true;
    constexpr bool kAnswers = true;
    return {
        {"Authenticate", Defaults("{}"), kReturns, false, kHandled<Authenticate>, IsAdmittedCaller},
        {"GetAPIInfo", Defaults("{}"), kReturns, false,
         kHandled<[](OpenHandler& handler, Args) { return handler.GetAPIInfo(); }>, nullptr},
        {"GetSlaveRVId", Defaults("{}"), kReturns, false,
         kHandled<[](OpenHandler& handler, Args) { return Json::Value(handler.GetSlaveRVId()); }>, nullptr},
        {"GetLoginUserName", Defaults("{}"), kReturns, false,
         kHandled<[](OpenHandler& handler, Args) { return Json::Value(handler.GetLoginUserName()); }>,
         nullptr},
        {"IsCamAvailiable", Defaults(R"({"camId": 0})"), kReturns, false,
         kHandled<[](OpenHandler& handler, Args args) {
             return Json::Value(handler.IsCamAvailiable(args["camId"].asInt()));
         }>,
         [](const Json::Value& returned) { return returned.asBool(); }},
        {"GetRedirectPrivData", Defaults(R"({"camId": 0})"), kReturns, false,
         kHandled<[](OpenHandler& handler, Args args) {
             return handler.GetRedirectPrivData(args["camId"].asInt());
         }>,
         nullptr},
        {"SetErrorCode", Defaults(R"({"errors": []})"), false, false, kHandled<SetErrorCode>, nullptr},
        {"WriteErrorResponse", Defaults(R"({"before": null, "data": null})"), false, kAnswers,
         kHandled<WriteErrorResponse>, nullptr},
        {"CheckErrorInfo", Defaults(R"({"before": null, "reply": null})"), kReturns, false,
         kHandled<CheckErrorInfo>, nullptr},
        {"DoCreateShare",
         Defaults(R"({"hidden": false, "name": "", "volPath": "", "desc": "", "encryption": false,
                      "encPasswd": ""})"),
         kReturns, false, kHandled<DoCreateShare>, IsZero},
        {"DoEditShare", Defaults(R"({"hidden": false, "volume": "", "name": "", "newName": "", "desc": "",
                      "encryption": false, "encPasswd": ""})"),
         kReturns, false, kHandled<DoEditShare>, IsZero},
        {"SetSharePermission", Defaults(R"({"name": ""})"), kReturns, false,
         kHandled<[](OpenHandler& handler, Args args) {
             return Json::Value(handler.SetSharePermission(args["name"].asString()));
         }>,
         IsZero},
        {"HandleCreateRecShare", Defaults(R"({"flags": [], "results": null})"), kReturns, false,
         kHandled<PlayPhase<&ShareHandler::HandleCreateRecShare>>, IsResultZero},
        {"FillShareRelayParam",
         Defaults(R"({"relayRequest": null, "blHideShare": false, "blEncryption": false, "blRecLimit": false,
                      "recLimitGB": 0, "shareName": "", "description": "", "encPasswd": ""})"),
         kReturns, false, FillRelayParam, nullptr},
        {"SharedFolderStorage::Enum",
         Defaults(R"({"condition": "", "order": "", "limit": "", "before": []})"), kReturns, false,
         EnumSharedFolders, IsResultZero},
        {"CheckSharePrivilege", Defaults(R"({"name": "", "user": "", "mask": 0})"), kReturns, false,
         CheckPrivilege, IsZero},
        {"ExtShareListEnum", Defaults(R"({"user": "", "deviceType": 0, "mask": 0})"), kReturns, false,
         EnumExternalShares, nullptr},
        {"GetExtDevInfo", Defaults(R"({"deviceType": 0})"), kReturns, false, ListPartitions, nullptr},
        {"RunAsScope", Defaults(R"({"euid_inside": null, "egid_inside": null, "throws_inside": false})"),
         kReturns, false, RunAsRoot, nullptr},
        {"CmsRelayWebApi", Defaults(R"({"pre_check": false, "post_step": false})"), false, kAnswers,
         RelayWithProbe, nullptr},
        {"IsLogAdmitted", Defaults(R"({"category": 0, "level": 0})"), kReturns, false, IsAdmitted, nullptr},
        {"ChkPidLevel", Defaults(R"({"level": 0})"), kReturns, false, CheckPidLevel, nullptr},
    };
}

}  // namespace

const std::vector<Routine>& AllRoutines() {
    static const std::vector<Routine> routines = [] {
        std::vector<Routine> all = MakeRoutines();
        for (const auto& more : {RemoteShareRoutines(), ShareLifeRoutines()}) {
            all.insert(all.end(), more.begin(), more.end());
        }
        return all;
    }();
    return routines;
}

const Routine* FindRoutine(const std::string& name) {
    const std::vector<Routine>& all = AllRoutines();
    const auto found =
        std::find_if(all.begin(), all.end(), [&name](const Routine& one) { return one.name == name; });
    return found != all.end() ? &*found : nullptr;
}

}  // namespace scenario
