#include <unistd.h>

#include <string>

#include <json/json.h>

#include "platform/korv/api_runner.h"
#include "platform/pavane/events.h"
#include "platform/pavane/log.h"
#include "platform/pavane/services.h"

#include "korv/framework/api_registry.h"
#include "korv/framework/host.h"
#include "korv/framework/module_loader.h"
#include "pavane/recorder/log_config.h"
#include "tests/unit/pavane/test_node.h"

namespace {

// The module as the framework loads it.
class Api : public StoreTest {
protected:
    Api() {
        static const bool loaded = (korv::LoadModules({PAVANE_API_MODULE}, korv::Registry()), true);
        EXPECT_TRUE(loaded);
    }

    static Json::Value Call(const char* api, const char* method, const Json::Value& params,
                            const char* user = "admin") {
        Json::Value response;
        KORV::APIRunner::Exec(response, api, 1, method, params, user);
        return response;
    }

    static Json::Value Import(const std::string& cameras) {
        Json::Value params;
        Json::Reader().parse("{\"cameras\":" + cameras + "}", params);
        return Call("KORV.Pavane.Camera", "import", params);
    }
};

}  // namespace

TEST_F(Api, WhoHasNoPrivilegeIsRefused) {
    const struct {
        const char* api;
        const char* method;
    } methods[] = {{"KORV.Pavane.Camera", "import"},      {"KORV.Pavane.Camera", "list"},
                   {"KORV.Pavane.Event", "list"},         {"KORV.Pavane.Log", "get_level"},
                   {"KORV.Pavane.Log", "set_level"},      {"KORV.Pavane.Service", "list_links"},
                   {"KORV.Pavane.Service", "list_backup"}};
    for (const auto& each : methods) {
        const Json::Value answer = Call(each.api, each.method, Json::Value(), "nobody");
        EXPECT_FALSE(answer["success"].asBool()) << each.api << each.method;
        EXPECT_EQ(answer["error"]["code"].asInt(), 105) << each.api << each.method;
    }
}

TEST_F(Api, CamerasAreImportedAndListed) {
    const Json::Value imported =
        Import(R"([{"name":"door","recordingPath":"/volume1/rec/door"},{"name":"yard","ownerRvId":2}])");
    ASSERT_TRUE(imported["success"].asBool()) << imported.toStyledString();
    EXPECT_EQ(imported["data"]["imported"].asInt(), 2);
    Json::Value page;
    page["limit"] = 1;
    page["offset"] = 1;
    const Json::Value listed = Call("KORV.Pavane.Camera", "list", page);
    EXPECT_EQ(listed["data"]["total"].asInt(), 2);
    ASSERT_EQ(listed["data"]["cameras"].size(), 1U);
    EXPECT_EQ(listed["data"]["cameras"][0]["name"].asString(), "yard");
    EXPECT_EQ(listed["data"]["cameras"][0]["ownerRvId"].asInt(), 2);
}

TEST_F(Api, OneBadCameraRefusesTheWholeImport) {
    const char* const bad[] = {
        "{}",
        R"({"name":""})",
        R"({"name":"a\u0000b"})",
        R"({"name":5})",
        R"({"name":"c","ownerRvId":-1})",
        R"({"name":"c","ownerRvId":"x"})",
        R"({"name":"c","recStorageStatus":99999999999})",
        R"({"name":"c","recordingPath":"relative/x"})",
        R"({"name":"c","recordingPath":"/volume1/../etc"})",
        R"({"name":"c","recordingPath":"/volume1//x"})",
        R"({"name":"c","recordingPath":"/volume1/x/"})",
        R"({"name":"c","recordingPath":"/"})",
        "{\"name\":\"\xFF\"}",
        "{\"name\":\"\xED\xA0\x80\"}",
        "{\"name\":\"\xC0\xAF\"}",
        "7",
    };
    for (const char* camera : bad) {
        const Json::Value answer = Import(std::string("[{\"name\":\"good\"},") + camera + "]");
        EXPECT_EQ(answer["error"]["code"].asInt(), 401) << camera;
        EXPECT_EQ(answer["error"]["errors"]["param1"].asString().rfind("cameras[1]", 0), 0U) << camera;
    }
    EXPECT_EQ(Import("5")["error"]["code"].asInt(), 401);
    EXPECT_EQ(Call("KORV.Pavane.Camera", "list", Json::Value())["data"]["total"].asInt(), 0);
    EXPECT_TRUE(Import("[{\"name\":\"\xF0\x9F\x93\xB7 \xC3\xA4\"}]")["success"].asBool());
}

