#include <unistd.h>

#include <string>

#include <json/json.h>

#include "platform/pavane/archive.h"
#include "platform/pavane/events.h"
#include "platform/pavane/log.h"
#include "platform/pavane/services.h"

#include "korv/framework/host.h"
#include "pavane/recorder/log_config.h"
#include "tests/unit/pavane/loaded_api.h"

namespace {

class Api : public LoadedApi {
protected:
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
    } methods[] = {{"KORV.Pavane.Application", "list"},
                   {"KORV.Pavane.Application", "set"},
                   {"KORV.Pavane.Application", "list_storage"},
                   {"KORV.Pavane.Application", "add_storage"},
                   {"KORV.Pavane.Application", "remove_storage"},
                   {"KORV.Pavane.Camera", "import"},
                   {"KORV.Pavane.Camera", "list"},
                   {"KORV.Pavane.Event", "list"},
                   {"KORV.Pavane.Log", "get_level"},
                   {"KORV.Pavane.Log", "set_level"},
                   {"KORV.Pavane.Service", "list_links"},
                   {"KORV.Pavane.Service", "list_backup"},
                   {"KORV.Pavane.Service", "list_notices"},
                   {"KORV.Pavane.Service", "take_notice"},
                   {"KORV.Pavane.Archive", "list"},
                   {"KORV.Pavane.Archive", "set"},
                   {"KORV.Pavane.Archive", "remove"},
                   {"KORV.Pavane.Camera", "migrate_start"},
                   {"KORV.Pavane.Camera", "migrate_stop"},
                   {"KORV.Pavane.Snapshot", "get"},
                   {"KORV.Pavane.Snapshot", "set"},
                   {"KORV.Pavane.Snapshot", "clear"}};
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
        "{\"name\":\"a\xC2\x80\"}",
        "{\"name\":\"a\xC2\x9F\"}",
        "7",
    };
    for (const char* camera : bad) {
        const Json::Value answer = Import(std::string("[{\"name\":\"good\"},") + camera + "]");
        EXPECT_EQ(answer["error"]["code"].asInt(), 401) << camera;
        EXPECT_EQ(answer["error"]["errors"]["param1"].asString().rfind("cameras[1]", 0), 0U) << camera;
    }
    EXPECT_EQ(Import("5")["error"]["code"].asInt(), 401);
    EXPECT_EQ(Call("KORV.Pavane.Camera", "list", Json::Value())["data"]["total"].asInt(), 0);
    EXPECT_TRUE(Import("[{\"name\":\"\xF0\x9F\x93\xB7 \xC3\xA4\xC2\xA0\"}]")["success"].asBool());
}

TEST_F(Api, AKeyThatNoCameraHasIsNamed) {
    const auto refusal = [](const std::string& key) {
        Json::Value answer =
            Import("[{\"name\":\"good\"},{\"name\":\"bad\",\"" + key + "\":\"/volume1/rec/bad\"}]");
        EXPECT_EQ(answer["error"]["code"].asInt(), 401) << key;
        EXPECT_EQ(answer["error"]["errors"]["param2"].asString(), "is no key of a camera") << key;
        return answer["error"]["errors"]["param1"].asString();
    };
    EXPECT_EQ(refusal("recording_path"), "cameras[1].recording_path");
    EXPECT_EQ(refusal("Ip"), "cameras[1].Ip");
    EXPECT_EQ(refusal(""), "cameras[1].");
    EXPECT_EQ(refusal("\\u001b[2J"), "cameras[1].?");
    EXPECT_EQ(refusal(std::string(256, 'x')), "cameras[1].?");
    EXPECT_EQ(Call("KORV.Pavane.Camera", "list", Json::Value())["data"]["total"].asInt(), 0);
}

TEST_F(Api, AListOfCamerasCanBeImportedAsItIs) {
    ASSERT_TRUE(Import(R"([{"name":"door","recordingPath":"/volume1/rec/door","ip":"192.0.2.7","occupiedMB":7,
        "rotatedBySpace":true,"rotationBySpaceMB":2147483647,"recStorageStatus":1},{"name":"yard"}])")
                    ["success"]
                        .asBool());
    Json::Value list = Call("KORV.Pavane.Camera", "list", Json::Value())["data"];
    Json::Value params;
    params["cameras"] = list["cameras"];
    const Json::Value imported = Call("KORV.Pavane.Camera", "import", params);
    EXPECT_EQ(imported["data"]["imported"].asInt(), 2) << imported.toStyledString();
    EXPECT_EQ(Call("KORV.Pavane.Camera", "list", Json::Value())["data"], list);
}

