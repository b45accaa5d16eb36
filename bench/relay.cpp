// Relays to recording servers that only answer, and in turn the same sends by a plain libcurl loop over kept
// connections. No TLS, so that what is measured is not hidden behind it. "base" is what the same request
// costs without a server: a deletion of nothing, and for a creation the one write of its record.
//   usage: KORV_CONFIG=FILE bench_relay measure SHARE_MODULE
//          bench_relay serve COUNT VERSION     prints the ports of so many servers, runs until its input ends

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>

#include <json/json.h>
#include <soci/soci.h>

#include "platform/korv/api_runner.h"
#include "platform/pavane/cms.h"

#include "bench/fake_peers.h"
#include "bench/plain_loop.h"
#include "korv/framework/api_registry.h"
#include "korv/framework/module_loader.h"
#include "korv/system/app_privilege.h"
#include "pavane/store/database.h"
#include "pavane/store/settings_table.h"

namespace {

constexpr int kSizes[] = {1, 10, 100};

// How long servers take to answer, and how many sends of each kind and size are measured.
struct Pace {
    unsigned work_us;
    int sends;
};
constexpr unsigned kMicrosecondsPerMillisecond = 1000;
constexpr Pace kPaces[] = {{0, 3000}, {5000, 300}};

// An account of every machine, with the privilege to use the application, as most of its users have.
constexpr const char* kUser = "root";
constexpr const char* kApi = "KORV.Pavane.Share";
constexpr const char* kSecret = "0f1e2d3c4b5a69788796a5b4c3d2e1f00f1e2d3c4b5a69788796a5b4c3d2e1f0";

using Clock = std::chrono::steady_clock;

double Time_ms(const std::function<void()>& work) {
    const Clock::time_point start = Clock::now();
    work();
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void AddServers(const FakePeers& peers) {
    soci::session& session = pavane::AppDatabase().Session();
    session << "delete from rec_server";
    for (int i = 0; i < static_cast<int>(peers.Ports().size()); ++i) {
        const int id = i + 1;
        const std::string serial = "serial" + std::to_string(id);
        const std::string address = peers.Address(i);
        session << "insert into rec_server (id, serial, address, status, pair_secret) values (" << id << ", '"
                << serial << "', '" << address << "', 0, '" << kSecret << "')";
    }
}

Json::Value Relayed(const char* method) {
    Json::Value request(Json::objectValue);
    request["api"] = kApi;
    request["version"] = 1;
    request["method"] = method;
    return request;
}

Json::Value Element(int share, int owner) {
    Json::Value element(Json::objectValue);
    element["shareId"] = share;
    element["shareRvId"] = owner;
    element["sharePath"] = "/volume1/bench";
    return element;
}

Json::Value Creation(int owner) {
    Json::Value request(Json::objectValue);
    request["shareName"] = "bench";
    request["volume"] = "/volume1";
    request["rvId"] = owner;
    return request;
}

// As a peer gets it.
std::string Signed(Json::Value request) {
    request["relayedCmd"] = true;
    request["client"] = "REC_SERVER";
    request["recSerialNum"] = "serial1";
    request["cookie"] = kSecret;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, request);
}

void Call(const char* method, const Json::Value& request) {
    Json::Value answer;
    KORV::APIRunner::Exec(answer, kApi, 1, method, request, kUser);
    if (answer.isMember("error")) {
        throw std::runtime_error(std::string(method) + " was answered with " +
                                 answer["error"]["code"].asString());
    }
}

// Returns once the disk has it.
void WriteOnce() {
    static int written = 0;
    pavane::SetSetting("bench_relay", std::to_string(++written));
}

struct Work {
    std::function<void()> setUp;  // not timed
    std::function<void()> act;
    std::function<void()> base;
    int basesPerRound;
};

void PrintHeader() {
    std::printf("%-8s %8s %11s %9s %12s %7s %9s %14s\n", "", "servers", "libcurl ms", "ours ms",
                "overhead ms", "ratio", "base ms", "ratio without");
}

// All parts of each round see the same machine; the figures are per server.
void Measure(const char* what, int sends, const FakePeers& peers, const Json::Value& sent, const Work& work) {
    const int servers = static_cast<int>(peers.Ports().size());
    PlainLoop plain(peers, Signed(sent));
    plain.Send();  // connects
    work.setUp();
    work.act();
    double plain_ms = 0;
    double own_ms = 0;
    double base_ms = 0;
    const int rounds = sends / servers;
    for (int round = 0; round < rounds; ++round) {
        work.setUp();
        plain_ms += Time_ms([&] { plain.Send(); });
        own_ms += Time_ms(work.act);
        base_ms += Time_ms(work.base) * work.basesPerRound;
    }
    const double done = static_cast<double>(rounds) * servers;
    std::printf("%-8s %8d %11.3f %9.3f %12.3f %7.2f %9.3f %14.2f\n", what, servers, plain_ms / done,
                own_ms / done, (own_ms - plain_ms) / done, own_ms / plain_ms, base_ms / done,
                (own_ms - base_ms) / plain_ms);
    std::fflush(stdout);
}

void MeasureSends(int sends, const FakePeers& peers) {
    Json::Value request = Relayed("CreateRecShare");
    for (const char* key : {"shareName", "volume", "description", "encPasswd"}) {
        request[key] = "";
    }
    request["relayedCmd"] = true;
    const auto send = [&] {
        for (int id = 1; id <= static_cast<int>(peers.Ports().size()); ++id) {
            Json::Value reply;
            if (SendWebAPIToRecServerByJson(id, request, false, reply) != 0) {
                throw std::runtime_error("a send failed");
            }
        }
    };
    Measure("send", sends, peers, request, {[] {}, send, [] {}, 0});
}

void MeasureDelete(int sends, const FakePeers& peers) {
    const int servers = static_cast<int>(peers.Ports().size());
    soci::session& session = pavane::AppDatabase().Session();
    Json::Value sent = Relayed("DelRecShare");
    sent["delShareList"].append(Element(7, 0));
    sent["blKeepOskShare"] = false;
    Json::Value request(Json::objectValue);
    for (int id = 1; id <= servers; ++id) {
        request["delShareList"].append(Element(id, id));
    }
    const auto fill = [&] {
        session << "delete from recording_share";
        session << "insert into recording_share (id, id_on_rec, owner_rv_id, name, path, volume, "
                   "description, hidden,"
                   " enc_type, fs_type, mount_type, mount_source, mount_status, auto_mount, migrating, "
                   "rec_limit_gb,"
                   " enable_rec_limit, total_size_mb)"
                   " with recursive n(i) as (select 1 union all select i + 1 from n where i < "
                << servers
                << ") select i, 7, i, 'bench', '/volume1/bench', 'volume1', '', 0, 0, 1, 0, '', 0, 0, 0, "
                   "100, 0,"
                   " 4000000 from n";
    };
    Json::Value nothing(Json::objectValue);
    nothing["delShareList"] = Json::Value(Json::arrayValue);
    const auto deleteNothing = [&] {
        Call("DelRecShare", nothing);
        WriteOnce();
    };
    Measure("delete", sends, peers, sent, {fill, [&] { Call("DelRecShare", request); }, deleteNothing, 1});
}

void MeasureCreate(int sends, const FakePeers& peers) {
    Json::Value sent = Relayed("CreateRecShare");
    for (const char* key : {"blAddExistShare", "blHideShare", "blEncryption", "blRecLimit"}) {
        sent[key] = false;
    }
    for (const char* key : {"shareName", "volume", "description", "encPasswd"}) {
        sent[key] = "";
    }
    const int servers = static_cast<int>(peers.Ports().size());
    const auto create = [&] {
        for (int id = 1; id <= servers; ++id) {
            Call("CreateRecShare", Creation(id));
        }
    };
    Measure("create", sends, peers, sent,
            {[] { pavane::AppDatabase().Session() << "delete from recording_share"; }, create, WriteOnce,
             servers});
}

void Run(const std::string& module) {
    korv::LoadModules({module}, korv::Registry());
    korv::GrantAppPrivilege({kUser, "KORV.KRX.Pavane", ""});
    pavane::SetSetting("cms_enabled", "1");
    pavane::SetSetting("cms_role", "host");
    for (const Pace& pace : kPaces) {
        std::printf("per server; servers take %u ms to answer\n", pace.work_us / kMicrosecondsPerMillisecond);
        PrintHeader();
        for (const int servers : kSizes) {
            const FakePeers peers(servers, "", pace.work_us);
            AddServers(peers);
            MeasureSends(pace.sends, peers);
            MeasureDelete(pace.sends, peers);
            MeasureCreate(pace.sends, peers);
        }
    }
}

void Serve(int count, const std::string& version) {
    const FakePeers peers(count, version, 0);
    for (const int port : peers.Ports()) {
        std::cout << port << ' ';
    }
    std::cout << std::endl;
    char ignored = 0;
    while (read(STDIN_FILENO, &ignored, 1) > 0) {
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::string mode = argc > 1 ? argv[1] : "";
        if (mode == "measure" && argc == 3) {
            Run(argv[2]);
        } else if (mode == "serve" && argc == 4) {
            Serve(static_cast<int>(std::strtol(argv[2], nullptr, 10)), argv[3]);
        } else {
            throw std::invalid_argument("usage: bench_relay measure SHARE_MODULE | serve COUNT VERSION");
        }
        return 0;
    } catch (const std::exception& failure) {
        std::cerr << "bench_relay: " << failure.what() << "\n";
        return 1;
    }
}
