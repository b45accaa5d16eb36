#include <chrono>
#include <functional>
#include <string>

#include <json/json.h>

#include "platform/pavane/cms.h"
#include "platform/pavane/events.h"

#include "pavane/cms/pairing.h"
#include "pavane/cms/server_registry.h"
#include "tests/unit/pavane/http_stand_in.h"
#include "tests/unit/pavane/test_node.h"

namespace {

constexpr const char* kSecret = "0f1e2d3c4b5a69788796a5b4c3d2e1f00f1e2d3c4b5a69788796a5b4c3d2e1f0";

class Peers : public StoreTest {
protected:
    void AddHost(const std::string& address) {
        const std::string secret = kSecret;
        Session() << "insert into cms_host (id, own_serial, address, pair_secret) values (1, 'SER1', :a, :s)",
            soci::use(address), soci::use(secret);
    }

    int AddServer(const std::string& serial, const std::string& address) {
        const std::string secret = kSecret;
        int id = 0;
        Session() << "insert into rec_server (serial, address, pair_secret) values (:k, :a, :s) returning id",
            soci::into(id), soci::use(serial), soci::use(address), soci::use(secret);
        return id;
    }

    static Json::Value Request() {
        Json::Value request;
        request["api"] = "KORV.Pavane.Share";
        request["version"] = 1;
        request["method"] = "CreateRecShare";
        request["relayedCmd"] = true;
        return request;
    }

    // What "list" is after a recording server has answered it; null when it could not be sent.
    Json::Value ListFrom(const std::string& list) {
        const HttpStandIn server(OkAnswer("{\"success\":true,\"data\":{\"list\":" + list + "}}"));
        Json::Value request = Request();
        request["method"] = "ListShareUsage";
        request.removeMember("relayedCmd");
        Json::Value reply;
        if (SendWebAPIToRecServerByJson(AddServer("L", server.Address()), request, false, reply) != 0) {
            return {};
        }
        return reply["data"]["list"];
    }

    static int SendToHost(Json::Value& reply, int wait_s = 5) {
        return SendWebAPIToHost(Request(), false, reply, wait_s, nullptr, 0);
    }
};

// 64 bytes as JSON writes them when each of its two-byte letters is escaped.
std::string LongName() {
    constexpr int kLetters = 32;
    std::string name;
    for (int i = 0; i < kLetters; ++i) {
        name += "\\u00e4";
    }
    return name;
}

std::string ListText(int count, const std::function<std::string(int)>& element) {
    std::string text = "[";
    for (int number = 1; number <= count; ++number) {
        text += (number > 1 ? "," : "") + element(number);
    }
    return text + "]";
}

Json::Value BodyOf(const std::string& received) {
    Json::Value body;
    Json::Reader().parse(received.substr(received.find("\r\n\r\n") + 4), body);
    return body;
}

std::string StampOf(const std::string& received) {
    const std::size_t begin = received.find("Cookie: timestamp=") + 18;
    return received.substr(begin, received.find("\r\n", begin) - begin);
}

}  // namespace

TEST_F(Peers, ARequestToTheHostCarriesTheProofOfThePairing) {
    const HttpStandIn host(OkAnswer(R"({"success":true,"data":{"id":7}})"));
    AddHost(host.Address());
    Json::Value reply;
    ASSERT_EQ(SendToHost(reply), 0);
    EXPECT_EQ(reply["data"]["id"].asInt(), 7);
    const std::string received = host.Received();
    EXPECT_EQ(received.rfind("POST /peer HTTP/1.1\r\n", 0), 0U);
    const Json::Value body = BodyOf(received);
    EXPECT_EQ(body["method"].asString(), "CreateRecShare");
    EXPECT_TRUE(body["relayedCmd"].asBool());
    EXPECT_EQ(body["client"].asString(), "REC_SERVER");
    EXPECT_EQ(body["recSerialNum"].asString(), "SER1");
    EXPECT_EQ(body["cookie"].asString(), pavane::MakePairKey(kSecret, StampOf(received)));
    EXPECT_EQ(received.find(kSecret), std::string::npos);
    // The other side, here with the same secret, accepts it: once.
    pavane::SetCmsRole(pavane::CmsRole::kRecServer);
    EXPECT_TRUE(IsAuthPairMatch(body["cookie"].asString(), StampOf(received)));
    EXPECT_FALSE(IsAuthPairMatch(body["cookie"].asString(), StampOf(received)));
}