TEST_F(Api, PagesHaveLimits) {
    for (const char* name : {"limit", "offset"}) {
        Json::Value params;
        params[name] = -1;
        EXPECT_EQ(Call("KORV.Pavane.Event", "list", params)["error"]["code"].asInt(), 401) << name;
    }
    Json::Value params;
    params["limit"] = 1001;
    EXPECT_EQ(Call("KORV.Pavane.Event", "list", params)["error"]["code"].asInt(), 401);
    params["limit"] = "many";
    EXPECT_EQ(Call("KORV.Pavane.Event", "list", params)["error"]["code"].asInt(), 101);
}

TEST_F(Api, EventsAreListedWithTheirSentences) {
    PVLog(PV_LOG_REC_SHARE_CREATED, "anne", 0, {"rec"}, 0);
    const Json::Value answer = Call("KORV.Pavane.Event", "list", Json::Value());
    const Json::Value event = answer["data"]["events"][0];
    EXPECT_EQ(answer["data"]["total"].asInt(), 1);
    EXPECT_EQ(event["type"].asUInt(), 0x133000C8U);
    EXPECT_EQ(event["user"].asString(), "anne");
    EXPECT_EQ(event["text"].asString(), "Recording share rec was created.");
    EXPECT_EQ(event["args"][0].asString(), "rec");
}

TEST_F(Api, LogLevelsAreSetForCategoriesAndProcesses) {
    Json::Value params;
    params["category"] = "share";
    params["level"] = "debug";
    ASSERT_TRUE(Call("KORV.Pavane.Log", "set_level", params)["success"].asBool());
    EXPECT_EQ(g_pDbgLogCfg->level[LOG_CATEG_SHARE], LOG_LEVEL_DEBUG);
    params["level"] = 1;
    ASSERT_TRUE(Call("KORV.Pavane.Log", "set_level", params)["success"].asBool());
    EXPECT_EQ(g_pDbgLogCfg->level[LOG_CATEG_SHARE], LOG_LEVEL_ERR);
    Json::Value own;
    own["pid"] = getpid();
    own["level"] = "TRACE";
    ASSERT_TRUE(Call("KORV.Pavane.Log", "set_level", own)["success"].asBool());
    const Json::Value levels = Call("KORV.Pavane.Log", "get_level", Json::Value())["data"];
    EXPECT_EQ(levels["processes"][0]["pid"].asInt(), getpid());
    EXPECT_EQ(levels["processes"][0]["levelName"].asString(), "TRACE");
    ASSERT_EQ(levels["categories"].size(), 2U);
    EXPECT_EQ(levels["categories"][1]["name"].asString(), "SHARE");
    EXPECT_EQ(levels["categories"][1]["level"].asInt(), 1);
    g_pDbgLogCfg->pidCount = 0;
}

TEST_F(Api, LogLevelsThatDoNotExistAreRefused) {
    const char* const bad[] = {R"({"category":"share","level":"loud"})",
                               R"({"category":"share"})",
                               R"({"category":"nobody","level":1})",
                               R"({"level":1})",
                               R"({"pid":0,"level":1})",
                               R"({"pid":-1,"level":1})",
                               R"({"category":[1],"level":1})",
                               R"({"pid":2147483646,"level":1})"};
    for (const char* text : bad) {
        Json::Value params;
        Json::Reader().parse(text, params);
        EXPECT_EQ(Call("KORV.Pavane.Log", "set_level", params)["error"]["code"].asInt(), 401) << text;
    }
}

TEST_F(Api, LinksAndBackupFoldersAreListed) {
    UpdateBackupInfo({"rec"}, {});
    const Json::Value folders = Call("KORV.Pavane.Service", "list_backup", Json::Value())["data"];
    EXPECT_EQ(folders["total"].asInt(), 1);
    EXPECT_EQ(folders["folders"][0]["name"].asString(), "rec");
    const Json::Value links = Call("KORV.Pavane.Service", "list_links", Json::Value())["data"];
    EXPECT_EQ(links["total"].asInt(), 0);
    EXPECT_TRUE(links["links"].isArray());
}

TEST_F(Api, TheModuleReportsItsHealth) { EXPECT_EQ(korv::FailedHealthCheck(), ""); }
