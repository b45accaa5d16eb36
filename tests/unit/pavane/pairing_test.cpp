#include "pavane/cms/pairing.h"

#include <ctime>
#include <stdexcept>
#include <string>

#include "platform/pavane/cms.h"

#include "pavane/cms/server_registry.h"
#include "tests/unit/pavane/test_node.h"

namespace {

class Pairing : public StoreTest {
protected:
    static constexpr const char* kSecret = "a pair's secret";

    void PairWith(const std::string& serial, const std::string& secret) {
        pavane::SetCmsRole(pavane::CmsRole::kHost);
        Session() << "insert into rec_server (serial, pair_secret) values (:k, :s)", soci::use(serial),
            soci::use(secret);
    }

    static bool Admits(const std::string& key, const std::string& stamp) {
        return pavane::AdmitPeer(key, stamp, "KORV.Pavane.CMS", Request("A"));
    }

    static Json::Value Request(const std::string& serial, const Json::Value& relayed = Json::nullValue) {
        Json::Value request(Json::objectValue);
        request["recSerialNum"] = serial;
        if (!relayed.isNull()) {
            request["relayedCmd"] = relayed;
        }
        return request;
    }

    static std::string StampAt(std::time_t time_s, const std::string& nonce = "0123456789abcdef") {
        return std::to_string(time_s) + "." + nonce;
    }
};

}  // namespace