TEST_F(Peers, ANameInAnotherScriptIsSentAsItIs) {
    const HttpStandIn server(OkAnswer("{\"success\":true}"));
    const int id = AddServer("A", server.Address());
    Json::Value request = Request();
    request["shareName"] = "\u5165\u53e3\U0001F3A5";
    Json::Value reply;
    ASSERT_EQ(SendWebAPIToRecServerByJson(id, request, false, reply), 0);
    EXPECT_NE(server.Received().find("\"\u5165\u53e3\U0001F3A5\""), std::string::npos) << server.Received();
}

TEST_F(Peers, ARequestToARecordingServerGoesToItsAddress) {
    const HttpStandIn first(OkAnswer("{\"success\":true}"));
    const HttpStandIn second(OkAnswer("{\"success\":true,\"second\":1}"));
    AddServer("A", first.Address());
    const int id = AddServer("B", second.Address());
    Json::Value reply;
    ASSERT_EQ(SendWebAPIToRecServerByJson(id, Request(), false, reply), 0);
    EXPECT_EQ(reply["second"].asInt(), 1);
    EXPECT_EQ(first.Received(), "");
    EXPECT_EQ(BodyOf(second.Received())["recSerialNum"].asString(), "B");
}

TEST_F(Peers, AnErrorAnswerIsAnAnswerWhateverItsStatus) {
    const std::string body = R"({"success":false,"error":{"code":102}})";
    const HttpStandIn host("HTTP/1.1 404 Not Found\r\nContent-Length: " + std::to_string(body.size()) +
                           "\r\nConnection: close\r\n\r\n" + body);
    AddHost(host.Address());
    Json::Value reply;
    ASSERT_EQ(SendToHost(reply), 0);
    EXPECT_EQ(reply["error"]["code"].asInt(), 102);
}

TEST_F(Peers, WhatIsNoAnswerOfAWebApiIsAFailedSend) {
    for (const std::string& body :
         {std::string("[1]"), std::string("oops"), std::string(""), std::string("{\"a\":1"),
          std::string(5000, '['), std::string(R"({"error":"text"})"), std::string(R"({"error":null})"),
          std::string(R"({"error":{}})"), std::string(R"({"error":{"code":"443"}})"),
          std::string(R"({"error":{"code":443,"errors":[1]}})"),
          std::string(R"({"error":{"code":443,"errors":{"param1":{}}}})"),
          std::string(R"({"error":{"code":443},"data":[1]})"), std::string(R"({"success":true,"data":[1]})"),
          std::string(R"({"success":true,"data":"1"})"),
          // What those who sent the request take out of it.
          std::string(R"({"success":true,"data":{"id":"7"}})"),
          std::string(R"({"success":true,"data":{"id":[7]}})"),
          std::string(R"({"success":true,"data":{"id":3000000000}})"),
          std::string(R"({"success":true,"data":{"id":7,"fsType":"ext4"}})"),
          std::string(R"({"success":true,"data":{"id":7,"totalSize":-1}})"),
          std::string(R"({"success":true,"data":{"id":7,"blMigrating":"no"}})"),
          std::string(R"({"success":true,"data":{"id":7,"encType":{}}})"),
          std::string(R"({"success":true,"data":{"usage":{"name":"a"}}})"),
          std::string(R"({"success":true,"data":{"usage":["a"]}})"),
          std::string(R"({"error":{"code":443},"data":{"stopOnHostError":"yes"}})")}) {
        const HttpStandIn host(OkAnswer(body));
        Session() << "delete from cms_host";
        AddHost(host.Address());
        Json::Value reply = "before";
        EXPECT_NE(SendToHost(reply), 0) << body.substr(0, 20);
        EXPECT_TRUE(reply.isNull());
    }
}

