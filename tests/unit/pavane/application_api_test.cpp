// "KORV.Pavane.Application": the applications and the shared folders that they use.

#include <exception>
#include <string>

#include "platform/pavane/application.h"
#include "platform/pavane/rec_share.h"

#include "pavane/recorder/application_store.h"
#include "tests/unit/pavane/loaded_api.h"

namespace {

constexpr const char* kApi = "KORV.Pavane.Application";

class ApplicationApi : public LoadedApi {
protected:
    static Json::Value Ask(const char* method, const std::string& params = "{}") {
        Json::Value parsed;
        EXPECT_TRUE(Json::Reader().parse(params, parsed)) << params;
        return Call(kApi, method, parsed);
    }

    static int SavedShare(int owner = 0) {
        RecShare share;
        share.SetOwnerRvId(owner);
        share.SetName("rec");
        share.SetPath("/volume1/rec");
        EXPECT_EQ(share.Save(), 0);
        return share.GetId();
    }

    static std::string Storage(int share, int application, const std::string& name) {
        return R"({"shareId":)" + std::to_string(share) + R"(,"applicationId":)" +
               std::to_string(application) + R"(,"name":")" + name + "\"}";
    }

    // "name:share:application " of each row.
    static std::string Stored() {
        std::string all;
        const Json::Value data = Ask("list_storage")["data"];
        for (const Json::Value& row : data["storage"]) {
            all += row["name"].asString() + ":" + row["shareId"].asString() + ":" +
                   row["applicationId"].asString() + " ";
        }
        EXPECT_EQ(data["total"].asUInt(), data["storage"].size());
        return all;
    }
};

}  // namespace

TEST_F(ApplicationApi, AllApplicationsAreListedWithTheirNames) {
    const Json::Value data = Ask("list")["data"];
    EXPECT_EQ(data["total"].asInt(), 26);
    ASSERT_EQ(data["applications"].size(), 26U);
    Json::Value expected;
    Json::Reader().parse(
        R"({"id":2,"name":{"enu":"Time lapse","ger":"Zeitraffer"},"compatible":true,"enabled":true})",
        expected);
    EXPECT_EQ(data["applications"][2], expected);
}

TEST_F(ApplicationApi, WhatIsNotGivenStays) {
    const auto flags = [](int id) {
        const Json::Value application = Ask("list")["data"]["applications"][id];
        return std::string(application["compatible"].asBool() ? "c" : "-") +
               (application["enabled"].asBool() ? "e" : "-");
    };
    EXPECT_TRUE(Ask("set", R"({"applicationId":25,"enabled":false})")["success"].asBool());
    EXPECT_EQ(flags(25), "c-");
    EXPECT_TRUE(Ask("set", R"({"applicationId":25,"compatible":false})")["success"].asBool());
    EXPECT_EQ(flags(25), "--");
    EXPECT_TRUE(Ask("set", R"({"applicationId":25,"enabled":true})")["success"].asBool());
    EXPECT_EQ(flags(25), "-e");
    EXPECT_TRUE(Ask("set", R"({"applicationId":25,"enabled":false,"compatible":true})")["success"].asBool());
    EXPECT_EQ(flags(25), "c-");
    EXPECT_TRUE(Ask("set", R"({"applicationId":0,"compatible":false})")["success"].asBool());
    EXPECT_EQ(flags(0), "-e");
    EXPECT_EQ(flags(1), "ce");
}

TEST_F(ApplicationApi, ChangesOfWhatThereIsNotAreRefused) {
    for (const char* params :
         {R"({"enabled":true})", R"({"applicationId":26,"enabled":true})",
          R"({"applicationId":-1,"enabled":true})", R"({"applicationId":"0","enabled":true})",
          R"({"applicationId":0.5,"enabled":true})", R"({"applicationId":4294967296,"enabled":true})",
          R"({"applicationId":0})", R"({"applicationId":0,"enabled":1})",
          R"({"applicationId":0,"enabled":"yes"})",
          R"({"applicationId":0,"enabled":true,"compatible":[]})"}) {
        const Json::Value answer = Ask("set", params);
        EXPECT_EQ(answer["error"]["code"].asInt(), 401) << params;
        EXPECT_FALSE(answer["error"]["errors"]["param1"].asString().empty()) << params;
    }
    EXPECT_TRUE(pavane::ReadApplicationFlags().empty());
}

TEST_F(ApplicationApi, AUseIsNotedOnceAndTakenBack) {
    const int share = SavedShare();
    const std::string row = Storage(share, 3, "rec");
    EXPECT_TRUE(Ask("add_storage", row)["data"]["added"].asBool());
    const Json::Value again = Ask("add_storage", row);
    EXPECT_TRUE(again["success"].asBool());
    EXPECT_FALSE(again["data"]["added"].asBool());
    EXPECT_TRUE(Ask("add_storage", Storage(-1, 2147483647, "it's \xC3\xA4"))["data"]["added"].asBool());
    EXPECT_TRUE(Ask("add_storage", Storage(share, 2, "rec"))["data"]["added"].asBool());
    const std::string number = std::to_string(share);
    EXPECT_EQ(Stored(), "it's \xC3\xA4:-1:2147483647 rec:" + number + ":2 rec:" + number + ":3 ");
    EXPECT_TRUE(Ask("remove_storage", row)["data"]["removed"].asBool());
    const Json::Value gone = Ask("remove_storage", row);
    EXPECT_TRUE(gone["success"].asBool());
    EXPECT_FALSE(gone["data"]["removed"].asBool());
    EXPECT_EQ(Stored(), "it's \xC3\xA4:-1:2147483647 rec:" + number + ":2 ");
}

