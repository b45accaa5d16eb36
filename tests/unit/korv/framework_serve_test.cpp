// Whole requests, from what nginx hands over to the answer: who calls, what a method sees, what becomes of
// its exceptions. The methods are those of a table of this test; korv.db is a real one in a folder of its
// own.
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>
#include <soci/soci.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "platform/korv/api_runner.h"
#include "platform/korv/configuration.h"
#include "platform/korv/host.h"

#include "korv/framework/api_registry.h"
#include "korv/framework/http_exchange.h"
#include "korv/framework/session_store.h"
#include "korv/framework/upload_files.h"
#include "korv/system/database.h"

namespace {

using KORV::APIRequest;
using KORV::APIResponse;

std::string g_uploadPath;
std::string g_uploadContent;
mode_t g_uploadMode = 0;

void Caller(APIRequest* request, APIResponse* response) {
    Json::Value data;
    data["user"] = request->GetLoginUserName();
    data["authorized"] = request->IsAuthorized();
    data["admin"] = request->IsAdmin();
    data["hasSession"] = !request->GetSessionID().empty();
    data["ip"] = request->GetRemoteIP();
    data["params"] = request->GetParam("", Json::Value());
    response->SetSuccess(data);
}

void ReadNumber(APIRequest* request, APIResponse* response) {
    response->SetSuccess(request->GetParam("shareId", 0).asInt());
}

void Throw(APIRequest* /*request*/, APIResponse* response) {
    response->SetSuccess("too early");
    throw std::runtime_error("a path of the server: /etc/shadow");
}

void ThrowNumber(APIRequest* /*request*/, APIResponse* /*response*/) { throw 1; }

void Silent(APIRequest* /*request*/, APIResponse* /*response*/) {}

void Upload(APIRequest* request, APIResponse* response) {
    g_uploadPath = request->GetParam("key_file_tmp", "").asString();
    struct stat status {};
    stat(g_uploadPath.c_str(), &status);
    g_uploadMode = status.st_mode & 07777U;
    std::ostringstream content;
    content << std::ifstream(g_uploadPath).rdbuf();
    g_uploadContent = content.str();
    response->SetSuccess(Json::Value());
}

void Nested(APIRequest* /*request*/, APIResponse* response) {
    Json::Value replies;
    KORV::APIRunner::Exec(replies["caller"], "Test", 1, "Caller", Json::Value(), "admin");
    KORV::APIRunner::Exec(replies["throws"], "Test", 1, "Throw", Json::Value(), "admin");
    Json::Value wrong;
    wrong["shareId"] = Json::Value(Json::arrayValue);
    KORV::APIRunner::Exec(replies["wrongType"], "Test", 1, "ReadNumber", wrong, "admin");
    KORV::APIRunner::Exec(replies["noApi"], "Test", 2, "Caller", Json::Value(), "admin");
    KORV::APIRunner::Exec(replies["noMethod"], "Test", 1, "None", Json::Value(), "admin");
    response->SetSuccess(replies);
}

const KORV::APITableRow kTable[] = {
    {"Test", 1, "Caller", Caller}, {"Test", 1, "ReadNumber", ReadNumber},
    {"Test", 1, "Throw", Throw},   {"Test", 1, "ThrowNumber", ThrowNumber},
    {"Test", 1, "Silent", Silent}, {"Test", 1, "Upload", Upload},
    {"Test", 1, "Nested", Nested}, {nullptr, 0, nullptr, nullptr},
};

// The configuration of this process, made before anything reads it.
class Node : public testing::Environment {
public:
    void SetUp() override {
        char folder[] = "/tmp/korv_framework_test.XXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        m_folder = folder;
        std::filesystem::create_directory(m_folder / "uploads");
        const std::string file = (m_folder / "korv.yaml").string();
        std::ofstream(file) << "state_dir: " << folder << "\nrun_dir: " << folder << "\nlog_dir: " << folder
                            << "\nsession: {idle_s: 1000, login_failures: 2, login_window_s: 1000}\n";
        setenv("KORV_CONFIG", file.c_str(), 1);
        korv::Registry().Add(kTable);
    }
    void TearDown() override {
        korv::CloseDatabase();
        std::filesystem::remove_all(m_folder);
    }

private:
    std::filesystem::path m_folder;
};

const auto* const kNode = testing::AddGlobalTestEnvironment(new Node);

korv::HttpRequest Post(const std::string& body) {
    korv::HttpRequest request;
    request.target = "/webapi";
    request.method = "POST";
    request.contentType = "application/json";
    request.remoteIp = "192.0.2.1";
    request.body = body;
    return request;
}

std::string Call(const std::string& method, const std::string& more = "") {
    return R"({"api":"Test","version":1,"method":")" + method + '"' + more + '}';
}

