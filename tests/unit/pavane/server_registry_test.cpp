#include "pavane/cms/server_registry.h"

#include <unistd.h>

#include <ctime>
#include <exception>
#include <string>
#include <vector>

#include <json/json.h>
#include <sys/wait.h>

#include "platform/pavane/cms.h"
#include "platform/pavane/rec_share.h"

#include "pavane/cms/pairing.h"
#include "pavane/cms/peer_address.h"
#include "pavane/cms/record_drift.h"
#include "pavane/cms/server_key.h"
#include "pavane/cms/server_state.h"
#include "tests/unit/pavane/http_stand_in.h"
#include "tests/unit/pavane/test_node.h"

namespace {

using pavane::CmsRole;

class Registry : public StoreTest {
protected:
    static int AddServer(const std::string& serial, const std::string& address = "https://192.0.2.1:5443") {
        pavane::RecServerRecord server;
        server.serial = serial;
        server.name = "name of " + serial;
        server.address = address;
        return pavane::StoreRecServer(server, {"secret of " + serial, ""});
    }

    static RecShare MakeShare(const std::string& path, int owner, int idOnRec) {
        RecShare share;
        share.SetName(path.substr(path.rfind('/') + 1));
        share.SetPath(path);
        share.SetVolume("volume1");
        share.SetOwnerRvId(owner);
        share.SetIdOnRec(idOnRec);
        return share;
    }

    static void Save(RecShare share) { ASSERT_EQ(share.Save(), 0); }
};

std::string Answer(const std::string& serial, const std::string& version) {
    return R"({"success":true,"data":{"serial":")" + serial + R"(","version":")" + version + "\"}}";
}

}  // namespace

TEST(PeerAddress, OnlyTlsReachesAcrossTheNetwork) {
    for (const char* good :
         {"https://192.0.2.1:5443", "https://nvr-2.example:1", "https://[2001:db8::1]:65535",
          "http://127.0.0.1:80", "http://127.8.9.1:80", "http://[::1]:80", "http://localhost:80"}) {
        EXPECT_TRUE(pavane::IsPeerAddress(good)) << good;
    }
    for (const char* bad :
         {"", "https://", "https://192.0.2.1", "https://192.0.2.1:", "https://192.0.2.1:0", "https://h:65536",
          "https://h:5443/", "https://h:5443/peer", "https://user@h:5443", "https://h:54 43",
          "https://-h:5443", "http://192.0.2.1:80", "http://127.evil.example:80",
          "http://localhost.example:80", "ftp://h:5443", "https://h:5443\r\nX: y", "https://[::1:5443",
          "HTTPS://h:1"}) {
        EXPECT_FALSE(pavane::IsPeerAddress(bad)) << bad;
    }
}

TEST(Fingerprint, IsAHashInBase64) {
    EXPECT_TRUE(pavane::IsFingerprint("sha256//KTR6iMcjoXUorKUJ1cHpwJShwSy8oErRYW5E6HZRNMg="));
    EXPECT_FALSE(pavane::IsFingerprint(""));
    EXPECT_FALSE(pavane::IsFingerprint("sha256//"));
    EXPECT_FALSE(pavane::IsFingerprint("sha256//KTR6iMcjoXUorKUJ1cHpwJShwSy8oErRYW5E6HZRNMg=;sha256//x"));
    EXPECT_FALSE(pavane::IsFingerprint("sha512//KTR6iMcjoXUorKUJ1cHpwJShwSy8oErRYW5E6HZRNMg="));
}

TEST_F(Registry, ASerialIsMadeOnce) {
    const std::string serial = pavane::OwnSerial();
    EXPECT_EQ(serial.size(), 2 * pavane::kSerialBytes);
    EXPECT_EQ(pavane::OwnSerial(), serial);
}

