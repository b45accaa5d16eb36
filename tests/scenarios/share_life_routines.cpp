// Routines of a share's later life: edit, deletion, migration check, usage, unlocking.

#include <cstdlib>
#include <list>
#include <map>
#include <string>

#include "tests/scenarios/handler_routines.h"
#include "tests/scenarios/relay_view.h"
#include "webapi/share/migrating.h"

namespace scenario {

namespace {

std::list<std::string> Texts(Args array) {
    std::list<std::string> texts;
    for (const Json::Value& text : array) {
        texts.push_back(text.asString());
    }
    return texts;
}

template <class List>
Json::Value ToArray(const List& list) {
    Json::Value array(Json::arrayValue);
    for (const auto& one : list) {
        array.append(one);
    }
    return array;
}

Json::Value InitDelDataList(OpenHandler& handler, Args args) {
    CmsRelayParams params;
    params.relayedFromHost = args["relayedFromHost"].asBool();
    int usingCams = args["usingCams"].asInt();
    int archiveTasks = args["archiveTasks"].asInt();
    std::list<int> recordIds;
    std::list<std::string> ownPaths;
    std::map<int, Json::Value> requestByRv;
    std::list<std::string> shareNames;
    Json::Value returned;
    returned["remoteMounts"] = Json::arrayValue;
    handler.InitDelDataList(args["list"], params, usingCams, archiveTasks, recordIds, ownPaths, requestByRv,
                            shareNames, returned["remoteMounts"]);
    returned["usingCams"] = usingCams;
    returned["archiveTasks"] = archiveTasks;
    returned["recordIds"] = ToArray(recordIds);
    returned["ownPaths"] = ToArray(ownPaths);
    returned["shareNames"] = ToArray(shareNames);
    returned["requestByRv"] = Json::objectValue;
    for (const auto& [rvId, items] : requestByRv) {
        returned["requestByRv"][std::to_string(rvId)] = items;
    }
    return returned;
}

Json::Value PrepareDelete(OpenHandler& handler, Args args) {
    std::map<int, Json::Value> itemsByRv;
    for (const std::string& rvId : args["itemsByRv"].getMemberNames()) {
        itemsByRv[std::stoi(rvId)] = args["itemsByRv"][rvId];
    }
    CmsRelayParams params;
    params.isCmsHost = args["isCmsHost"].asBool();
    CmsRelayTarget target;
    Json::Value returned;
    returned["result"] = handler.PrepareDeleteRemoteRelayParam(itemsByRv, params, target);
    returned["target"] = Shown(target);
    return returned;
}

Json::Value DeleteAndUnmount(OpenHandler& handler, Args args) {
    handler.DeleteShareAndUnmountRemote(Texts(args["shareNames"]), args["remoteMounts"]);
    return {};
}

Json::Value CountMigrating(RoutineContext& context) {
    int count = context.args["count"].asInt();
    CountMigratingCamsOnShares(count, Texts(context.args["sharePaths"]));
    return count;
}

Json::Value ListLocalUsage(OpenHandler& handler, Args args) {
    Json::Value returned;
    returned["data"] = args["before"];
    returned["result"] = handler.HandleLocalListShareUsage(returned["data"], args["shareId"].asInt());
    return returned;
}

Json::Value ListRemoteUsage(OpenHandler& handler, Args args) {
    Json::Value returned;
    returned["data"] = args["before"];
    returned["result"] =
        handler.HandleRemoteListShareUsage(returned["data"], args["rvId"].asInt(), args["shareId"].asInt());
    return returned;
}

bool IsResultTrue(const Json::Value& returned) { return returned["result"].asBool(); }

// Answers the request and returns what is left of the variables that were set before.
Json::Value DecryptWithEnvironment(OpenHandler& handler, Args args) {
    for (const std::string& name : args["environment"].getMemberNames()) {
        setenv(name.c_str(), args["environment"][name].asCString(), 1);
    }
    handler.HandleDecryptByFile();
    Json::Value left(Json::objectValue);
    for (const std::string& name : args["environment"].getMemberNames()) {
        if (const char* value = getenv(name.c_str()); value != nullptr) {
            left[name] = value;
        }
        unsetenv(name.c_str());
    }
    return left;
}

}  // namespace

std::vector<Routine> ShareLifeRoutines() {
    constexpr bool kReturns = true;
    constexpr bool kAnswers = true;
    return {
        {"HandleEditRecShare", Defaults(R"({"flags": [], "results": null})"), kReturns, false,
         kHandled<PlayPhase<&ShareHandler::HandleEditRecShare>>, IsResultZero},
        {"HandleDelRecShare", Defaults(R"({"flags": [], "results": null})"), kReturns, false,
         kHandled<PlayPhase<&ShareHandler::HandleDelRecShare>>, IsResultZero},
        {"InitDelDataList",
         Defaults(R"({"list": null, "relayedFromHost": false, "usingCams": 0, "archiveTasks": 0})"), kReturns,
         false, kHandled<InitDelDataList>, nullptr},
        {"PrepareDeleteRemoteRelayParam", Defaults(R"({"itemsByRv": {}, "isCmsHost": false})"), kReturns,
         false, kHandled<PrepareDelete>, nullptr},
        {"DeleteShareAndUnmountRemote", Defaults(R"({"shareNames": [], "remoteMounts": []})"), false, false,
         kHandled<DeleteAndUnmount>, nullptr},
        {"CountMigratingCamsOnShares", Defaults(R"({"count": 0, "sharePaths": []})"), kReturns, false,
         CountMigrating, nullptr},
        {"HandleLocalListShareUsage", Defaults(R"({"shareId": 0, "before": {}})"), kReturns, false,
         kHandled<ListLocalUsage>, IsResultTrue},
        {"HandleRemoteListShareUsage", Defaults(R"({"rvId": 0, "shareId": 0, "before": {}})"), kReturns,
         false, kHandled<ListRemoteUsage>, IsResultTrue},
        {"HandleDecryptByFile", Defaults(R"({"environment": {}})"), kReturns, kAnswers,
         kHandled<DecryptWithEnvironment>, nullptr},
    };
}

}  // namespace scenario
