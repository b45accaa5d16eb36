// Planning the deletion of recording shares: what is read before anything is changed. The last share of each
// request is in use, so that the request is planned to its end and refused.
//   usage: KORV_CONFIG=FILE bench_delete_check SHARE_MODULE

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>

#include <json/json.h>
#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>

#include "platform/korv/api_runner.h"

#include "korv/framework/api_registry.h"
#include "korv/framework/module_loader.h"
#include "pavane/store/database.h"

namespace {

constexpr int kCameras = 100'000;
constexpr int kSizes[] = {1, 100, 10'000};
constexpr int kRuns = 3;
constexpr int kInUse = 445;

constexpr std::string_view kCountsCameras = "SELECT * from camera ";

int g_statements = 0;
std::string g_cameraStatement;  // the last one that counted the cameras of a share

int CountStatement(unsigned /*event*/, void* /*context*/, void* /*statement*/, void* text) {
    const std::string_view statement = static_cast<const char*>(text);
    // What triggers do is reported as comments.
    g_statements += statement[0] == '-' ? 0 : 1;
    if (statement.substr(0, kCountsCameras.size()) == kCountsCameras) {
        g_cameraStatement = statement;
    }
    return 0;
}

// Shares 1 to 10000 without cameras, 10001 to 20000 with ten cameras each.
void Fill(soci::session& session) {
    session
        << "insert into recording_share (id, id_on_rec, owner_rv_id, name, path, volume, description, hidden,"
           " enc_type, fs_type, mount_type, mount_source, mount_status, auto_mount, migrating, rec_limit_gb,"
           " enable_rec_limit, total_size_mb)"
           " with recursive n(i) as (select 1 union all select i + 1 from n where i < 20000)"
           " select i, 0, 0, 'share' || i, '/volume1/share' || i, 'volume1', '', 0, 0, 1, 0, '', 0, 0, 0, "
           "100,"
           " 0, 4000000 from n";
    session
        << "insert into camera (owner_rv_id, name, recording_path, rec_storage_status)"
           " with recursive n(i) as (select 1 union all select i + 1 from n where i < "
        << kCameras
        << ") select 0, 'camera ' || i, '/volume1/share' || (10001 + i % 10000) || '/camera' || i, 0 from n";
}

Json::Value Request(int shares) {
    Json::Value request(Json::objectValue);
    Json::Value& list = request["delShareList"] = Json::Value(Json::arrayValue);
    for (int i = 1; i <= shares; ++i) {
        const int id = i == shares ? 20000 : i;
        Json::Value element(Json::objectValue);
        element["shareId"] = id;
        element["shareRvId"] = 0;
        element["sharePath"] = "/volume1/share" + std::to_string(id);
        list.append(element);
    }
    return request;
}

void Plan(const Json::Value& request) {
    Json::Value answer;
    KORV::APIRunner::Exec(answer, "KORV.Pavane.Share", 1, "DelRecShare", request, "admin");
    if (answer["error"]["code"] != kInUse || answer["error"]["errors"]["param1"] != "10") {
        throw std::runtime_error("the deletion was not refused for the ten cameras");
    }
}

void Measure(int shares) {
    const Json::Value request = Request(shares);
    double best_ms = 0;
    for (int run = 0; run < kRuns; ++run) {
        g_statements = 0;
        const auto start = std::chrono::steady_clock::now();
        Plan(request);
        const std::chrono::duration<double, std::milli> time_ms = std::chrono::steady_clock::now() - start;
        best_ms = run == 0 ? time_ms.count() : std::min(best_ms, time_ms.count());
    }
    std::printf("%10d %12d %12.2f %14.4f\n", shares, g_statements, best_ms, best_ms / shares);
}

// How the database finds the cameras of a share, by the statement that was run.
void PrintPlan(soci::session& session) {
    if (g_cameraStatement.empty()) {
        throw std::runtime_error("no statement has counted cameras");
    }
    std::printf("\n%s\n", g_cameraStatement.c_str());
    const soci::rowset<soci::row> rows = (session.prepare << "explain query plan " << g_cameraStatement);
    for (const soci::row& row : rows) {
        std::printf("  %s\n", row.get<std::string>("detail").c_str());
    }
}

void Run(const std::string& module) {
    korv::LoadModules({module}, korv::Registry());
    soci::session& session = pavane::AppDatabase().Session();
    Fill(session);
    session << "analyze";
    if (pavane::AppDatabase().Kind() != pavane::DatabaseKind::kSqlite) {
        throw std::runtime_error("the database is not SQLite");
    }
    auto* const backend = static_cast<soci::sqlite3_session_backend*>(session.get_backend());
    sqlite_api::sqlite3_trace_v2(backend->conn_, SQLITE_TRACE_STMT, CountStatement, nullptr);
    std::printf("%10s %12s %12s %14s\n", "shares", "statements", "ms", "ms per share");
    for (const int shares : kSizes) {
        Measure(shares);
    }
    PrintPlan(session);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        if (argc != 2) {
            throw std::invalid_argument("usage: KORV_CONFIG=FILE bench_delete_check SHARE_MODULE");
        }
        Run(argv[1]);
        return 0;
    } catch (const std::exception& failure) {
        std::cerr << "bench_delete_check: " << failure.what() << "\n";
        return 1;
    }
}