TEST_F(Registry, ARoleSwitchesCentralManagement) {
    EXPECT_EQ(pavane::GetCmsRole(), CmsRole::kNone);
    pavane::SetCmsRole(CmsRole::kHost);
    EXPECT_TRUE(IsEnableCms());
    EXPECT_TRUE(IsCmsHost());
    pavane::HostRecord host;
    host.serial = "HOST";
    host.address = "https://192.0.2.9:5443";
    pavane::StoreHost(host, {"secret", "key"});
    EXPECT_EQ(pavane::GetCmsRole(), CmsRole::kRecServer);
    EXPECT_TRUE(IsCmsPaired());
    EXPECT_FALSE(IsCmsHost());
    pavane::ForgetHost();
    EXPECT_FALSE(IsEnableCms());
    EXPECT_FALSE(pavane::PairedHost().has_value());
}

TEST_F(Registry, AServerThatIsPairedAgainKeepsItsId) {
    const int first = AddServer("A");
    const int other = AddServer("B");
    ASSERT_TRUE(pavane::SetRecServerEnabled(first, false));
    EXPECT_EQ(AddServer("A", "https://192.0.2.7:5443"), first);
    EXPECT_EQ(pavane::FindRecServer(first)->address, "https://192.0.2.7:5443");
    EXPECT_FALSE(pavane::FindRecServer(first)->enabled) << "that is not what pairing is about";
    EXPECT_EQ(pavane::FindRecServer(other)->serial, "B");
    EXPECT_FALSE(pavane::SetRecServerEnabled(9999, true));
    EXPECT_FALSE(pavane::SetRecServerFailover(9999, true, true));
}

TEST_F(Registry, ARemovedServerTakesItsRecordsAlong) {
    const int gone = AddServer("A");
    const int stays = AddServer("B");
    Save(MakeShare("/volume1/a", gone, 1));
    Save(MakeShare("/volume1/a", stays, 1));
    Save(MakeShare("/volume1/a", 0, 0));
    EXPECT_TRUE(pavane::RemoveRecServer(gone));
    EXPECT_FALSE(pavane::RemoveRecServer(gone));
    EXPECT_TRUE(LoadRecShareFromDB(gone).empty());
    EXPECT_EQ(LoadRecShareFromDB(0).size(), 2U);
    EXPECT_NE(AddServer("C"), gone) << "an id is never given twice";
}

TEST_F(Registry, AStateIsWhatTheServerAnswers) {
    struct Case {
        std::string answer;
        RV_STATUS status;
        std::string problem;
    };
    const std::string refusal = R"({"success":false,"error":{"code":105}})";
    const std::string head =
        "HTTP/1.1 403 Forbidden\r\nConnection: close\r\nContent-Length: " + std::to_string(refusal.size()) +
        "\r\n";
    const Case cases[] = {
        {OkAnswer(Answer("A", PAVANE_VERSION)), RV_STATUS_ONLINE, ""},
        {OkAnswer(Answer("A", "0.0.0")), RV_STATUS_VERSION_DIFFERS, "version"},
        {OkAnswer(Answer("B", PAVANE_VERSION)), RV_STATUS_OFFLINE, "other_server"},
        {OkAnswer("{}"), RV_STATUS_OFFLINE, "bad_answer"},
        {OkAnswer("no"), RV_STATUS_OFFLINE, "bad_answer"},
        {OkAnswer(R"({"success":false,"error":{"code":111}})"), RV_STATUS_OFFLINE, "busy"},
        {head + "\r\n" + refusal, RV_STATUS_UNPAIRED, "unpaired"},
        {head + "Date: Thu, 01 Jan 2015 00:00:00 GMT\r\n\r\n" + refusal, RV_STATUS_OFFLINE, "clock"},
    };
    pavane::SetCmsRole(CmsRole::kHost);
    for (const Case& each : cases) {
        const HttpStandIn server(each.answer);
        const int id = AddServer("A", server.Address());
        const pavane::ServerState state = pavane::RefreshRecServer(id, false);
        EXPECT_EQ(state.status, each.status) << each.answer;
        EXPECT_EQ(state.problem, each.problem) << each.answer;
        EXPECT_EQ(pavane::FindRecServer(id)->problem, each.problem);
        EXPECT_GT(pavane::FindRecServer(id)->checked_s, 0);
    }
    const int id = AddServer("A", "http://127.0.0.1:1");
    EXPECT_EQ(pavane::RefreshRecServer(id, false).problem, "unreachable");
    EXPECT_EQ(pavane::AskServer(9999, false).status, RV_STATUS_UNPAIRED);
}