TEST_F(Api, OneImportHoldsACameraOnce) {
    const Json::Value answer = Import(
        R"([{"name":"x"},{"name":"door","ownerRvId":2},{"name":"door"},{"name":"door","ownerRvId":2}])");
    EXPECT_EQ(answer["error"]["code"].asInt(), 401);
    EXPECT_EQ(answer["error"]["errors"]["param1"].asString(), "cameras[3].name");
    EXPECT_EQ(answer["error"]["errors"]["param2"].asString(), "is that of cameras[1] of the same server");
    EXPECT_EQ(Call("KORV.Pavane.Camera", "list", Json::Value())["data"]["total"].asInt(), 0);
}

TEST_F(Api, ANumberThatIsTooLargeIsToldItsRange) {
    const Json::Value answer = Import(R"([{"name":"door","occupiedMB":2147483648}])");
    EXPECT_EQ(answer["error"]["errors"]["param1"].asString(), "cameras[0].occupiedMB");
    EXPECT_EQ(answer["error"]["errors"]["param2"].asString(), "must be a whole number from 0 to 2147483647");
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

TEST_F(Api, ArchiveTasksAreSetListedAndRemoved) {
    Json::Value task;
    task["name"] = "nightly";
    task["storagePath"] = "/volume1/rec";
    const Json::Value added = Call("KORV.Pavane.Archive", "set", task);
    ASSERT_TRUE(added["success"].asBool()) << added.toStyledString();
    const Json::Value listed = Call("KORV.Pavane.Archive", "list", Json::Value())["data"];
    EXPECT_EQ(listed["total"].asInt(), 1);
    EXPECT_EQ(listed["tasks"][0]["id"], added["data"]["id"]);
    EXPECT_EQ(listed["tasks"][0]["name"].asString(), "nightly");
    EXPECT_EQ(listed["tasks"][0]["server"].asString(), "");
    EXPECT_EQ(listed["tasks"][0]["type"].asInt(), 1);
    EXPECT_EQ(listed["tasks"][0]["storagePath"].asString(), "/volume1/rec");
    EXPECT_TRUE(Call("KORV.Pavane.Archive", "remove", listed["tasks"][0])["success"].asBool());
    const Json::Value again = Call("KORV.Pavane.Archive", "remove", listed["tasks"][0]);
    EXPECT_EQ(again["error"]["code"].asInt(), 401);
    EXPECT_EQ(again["error"]["errors"]["param1"].asString(), "id");
    const char* const bad[] = {R"({"storagePath":"/volume1/rec"})",
                               R"({"name":"a"})",
                               R"({"name":"a","storagePath":"rec"})",
                               R"({"name":"a","storagePath":"/rec/"})",
                               R"({"name":"a","storagePath":"/rec","type":0})",
                               R"({"name":"a\u0000","storagePath":"/rec"})"};
    for (const char* text : bad) {
        Json::Value params;
        Json::Reader().parse(text, params);
        EXPECT_EQ(Call("KORV.Pavane.Archive", "set", params)["error"]["code"].asInt(), 401) << text;
    }
    EXPECT_EQ(Call("KORV.Pavane.Archive", "list", Json::Value())["data"]["total"].asInt(), 0);
}

TEST_F(Api, ACameraThatMigratesIsListedSo) {
    Import(R"([{"name":"door","recordingPath":"/volume1/rec/door"},{"name":"yard","ownerRvId":2}])");
    const auto cameras = [] { return Call("KORV.Pavane.Camera", "list", Json::Value())["data"]["cameras"]; };
    Json::Value params;
    params["id"] = cameras()[0]["id"];
    Json::Value started = Call("KORV.Pavane.Camera", "migrate_start", params);
    ASSERT_TRUE(started["success"].asBool()) << started.toStyledString();
    EXPECT_EQ(started["data"]["sourceDir"].asString(), "/volume1/rec/door");
    EXPECT_EQ(cameras()[0]["migratingFrom"].asString(), "/volume1/rec/door");
    EXPECT_EQ(cameras()[1]["migratingFrom"].asString(), "");
    params["sourceDir"] = "/volume2/old/door";
    EXPECT_TRUE(Call("KORV.Pavane.Camera", "migrate_start", params)["success"].asBool());
    EXPECT_EQ(cameras()[0]["migratingFrom"].asString(), "/volume2/old/door");
    params["sourceDir"] = "/volume2/it's";
    EXPECT_TRUE(Call("KORV.Pavane.Camera", "migrate_start", params)["success"].asBool());
    EXPECT_EQ(cameras()[0]["migratingFrom"].asString(), "/volume2/it's");
    for (const char* source : {"relative", "", "/a/../b"}) {
        params["sourceDir"] = source;
        EXPECT_EQ(Call("KORV.Pavane.Camera", "migrate_start", params)["error"]["code"].asInt(), 401)
            << source;
    }
    EXPECT_TRUE(Call("KORV.Pavane.Camera", "migrate_stop", params)["data"]["wasMigrating"].asBool());
    EXPECT_FALSE(Call("KORV.Pavane.Camera", "migrate_stop", params)["data"]["wasMigrating"].asBool());
    EXPECT_EQ(cameras()[0]["migratingFrom"].asString(), "");
    params = Json::Value();
    params["id"] = cameras()[1]["id"];
    EXPECT_EQ(Call("KORV.Pavane.Camera", "migrate_start", params)["error"]["code"].asInt(), 401);
    params["id"] = 999999;
    EXPECT_EQ(Call("KORV.Pavane.Camera", "migrate_start", params)["error"]["code"].asInt(), 401);
}

TEST_F(Api, NoticesAreListedAndTaken) {
    TimeLapseApi::NotifyShareUpdate(SHARE_OPERATION_REC_SHARE_REMOVED, "/volume1/rec", "", false);
    const Json::Value page = Call("KORV.Pavane.Service", "list_notices", Json::Value())["data"];
    ASSERT_EQ(page["total"].asInt(), 1);
    const Json::Value notice = page["notices"][0];
    EXPECT_EQ(notice["service"].asString(), "timelapse");
    EXPECT_EQ(notice["operation"].asInt(), 6);
    EXPECT_EQ(notice["path"].asString(), "/volume1/rec");
    EXPECT_EQ(notice["newPath"].asString(), "");
    EXPECT_FALSE(notice["afterwards"].asBool());
    EXPECT_GT(notice["time"].asInt64(), 1600000000);
    EXPECT_TRUE(Call("KORV.Pavane.Service", "take_notice", notice)["success"].asBool());
    EXPECT_EQ(Call("KORV.Pavane.Service", "take_notice", notice)["error"]["code"].asInt(), 401);
    EXPECT_EQ(Call("KORV.Pavane.Service", "list_notices", Json::Value())["data"]["total"].asInt(), 0);
}

TEST_F(Api, TheSnapshotShareIsChosenAmongTheSharesOfThisServer) {
    const auto call = [](const char* method, const std::string& path) {
        Json::Value params(Json::objectValue);
        params["path"] = path;
        return Call("KORV.Pavane.Snapshot", method, params);
    };
    Session()
        << "insert into recording_share (id_on_rec, owner_rv_id, name, path, volume, description, hidden,"
           " enc_type, fs_type, mount_type, mount_source, mount_status, auto_mount, migrating,"
           " rec_limit_gb, enable_rec_limit, total_size_mb) values"
           " (0, 0, 'rec', '/volume1/rec', 'volume1', '', 0, 0, 1, 0, '', 0, 0, 0, 100, 0, 0),"
           " (0, 2, 'far', '/volume1/far', 'volume1', '', 0, 0, 1, 0, '', 0, 0, 0, 100, 0, 0)";
    EXPECT_EQ(call("get", "")["data"]["path"].asString(), "");
    EXPECT_EQ(call("set", "/volume1/rec")["data"]["path"].asString(), "/volume1/rec");
    for (const char* bad : {"", "rec", "/volume1/far", "/volume1/nosuch", "/volume1/rec/"}) {
        const Json::Value answer = call("set", bad);
        EXPECT_EQ(answer["error"]["code"].asInt(), 401) << bad;
        EXPECT_EQ(answer["error"]["errors"]["param1"].asString(), "path") << bad;
    }
    EXPECT_EQ(call("get", "")["data"]["path"].asString(), "/volume1/rec");
    EXPECT_EQ(GetSnapshotSharePath(false), "/volume1/rec");
    EXPECT_EQ(call("clear", "")["data"]["path"].asString(), "");
    EXPECT_EQ(call("get", "")["data"]["path"].asString(), "");
}