Json::Value Parsed(const korv::HttpAnswer& answer) {
    Json::Value value;
    std::istringstream(answer.body) >> value;
    return value;
}

struct CodeAndStatus {
    int code;
    int status;
    bool operator==(const CodeAndStatus&) const = default;
};

CodeAndStatus Outcome(const korv::HttpRequest& request, korv::Pool pool = korv::Pool::kPublic) {
    const korv::HttpAnswer answer = korv::Serve(pool, request);
    return {Parsed(answer)["error"]["code"].asInt(), answer.status};
}

TEST(Serve, WithoutASessionTheMethodDecides) {
    const korv::HttpAnswer answer = korv::Serve(korv::Pool::kPublic, Post(Call("Caller", R"(,"x":1)")));
    EXPECT_EQ(answer.status, 200);
    const Json::Value data = Parsed(answer)["data"];
    EXPECT_EQ(data["user"], "");
    EXPECT_EQ(data["authorized"], false);
    EXPECT_EQ(data["admin"], false);
    EXPECT_EQ(data["ip"], "192.0.2.1");
    EXPECT_EQ(data["params"].getMemberNames(), std::vector<std::string>{"x"});
}

TEST(Serve, ALiveSessionMakesItsAccountTheCaller) {
    const korv::NewSession session = korv::OpenSession("somebody", "192.0.2.1");
    korv::HttpRequest request = Post(Call("Caller"));
    request.cookies = "a=b; korv_session=" + session.id;
    request.csrf = session.csrf;
    const Json::Value data = Parsed(korv::Serve(korv::Pool::kPublic, request))["data"];
    EXPECT_EQ(data["user"], "somebody");
    EXPECT_EQ(data["authorized"], true);
    EXPECT_EQ(data["hasSession"], true);
    EXPECT_EQ(data["admin"], false);
}

TEST(Serve, ASessionThatDoesNotHoldIsRefused) {
    const korv::NewSession session = korv::OpenSession("somebody", "192.0.2.1");
    korv::HttpRequest request = Post(Call("Caller"));
    request.cookies = "korv_session=" + session.id;
    EXPECT_EQ(Outcome(request), (CodeAndStatus{107, 401})) << "no token";
    request.csrf = session.id;
    EXPECT_EQ(Outcome(request), (CodeAndStatus{107, 401})) << "wrong token";
    request.csrf = session.csrf;
    EXPECT_EQ(Outcome(request), (CodeAndStatus{0, 200}));
    request.cookies = "korv_session=";
    EXPECT_EQ(Outcome(request), (CodeAndStatus{107, 401})) << "empty cookie";
    request.cookies = "korv_session=" + session.id;
    korv::CloseSession(session.id);
    EXPECT_EQ(Outcome(request), (CodeAndStatus{107, 401})) << "closed";
}

TEST(Serve, AnIdleSessionEndsAndItsRowGoes) {
    const korv::NewSession session = korv::OpenSession("idler", "192.0.2.1");
    korv::Database() << "update session set last_seen_s = last_seen_s - 1001 where account = 'idler'";
    EXPECT_FALSE(korv::SessionAccount(session.id, &session.csrf));
    int rows = -1;
    korv::Database() << "select count(*) from session where account = 'idler'", soci::into(rows);
    EXPECT_EQ(rows, 0);
}

TEST(Serve, UseKeepsASessionAlive) {
    const korv::NewSession session = korv::OpenSession("worker", "192.0.2.1");
    korv::Database() << "update session set last_seen_s = last_seen_s - 900 where account = 'worker'";
    EXPECT_TRUE(korv::SessionAccount(session.id, nullptr));
    korv::Database() << "update session set last_seen_s = last_seen_s - 900 where account = 'worker'";
    EXPECT_TRUE(korv::SessionAccount(session.id, nullptr));
}

TEST(Serve, ExpiredSessionsGoWhenANewOneOpens) {
    korv::OpenSession("forgotten", "192.0.2.1");
    korv::Database() << "update session set last_seen_s = 1 where account = 'forgotten'";
    korv::OpenSession("new", "192.0.2.1");
    int rows = -1;
    korv::Database() << "select count(*) from session where account = 'forgotten'", soci::into(rows);
    EXPECT_EQ(rows, 0);
}

TEST(Serve, TheDatabaseHoldsNoSecretOfASession) {
    const korv::NewSession session = korv::OpenSession("secretive", "192.0.2.1");
    EXPECT_EQ(session.id.size(), 64U);
    EXPECT_NE(session.id, session.csrf);
    std::string idHash;
    std::string csrfHash;
    korv::Database() << "select id_hash, csrf_hash from session where account = 'secretive'",
        soci::into(idHash), soci::into(csrfHash);
    EXPECT_NE(idHash, session.id);
    EXPECT_NE(csrfHash, session.csrf);
}