// Its workers for peers may all be busy with what the host itself has asked for.
TEST_F(Registry, AServerThatWasOnlineMayBeSilentForAWhile) {
    const HttpStandIn silent("");
    const int id = AddServer("A", silent.Address());
    pavane::SetCmsRole(CmsRole::kHost);
    const auto afterAnswer = [&](int age_s) {
        const long long seen_s = std::time(nullptr) - age_s;
        Session() << "update rec_server set status = 0, problem = '', seen_s = :seen", soci::use(seen_s);
        pavane::RefreshRecServer(id, false);
        const auto server = pavane::FindRecServer(id);
        EXPECT_EQ(server->seen_s, seen_s);
        return std::to_string(server->status) + server->problem;
    };
    EXPECT_EQ(afterAnswer(20), "0");
    EXPECT_EQ(afterAnswer(60), "1no_answer");
    EXPECT_EQ(afterAnswer(-600), "1no_answer") << "the clock was set back";
    AddServer("A", "http://127.0.0.1:1");
    EXPECT_EQ(afterAnswer(0), "1unreachable") << "there is nobody to wait for";
}

TEST_F(Registry, AServerThatIsNoHostKnowsNoStates) {
    const HttpStandIn server(OkAnswer(Answer("A", PAVANE_VERSION)));
    const int id = AddServer("A", server.Address());
    pavane::SetCmsRole(CmsRole::kHost);
    pavane::RefreshServerStates();
    EXPECT_EQ(pavane::FindRecServer(id)->status, RV_STATUS_ONLINE);
    pavane::SetCmsRole(CmsRole::kNone);
    const auto isNotAsked = [&] {
        const auto record = pavane::FindRecServer(id);
        return record->status == RV_STATUS_OFFLINE && record->problem == "not_asked";
    };
    EXPECT_TRUE(isNotAsked());
    pavane::NoteRecServerState(id, RV_STATUS_ONLINE, "", "", true);
    EXPECT_TRUE(isNotAsked()) << "an answer that comes late counts no more";
    pavane::SetCmsRole(CmsRole::kHost);
    pavane::RefreshServerStates();
    EXPECT_EQ(pavane::FindRecServer(id)->status, RV_STATUS_ONLINE);
}