TEST_F(ApplicationApi, OnlyRecordingSharesOfThisServerAreUsed) {
    const int elsewhere = SavedShare(2);
    for (const int share : {elsewhere, 999999}) {
        const Json::Value answer = Ask("add_storage", Storage(share, 0, "rec"));
        EXPECT_EQ(answer["error"]["code"].asInt(), 401);
        EXPECT_EQ(answer["error"]["errors"]["param1"].asString(), "shareId");
    }
    EXPECT_EQ(Stored(), "");
}

TEST_F(ApplicationApi, AUseOfADeletedShareStaysUntilItIsTakenBack) {
    const int share = SavedShare();
    ASSERT_TRUE(Ask("add_storage", Storage(share, 0, "rec"))["success"].asBool());
    Session() << "delete from recording_share";
    EXPECT_EQ(Stored(), "rec:" + std::to_string(share) + ":0 ");
    EXPECT_TRUE(Ask("remove_storage", Storage(share, 0, "rec"))["data"]["removed"].asBool());
    EXPECT_EQ(Stored(), "");
}

TEST_F(ApplicationApi, UsesOfOddValuesAreRefused) {
    const char* const bad[] = {R"({"shareId":-1,"name":"a"})",
                               R"({"applicationId":-1,"shareId":-1,"name":"a"})",
                               R"({"applicationId":2147483648,"shareId":-1,"name":"a"})",
                               R"({"applicationId":true,"shareId":-1,"name":"a"})",
                               R"({"applicationId":0,"name":"a"})",
                               R"({"applicationId":0,"shareId":-2,"name":"a"})",
                               R"({"applicationId":0,"shareId":"1","name":"a"})",
                               R"({"applicationId":0,"shareId":-1})",
                               R"({"applicationId":0,"shareId":-1,"name":""})",
                               R"({"applicationId":0,"shareId":-1,"name":7})",
                               R"({"applicationId":0,"shareId":-1,"name":"a\u0000b"})",
                               R"({"applicationId":0,"shareId":-1,"name":"a\nb"})",
                               "{\"applicationId\":0,\"shareId\":-1,\"name\":\"\xFF\"}"};
    for (const char* method : {"add_storage", "remove_storage"}) {
        for (const char* params : bad) {
            EXPECT_EQ(Ask(method, params)["error"]["code"].asInt(), 401) << method << params;
        }
        EXPECT_EQ(Ask(method, Storage(-1, 0, std::string(256, 'x')))["error"]["code"].asInt(), 401);
    }
    EXPECT_EQ(Stored(), "");
    EXPECT_TRUE(Ask("add_storage", Storage(-1, 0, std::string(255, 'x')))["success"].asBool());
}

TEST_F(ApplicationApi, UsesAreListedByPage) {
    for (int i = 4; i >= 0; --i) {
        ASSERT_TRUE(Ask("add_storage", Storage(-1, i, "folder"))["success"].asBool());
    }
    const Json::Value data = Ask("list_storage", R"({"offset":1,"limit":2})")["data"];
    EXPECT_EQ(data["total"].asInt(), 5);
    ASSERT_EQ(data["storage"].size(), 2U);
    EXPECT_EQ(data["storage"][0]["applicationId"].asInt(), 1);
    EXPECT_EQ(data["storage"][1]["applicationId"].asInt(), 2);
    EXPECT_EQ(Ask("list_storage", R"({"limit":0})")["error"]["code"].asInt(), 401);
}

TEST_F(ApplicationApi, RowsThatNameNoShareAreListedAndTakenBackTheSame) {
    Session() << "insert into shared_folder_storage (name) values ('bare')";
    EXPECT_EQ(Stored(), "bare:0:0 ");
    EXPECT_TRUE(Ask("remove_storage", Storage(0, 0, "bare"))["data"]["removed"].asBool());
    EXPECT_EQ(Stored(), "");
}

TEST_F(ApplicationApi, ManyProcessesAtOnceNoteAUseOnce) {
    const int share = SavedShare();
    constexpr int kProcesses = 8;
    constexpr int kRows = 20;
    pavane::CloseAppDatabase();
    EXPECT_EQ(CountSuccesses(kProcesses,
                             [share](int) {
                                 try {
                                     for (int i = 0; i < kRows; ++i) {
                                         pavane::AddApplicationStorage({"rec", share, i});
                                     }
                                     return true;
                                 } catch (const std::exception&) {
                                     return false;
                                 }
                             }),
              kProcesses);
    EXPECT_EQ(pavane::ListApplicationStorage(0, 1).total, kRows);
}

TEST_F(ApplicationApi, WhatCannotBeReadOrChangedIsAnError) {
    {
        const BrokenTable broken("application");
        EXPECT_EQ(Ask("list")["error"]["code"].asInt(), 400);
        EXPECT_EQ(Ask("set", R"({"applicationId":0,"enabled":true})")["error"]["code"].asInt(), 400);
    }
    const BrokenTable broken("shared_folder_storage");
    EXPECT_EQ(Ask("list_storage")["error"]["code"].asInt(), 400);
    EXPECT_EQ(Ask("add_storage", Storage(-1, 0, "a"))["error"]["code"].asInt(), 400);
    EXPECT_EQ(Ask("remove_storage", Storage(-1, 0, "a"))["error"]["code"].asInt(), 400);
}