TEST(Serve, FailedLoginsLockTheirAddressOnly) {
    EXPECT_FALSE(korv::IsLockedOut("192.0.2.9"));
    korv::NoteLoginFailure("192.0.2.9");
    EXPECT_FALSE(korv::IsLockedOut("192.0.2.9"));
    korv::NoteLoginFailure("192.0.2.9");
    EXPECT_TRUE(korv::IsLockedOut("192.0.2.9"));
    EXPECT_FALSE(korv::IsLockedOut("192.0.2.8"));
    korv::Database() << "update login_failure set at_s = at_s - 1000";
    EXPECT_FALSE(korv::IsLockedOut("192.0.2.9"));
}

TEST(Serve, EachMisuseHasItsCodeAndStatus) {
    EXPECT_EQ(Outcome(Post("{")), (CodeAndStatus{101, 400}));
    EXPECT_EQ(Outcome(Post(R"({"api":"None","version":1,"method":"m"})")), (CodeAndStatus{102, 404}));
    EXPECT_EQ(Outcome(Post(R"({"api":"Test","version":2,"method":"Caller"})")), (CodeAndStatus{102, 404}));
    EXPECT_EQ(Outcome(Post(Call("None"))), (CodeAndStatus{401, 404}));
    korv::HttpRequest request = Post(Call("Caller"));
    request.method = "GET";
    EXPECT_EQ(Outcome(request), (CodeAndStatus{101, 405}));
    request = Post("");
    request.isTooLarge = true;
    EXPECT_EQ(Outcome(request), (CodeAndStatus{101, 413}));
}

TEST(Serve, ExceptionsBecomeCodesThatTellNothing) {
    EXPECT_EQ(Outcome(Post(Call("ReadNumber", R"(,"shareId":"x")"))), (CodeAndStatus{101, 400}));
    EXPECT_EQ(Outcome(Post(Call("ThrowNumber"))), (CodeAndStatus{110, 500}));
    EXPECT_EQ(Outcome(Post(Call("Silent"))), (CodeAndStatus{110, 500}));
    const korv::HttpAnswer answer = korv::Serve(korv::Pool::kPublic, Post(Call("Throw")));
    EXPECT_EQ(answer.status, 500);
    EXPECT_EQ(answer.body, R"({"success":false,"error":{"code":110}})");
}

TEST(Serve, InProcessCallsAnswerInTheSameShape) {
    const Json::Value data = Parsed(korv::Serve(korv::Pool::kPublic, Post(Call("Nested"))))["data"];
    EXPECT_EQ(data["caller"]["success"], true);
    EXPECT_EQ(data["caller"]["data"]["user"], "admin");
    EXPECT_EQ(data["caller"]["data"]["authorized"], true);
    EXPECT_EQ(data["caller"]["data"]["admin"], true);
    EXPECT_EQ(data["caller"]["data"]["ip"], "");
    EXPECT_EQ(data["throws"]["success"], false);
    EXPECT_EQ(data["throws"]["error"]["code"], 110);
    EXPECT_EQ(data["wrongType"]["error"]["code"], 101);
    EXPECT_EQ(data["noApi"]["error"]["code"], 102);
    EXPECT_EQ(data["noMethod"]["error"]["code"], 401);
}

korv::HttpRequest UploadRequest(const std::string& name) {
    korv::HttpRequest request =
        Post("--B\r\nContent-Disposition: form-data; name=\"" + name +
             "\"; filename=\"k\"\r\n\r\nthe key\r\n--B\r\nContent-Disposition: form-data; "
             "name=\"request\"\r\n\r\n" +
             Call("Upload", R"(,"taken":1)") + "\r\n--B--\r\n");
    request.contentType = "multipart/form-data; boundary=B";
    return request;
}

TEST(Serve, AnUploadIsAPrivateFileForTheLengthOfItsRequest) {
    EXPECT_EQ(Outcome(UploadRequest("key_file_tmp")), (CodeAndStatus{0, 200}));
    EXPECT_EQ(g_uploadContent, "the key");
    EXPECT_EQ(g_uploadMode, 0600U);
    EXPECT_FALSE(std::filesystem::exists(g_uploadPath));
    EXPECT_TRUE(std::filesystem::is_empty(korv::UploadFolder()));
}