TEST_F(Registry, AServerThatDoesNotAnswerHoldsUpNoOther) {
    const HttpStandIn silent("");
    const HttpStandIn second(OkAnswer(Answer("B", PAVANE_VERSION)));
    const HttpStandIn third(OkAnswer(Answer("C", "0.0.0")));
    const int silentId = AddServer("A", silent.Address());
    const int secondId = AddServer("B", second.Address());
    const int thirdId = AddServer("C", third.Address());
    pavane::SetCmsRole(CmsRole::kHost);

    const pid_t asking = fork();
    if (asking == 0) {
        pavane::RefreshServerStates();
        _exit(0);
    }
    ASSERT_TRUE(WaitUntil([&] {
        return pavane::FindRecServer(secondId)->checked_s > 0 &&
               pavane::FindRecServer(thirdId)->checked_s > 0;
    }));
    const bool isSilentLast = pavane::FindRecServer(silentId)->checked_s == 0;
    int status = -1;
    waitpid(asking, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(isSilentLast) << "the others waited for it";
    EXPECT_EQ(pavane::FindRecServer(silentId)->problem, "no_answer");
    EXPECT_EQ(pavane::FindRecServer(secondId)->problem, "");
    EXPECT_EQ(pavane::FindRecServer(thirdId)->problem, "version");
}

TEST_F(Registry, EachServerGetsItsStateWhenManyAreAsked) {
    constexpr int kMoreThanAtOnce = 70;
    std::vector<int> ids;
    ids.reserve(kMoreThanAtOnce + 1);
    for (int i = 0; i < kMoreThanAtOnce; ++i) {
        ids.push_back(AddServer("gone" + std::to_string(i), "http://127.0.0.1:1"));
    }
    ids.push_back(AddServer("never paired", ""));
    const HttpStandIn server(OkAnswer(Answer("last", PAVANE_VERSION)));
    const int last = AddServer("last", server.Address());
    pavane::SetCmsRole(CmsRole::kHost);
    pavane::RefreshServerStates();
    for (const int id : ids) {
        EXPECT_EQ(pavane::FindRecServer(id)->problem, id == ids.back() ? "unpaired" : "unreachable");
    }
    EXPECT_EQ(pavane::FindRecServer(last)->problem, "");
}

TEST_F(Registry, NothingIsSentInTheClearAcrossTheNetwork) {
    const int id = AddServer("A", "http://192.0.2.1:80");
    pavane::SetCmsRole(CmsRole::kHost);
    EXPECT_EQ(pavane::RefreshRecServer(id, false).problem, "unreachable");
    const std::string log = ReadFile(TestNode::Instance().LogDir() + "/pavane.log");
    EXPECT_NE(log.find("The state of recording server " + std::to_string(id) + " is now: unreachable"),
              std::string::npos);
}

TEST_F(Registry, DriftIsFoundAndRepaired) {
    // What the recording server has: three shares of its own.
    Save(MakeShare("/volume1/same", 0, 0));
    Save(MakeShare("/volume1/changed", 0, 0));
    Save(MakeShare("/volume1/new", 0, 0));
    const Json::Value answer = pavane::OwnRecords();
    ASSERT_EQ(answer.size(), 3U);
    // What the host knows of them, with an id that it never learnt, a wrong value and one too many.
    const int server = AddServer("A");
    Save(MakeShare("/volume1/same", server, answer[0]["id"].asInt()));
    RecShare changed = MakeShare("/volume1/changed", server, 0);
    changed.SetHidden(true);
    Save(changed);
    Save(MakeShare("/volume1/gone", server, 77));

    const auto drifts = pavane::FindDrift(server, answer);
    ASSERT_EQ(drifts.size(), 3U);
    EXPECT_EQ(drifts[0].kind, pavane::DriftKind::kDiffers);
    EXPECT_EQ(drifts[0].fields, (std::vector<std::string>{"idOnRec", "hidden"}));
    EXPECT_EQ(drifts[1].kind, pavane::DriftKind::kMissing);
    EXPECT_EQ(drifts[1].wanted.GetPath(), "/volume1/new");
    EXPECT_EQ(drifts[2].kind, pavane::DriftKind::kStale);
    EXPECT_EQ(drifts[2].atHost.GetPath(), "/volume1/gone");

    const std::size_t ownBefore = LoadRecSharePath(0).size();
    EXPECT_TRUE(pavane::RepairDrift(drifts));
    EXPECT_TRUE(pavane::FindDrift(server, answer).empty());
    EXPECT_EQ(LoadRecSharePath(server),
              (std::list<std::string>{"/volume1/changed", "/volume1/new", "/volume1/same"}));
    EXPECT_EQ(LoadRecSharePath(0).size(), ownBefore) << "the host's own records are not its business";
}

TEST_F(Registry, ARecordWhosePathIsAnothersByNowIsStillItself) {
    Save(MakeShare("/volume1/first", 0, 0));
    Save(MakeShare("/volume1/second", 0, 0));
    const Json::Value answer = pavane::OwnRecords();
    const int server = AddServer("A");
    RecShare renamed = MakeShare("/volume1/first", server, answer[1]["id"].asInt());
    Save(renamed);
    const auto drifts = pavane::FindDrift(server, answer);
    ASSERT_EQ(drifts.size(), 2U);
    EXPECT_EQ(drifts[0].kind, pavane::DriftKind::kMissing);
    EXPECT_EQ(drifts[1].kind, pavane::DriftKind::kDiffers);
    EXPECT_TRUE(pavane::RepairDrift(drifts));
    EXPECT_TRUE(pavane::FindDrift(server, answer).empty());
    RecShare kept;
    ASSERT_EQ(kept.LoadByPath("/volume1/second", server), 0);
    EXPECT_EQ(kept.GetId(), drifts[1].atHost.GetId()) << "what names the record goes on meaning it";
}

TEST_F(Registry, ALostMountIsADrift) {
    RecShare remote = MakeShare("/volume1/remote", 0, 0);
    remote.SetMountType(SHARE_MOUNT_NFS);
    Save(remote);
    Json::Value answer = pavane::OwnRecords();
    const int server = AddServer("A");
    EXPECT_TRUE(pavane::RepairDrift(pavane::FindDrift(server, answer)));
    ASSERT_EQ(remote.LoadByPath("/volume1/remote", 0), 0);
    UpdateShareMountInfo(SHARE_MOUNT_FAILED, remote, false, false);

    answer = pavane::OwnRecords();
    const auto drifts = pavane::FindDrift(server, answer);
    ASSERT_EQ(drifts.size(), 1U);
    EXPECT_EQ(drifts[0].fields, std::vector<std::string>{"mountStatus"});
    EXPECT_TRUE(pavane::RepairDrift(drifts));
    RecShare atHost;
    ASSERT_EQ(atHost.LoadByPath("/volume1/remote", server), 0);
    EXPECT_EQ(atHost.GetMountStatus(), SHARE_MOUNT_FAILED);
    EXPECT_TRUE(pavane::FindDrift(server, answer).empty());

    answer[0].removeMember("mountStatus");
    EXPECT_EQ(pavane::FindDrift(server, answer).size(), 1U) << "what is not said is normal";
}

TEST_F(Registry, ExchangedAndPassedOnPathsAreRepaired) {
    for (const char* path : {"/volume1/a", "/volume1/b", "/volume1/c", "/volume1/d", "/volume1/e"}) {
        Save(MakeShare(path, 0, 0));
    }
    const Json::Value answer = pavane::OwnRecords();
    const int server = AddServer("A");
    // As the host knows them: since then a and b were exchanged, and c, d and e have each passed on a path.
    std::vector<int> ids;
    const char* const known[] = {"/volume1/b", "/volume1/a", "/volume1/z", "/volume1/c", "/volume1/d"};
    for (Json::ArrayIndex i = 0; i < answer.size(); ++i) {
        RecShare share = MakeShare(known[i], server, answer[i]["id"].asInt());
        Save(share);
        ASSERT_EQ(share.LoadByPath(known[i], server), 0);
        ids.push_back(share.GetId());
    }
    Session() << "insert into camera (owner_rv_id, name, recording_path, rec_storage_status) values ("
              << server << ", 'door', '/volume1/d/door', 0)";
    EXPECT_TRUE(pavane::RepairDrift(pavane::FindDrift(server, answer)));
    EXPECT_TRUE(pavane::FindDrift(server, answer).empty());
    for (Json::ArrayIndex i = 0; i < answer.size(); ++i) {
        RecShare share;
        ASSERT_EQ(share.Load(ids[i]), 0);
        EXPECT_EQ(share.GetPath(), answer[i]["path"].asString());
    }
    std::string path;
    Session() << "select recording_path from camera where owner_rv_id = " << server, soci::into(path);
    EXPECT_EQ(path, "/volume1/e/door");
}

TEST_F(Registry, RecordsThatCannotBeReadAreNotTakenForNone) {
    Session() << "alter table recording_share rename to recording_share_away";
    EXPECT_THROW(pavane::OwnRecords(), std::exception);
    EXPECT_THROW(pavane::FindDrift(1, Json::Value(Json::arrayValue)), std::exception);
    Session() << "alter table recording_share_away rename to recording_share";
    EXPECT_TRUE(pavane::OwnRecords().empty());
}

TEST_F(Registry, AnAnswerOfTheWrongTypesIsRefused) {
    Json::Value answer(Json::arrayValue);
    answer[0]["id"] = "one";
    EXPECT_THROW(pavane::FindDrift(1, answer), Json::Exception);
}