TEST_F(Pairing, TheKeyIsTheStampsHmac) {
    // RFC 4231, test case 2.
    EXPECT_EQ(pavane::MakePairKey("Jefe", "what do ya want for nothing?"),
              "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
}

TEST_F(Pairing, AKeyIsAcceptedOnce) {
    PairWith("A", "another secret");
    PairWith("B", kSecret);
    const std::string stamp = pavane::MakeStamp();
    const std::string key = pavane::MakePairKey(kSecret, stamp);
    EXPECT_TRUE(IsAuthPairMatch(key, stamp));
    EXPECT_FALSE(IsAuthPairMatch(key, stamp));
    EXPECT_FALSE(SlaveRVAuthentication().IsAuthByPairMatch(key, stamp));
}

TEST_F(Pairing, AKeyIsAcceptedOnceByAllProcessesTogether) {
    PairWith("A", kSecret);
    const std::string stamp = pavane::MakeStamp();
    const std::string key = pavane::MakePairKey(kSecret, stamp);
    EXPECT_EQ(CountSuccesses(8, [&](int) { return SlaveRVAuthentication().IsAuthByPairMatch(key, stamp); }),
              1);
}

TEST_F(Pairing, OnlyStampsNearThePresentTimeAreAccepted) {
    PairWith("A", kSecret);
    const std::time_t now_s = std::time(nullptr);
    for (const std::time_t away_s : {-310, -301, 310}) {
        const std::string stamp = StampAt(now_s + away_s);
        EXPECT_FALSE(IsAuthPairMatch(pavane::MakePairKey(kSecret, stamp), stamp)) << away_s;
    }
    for (const std::time_t away_s : {-290, 0, 290}) {
        const std::string stamp = StampAt(now_s + away_s);
        EXPECT_TRUE(IsAuthPairMatch(pavane::MakePairKey(kSecret, stamp), stamp)) << away_s;
    }
}

TEST_F(Pairing, WrongKeysAndOddStampsAreRefused) {
    PairWith("A", kSecret);
    const std::string stamp = pavane::MakeStamp();
    const std::string key = pavane::MakePairKey(kSecret, stamp);
    EXPECT_FALSE(IsAuthPairMatch("", stamp));
    EXPECT_FALSE(IsAuthPairMatch("FailedCookie", stamp));
    EXPECT_FALSE(IsAuthPairMatch(key.substr(1), stamp));
    EXPECT_FALSE(IsAuthPairMatch(key + "0", stamp));
    EXPECT_FALSE(IsAuthPairMatch(pavane::MakePairKey("wrong", stamp), stamp));
    const std::string now = std::to_string(std::time(nullptr));
    for (const std::string& odd :
         {std::string("FailedTiemstamp"), std::string(), now, now + ".", now + ".0123",
          now + ".0123456789ABCDEF", " " + now + ".0123456789abcdef", "+" + now + ".0123456789abcdef",
          now + ".0123456789abcdef0", std::string("99999999999999999999.0123456789abcdef"),
          std::string("'; drop table pair_stamp; --")}) {
        EXPECT_FALSE(IsAuthPairMatch(pavane::MakePairKey(kSecret, odd), odd)) << odd;
    }
    EXPECT_TRUE(IsAuthPairMatch(key, stamp));
}

TEST_F(Pairing, WithoutAPairingNothingIsAccepted) {
    PairWith("A", "");
    const std::string stamp = pavane::MakeStamp();
    EXPECT_FALSE(IsAuthPairMatch(pavane::MakePairKey("", stamp), stamp));
    EXPECT_FALSE(IsAuthPairMatch(pavane::MakePairKey(kSecret, stamp), stamp));
}

TEST_F(Pairing, PairingsThatCannotBeReadRefuseNobody) {
    PairWith("A", kSecret);
    const std::string stamp = pavane::MakeStamp();
    const std::string key = pavane::MakePairKey(kSecret, stamp);
    Session() << "alter table rec_server rename to rec_server_away";
    EXPECT_THROW(Admits(key, stamp), std::runtime_error);
    EXPECT_THROW(IsAuthPairMatch(key, stamp), std::runtime_error);
    Session() << "alter table rec_server_away rename to rec_server";
    EXPECT_TRUE(Admits(key, stamp));
}

TEST_F(Pairing, OnlyThePairingsOfThePresentRoleCount) {
    using pavane::CmsRole;
    PairWith("A", kSecret);
    Session() << "insert into cms_host (id, own_serial, address, pair_secret) values (1, 'S', 'http://h', '"
              << "hosts secret"
              << "')";
    const auto accepts = [](const std::string& secret) {
        const std::string stamp = pavane::MakeStamp();
        return IsAuthPairMatch(pavane::MakePairKey(secret, stamp), stamp);
    };
    EXPECT_TRUE(accepts(kSecret));
    EXPECT_FALSE(accepts("hosts secret"));
    pavane::SetCmsRole(CmsRole::kRecServer);
    EXPECT_FALSE(accepts(kSecret));
    EXPECT_TRUE(accepts("hosts secret"));
    pavane::SetCmsRole(CmsRole::kNone);
    EXPECT_FALSE(accepts(kSecret));
    EXPECT_FALSE(accepts("hosts secret"));
}

TEST_F(Pairing, AHostTakesFromAServerWhatItRelaysInItsOwnName) {
    PairWith("A", "another secret");
    PairWith("B", kSecret);
    const auto admits = [](const std::string& api, const Json::Value& request) {
        const std::string stamp = pavane::MakeStamp();
        return pavane::AdmitPeer(pavane::MakePairKey(kSecret, stamp), stamp, api, request);
    };
    const std::string share = "KORV.Pavane.Share";
    EXPECT_TRUE(admits(share, Request("B", true)));
    EXPECT_FALSE(admits(share, Request("A", true))) << "another server's name";
    EXPECT_FALSE(admits(share, Request("", true)));
    EXPECT_FALSE(admits(share, Json::objectValue));
    for (const Json::Value& relayed :
         {Json::Value(), Json::Value(false), Json::Value("true"), Json::Value(1)}) {
        EXPECT_FALSE(admits(share, Request("B", relayed))) << relayed;
    }
    EXPECT_TRUE(admits("KORV.Pavane.CMS", Request("B")));
    EXPECT_FALSE(admits("KORV.Pavane.CMS", Request("A")));
}

TEST_F(Pairing, ARecordingServerTakesAllFromItsHost) {
    pavane::SetCmsRole(pavane::CmsRole::kRecServer);
    Session()
        << "insert into cms_host (id, own_serial, address, pair_secret) values (1, 'S', 'http://h', 'hosts')";
    for (const char* serial : {"S", "another", ""}) {
        const std::string stamp = pavane::MakeStamp();
        EXPECT_TRUE(pavane::AdmitPeer(pavane::MakePairKey("hosts", stamp), stamp, "KORV.Pavane.Share",
                                      Request(serial)));
    }
}

TEST_F(Pairing, WhatWasAdmittedAtTheDoorIsAcceptedOnceInside) {
    PairWith("A", kSecret);
    const std::string stamp = pavane::MakeStamp();
    const std::string key = pavane::MakePairKey(kSecret, stamp);
    ASSERT_TRUE(Admits(key, stamp));
    EXPECT_TRUE(IsAuthPairMatch(key, stamp));
    EXPECT_FALSE(IsAuthPairMatch(key, stamp));
    EXPECT_FALSE(Admits(key, stamp));
}

TEST_F(Pairing, ARefusalAtTheDoorForgetsWhatWasAdmittedBefore) {
    PairWith("A", kSecret);
    const std::string stamp = pavane::MakeStamp();
    const std::string key = pavane::MakePairKey(kSecret, stamp);
    ASSERT_TRUE(Admits(key, stamp));
    ASSERT_FALSE(Admits(key, stamp));
    EXPECT_FALSE(IsAuthPairMatch(key, stamp));
}

TEST_F(Pairing, StampsThatTimeRefusesAnywayAreForgotten) {
    PairWith("A", kSecret);
    Session() << "insert into pair_stamp (stamp, expires_s) values ('old', 5)";
    const std::string stamp = pavane::MakeStamp();
    ASSERT_TRUE(IsAuthPairMatch(pavane::MakePairKey(kSecret, stamp), stamp));
    int kept = 0;
    Session() << "select count(*) from pair_stamp", soci::into(kept);
    EXPECT_EQ(kept, 1);
}