TEST(Serve, AnUploadOfADeadProcessIsRemoved) {
    const pid_t dead = fork();
    if (dead == 0) {
        auto* const files = new korv::UploadFiles;
        files->Store("the key");
        _exit(0);  // with nothing run that a kill wouldn't
    }
    waitpid(dead, nullptr, 0);
    EXPECT_FALSE(std::filesystem::is_empty(korv::UploadFolder()));
    korv::UploadFiles own;
    const std::string path = own.Store("another key");
    korv::RemoveLeftUploads();
    const std::filesystem::directory_iterator entries(korv::UploadFolder());
    EXPECT_EQ(std::distance(begin(entries), end(entries)), 1);
    EXPECT_TRUE(std::filesystem::exists(path)) << "this process lives";
}

TEST(Serve, AnUploadCannotReplaceAParameter) {
    for (const char* name : {"taken", "api", "version", "method", "bad\xFFname"}) {
        EXPECT_EQ(Outcome(UploadRequest(name)), (CodeAndStatus{101, 400})) << name;
        EXPECT_TRUE(std::filesystem::is_empty(korv::UploadFolder())) << name;
    }
}

TEST(Serve, LimitsDependOnWhatIsSent) {
    EXPECT_EQ(korv::BodyLimit("application/json"), 1L << 20);
    EXPECT_EQ(korv::BodyLimit("multipart/form-data; boundary=x"), 10L << 20);
}

TEST(Serve, EventsNeedASessionButNoToken) {
    korv::HttpRequest request;
    request.target = "/events";
    request.method = "GET";
    EXPECT_EQ(Outcome(request), (CodeAndStatus{107, 401}));
    request.cookies = "korv_session=" + korv::OpenSession("listener", "192.0.2.1").id;
    const korv::HttpAnswer answer = korv::Serve(korv::Pool::kPublic, request);
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.headers.at(0).first, "X-Accel-Redirect");
}

TEST(Serve, HealthNeedsEveryCheck) {
    korv::HttpRequest request;
    request.target = "/healthz";
    EXPECT_EQ(korv::Serve(korv::Pool::kPublic, request).status, 200);
    KORV::RegisterHealthCheck("test", [] { return std::string("broken"); });
    EXPECT_EQ(Outcome(request), (CodeAndStatus{111, 503}));
    KORV::RegisterHealthCheck("test", []() -> std::string { throw std::runtime_error("worse"); });
    EXPECT_EQ(Outcome(request), (CodeAndStatus{111, 503}));
    KORV::RegisterHealthCheck("test", [] { return std::string(); });
    EXPECT_EQ(korv::Serve(korv::Pool::kPublic, request).status, 200);
}

TEST(Serve, ThePeerPoolServesPairedServersOnly) {
    korv::HttpRequest request = Post(Call("Caller", R"(,"cookie":"key")"));
    request.target = "/peer";
    request.cookies = "timestamp=stamp";
    EXPECT_EQ(Outcome(request, korv::Pool::kPeer), (CodeAndStatus{105, 403})) << "no check is registered";
    KORV::RegisterPairCheck([](const std::string& key, const std::string& stamp, const std::string& api,
                               const Json::Value& params) {
        return key + stamp + api == "keystampTest" && params["cookie"] == "key";
    });
    const Json::Value data = Parsed(korv::Serve(korv::Pool::kPeer, request))["data"];
    EXPECT_EQ(data["user"], "admin");
    EXPECT_EQ(data["authorized"], false);
    EXPECT_EQ(data["admin"], false);
    request.cookies = "timestamp=other";
    EXPECT_EQ(Outcome(request, korv::Pool::kPeer), (CodeAndStatus{105, 403}));
    request.cookies = "";
    EXPECT_EQ(Outcome(request, korv::Pool::kPeer), (CodeAndStatus{105, 403}));
    const korv::NewSession session = korv::OpenSession("somebody", "192.0.2.1");
    request.cookies = "korv_session=" + session.id;
    request.csrf = session.csrf;
    EXPECT_EQ(Outcome(request, korv::Pool::kPeer), (CodeAndStatus{105, 403})) << "a session is no pairing";
    request.target = "/webapi";
    EXPECT_EQ(korv::Serve(korv::Pool::kPeer, request).status, 404);
}

TEST(Serve, APeerThatCannotBeJudgedIsNotRefused) {
    korv::HttpRequest request = Post(Call("Caller", R"(,"cookie":"key")"));
    request.target = "/peer";
    request.cookies = "timestamp=stamp";
    KORV::RegisterPairCheck([](const std::string&, const std::string&, const std::string&,
                               const Json::Value&) -> bool { throw std::runtime_error("no database"); });
    EXPECT_EQ(Outcome(request, korv::Pool::kPeer), (CodeAndStatus{110, 500}));
    KORV::RegisterPairCheck(
        [](const std::string&, const std::string&, const std::string&, const Json::Value&) { return false; });
    EXPECT_EQ(Outcome(request, korv::Pool::kPeer), (CodeAndStatus{105, 403}));
}

}  // namespace