TEST_F(Peers, ARedirectIsNotFollowed) {
    const HttpStandIn target(OkAnswer("{\"success\":true}"));
    const HttpStandIn host("HTTP/1.1 307 Temporary Redirect\r\nLocation: " + target.Address() +
                           "/peer\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    AddHost(host.Address());
    Json::Value reply;
    EXPECT_NE(SendToHost(reply), 0);
    EXPECT_EQ(target.Received(), "");
}

TEST_F(Peers, AChangeWithAnAnswerOverTheLimitIsAFailedSend) {
    constexpr std::size_t kOverTheLimit = 4UL * 1024 * 1024;
    const HttpStandIn host(OkAnswer("{\"a\":\"" + std::string(kOverTheLimit, 'x') + "\"}"));
    AddHost(host.Address());
    Json::Value reply;
    EXPECT_NE(SendToHost(reply), 0);
    EXPECT_TRUE(reply.isNull());
}

TEST_F(Peers, AListOverItsLimitIsAFailedSend) {
    constexpr std::size_t kOverTheLimit = 16UL * 1024 * 1024;
    EXPECT_TRUE(ListFrom("[\"" + std::string(kOverTheLimit, 'x') + "\"]").isNull());
}

// Three applications keep data in each of 10,000 shares with the longest names.
TEST_F(Peers, TheUsageOfTenThousandSharesFits) {
    constexpr int kEntries = 30000;
    const std::string usage = ListText(kEntries, [](int number) {
        return R"({"app":{"enabled":false,"name":{"enu":"Intrusion detection","ger":"Einbruchserkennung"}},)"
               R"("application_id":12,"name":")" +
               LongName() + R"(","rvId":0,"share_id":)" + std::to_string(number) + "}";
    });
    EXPECT_EQ(ListFrom(usage).size(), static_cast<unsigned>(kEntries));
}

TEST_F(Peers, TheRecordsOfTenThousandSharesFit) {
    constexpr int kRecords = 10000;
    const std::string records = ListText(kRecords, [](int number) {
        return R"({"autoMount":true,"description":")" + std::string(200, 'd') +
               R"(","enableRecLimit":false,"encType":0,"fsType":1,"hidden":false,"id":)" +
               std::to_string(number) + R"(,"migrating":false,"mountSource":")" + std::string(200, 's') +
               R"(","mountType":2,"name":")" + LongName() + R"(","path":"/volume1/)" + LongName() +
               R"(","recLimitGB":100,"totalSizeMB":18446744073709551615,"volume":"volume1"})";
    });
    EXPECT_EQ(ListFrom(records).size(), static_cast<unsigned>(kRecords));
}

TEST_F(Peers, APeerThatNeverAnswersEndsAtTheDeadline) {
    const HttpStandIn host("");
    AddHost(host.Address());
    Json::Value reply;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_NE(SendToHost(reply, 1), 0);
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, std::chrono::milliseconds(900));
    EXPECT_LT(took, std::chrono::seconds(4));
}

TEST_F(Peers, SendsWithoutAPairingOrAPeerFail) {
    Json::Value reply;
    EXPECT_NE(SendToHost(reply), 0);
    EXPECT_NE(SendWebAPIToRecServerByJson(99, Request(), false, reply), 0);
    AddHost("http://127.0.0.1:1");
    EXPECT_NE(SendToHost(reply), 0);
    EXPECT_TRUE(reply.isNull());
    EXPECT_NE(SendWebAPIToHost(Request(), true, reply, 1, nullptr, 0), 0);
}

TEST_F(Peers, TlsWithoutAPinnedKeyIsRefusedBeforeAnythingIsSent) {
    const HttpStandIn host(OkAnswer("{}"));
    AddHost("https" + host.Address().substr(4));
    Json::Value reply;
    EXPECT_NE(SendToHost(reply), 0);
    EXPECT_EQ(host.Received(), "");
}

TEST_F(Peers, ANotificationIsPublishedAtTheSocketOfTheServer) {
    const std::string socket = TestNode::Instance().RunDir() + "/notify.sock";
    const HttpStandIn server(OkAnswer(""), socket);
    PVClientNotify::Notify(CLIENT_NOTIFY_REC_SHARE);
    const std::string received = server.Received();
    EXPECT_EQ(received.rfind("POST /publish HTTP/1.1\r\n", 0), 0U);
    EXPECT_EQ(received.substr(received.find("\r\n\r\n") + 4), "{\"type\":41}");
}

TEST_F(Peers, ANotificationThatNobodyTakesIsLogged) {
    const std::string socket = TestNode::Instance().RunDir() + "/notify.sock";
    const HttpStandIn server("HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\nConnection: close\r\n\r\n",
                             socket);
    PVClientNotify::Notify(CLIENT_NOTIFY_REC_SHARE);
    const std::string log = ReadFile(TestNode::Instance().LogDir() + "/pavane.log");
    EXPECT_NE(log.find("Failed to notify the clients: HTTP status 403"), std::string::npos);
}
