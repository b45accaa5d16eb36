// Relays to recording servers that only answer, and in turn the same sends by a plain libcurl loop over kept
// connections. No TLS, so that what is measured is not hidden behind it.
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

#include <curl/curl.h>
#include <json/json.h>
#include <soci/soci.h>

#include "platform/korv/api_runner.h"
#include "platform/pavane/cms.h"

#include "bench/fake_peers.h"
#include "korv/framework/api_registry.h"
#include "korv/framework/module_loader.h"
#include "pavane/store/database.h"
#include "pavane/store/settings_table.h"

namespace {

constexpr int kSizes[] = {1, 10, 100};

// How long servers take to answer, and how many sends of each kind and size are measured.
struct Pace {
    unsigned work_us;
    int sends;
};
constexpr Pace kPaces[] = {{0, 3000}, {5000, 300}};

constexpr const char* kApi = "KORV.Pavane.Share";
constexpr const char* kSecret = "0f1e2d3c4b5a69788796a5b4c3d2e1f00f1e2d3c4b5a69788796a5b4c3d2e1f0";

using Clock = std::chrono::steady_clock;

double Time_us(const std::function<void()>& work) {
    const Clock::time_point start = Clock::now();
    work();
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

std::size_t Ignore(char* /*data*/, std::size_t size, std::size_t count, void* /*context*/) {
    return size * count;
}

// Sends ready bodies to all servers in turn, over connections that it keeps.
class PlainLoop {
public:
    explicit PlainLoop(const FakePeers& peers, const std::string& body) : m_peers(peers), m_body(body) {
        for (const char* header :
             {"Content-Type: application/json", "Expect:", "Cookie: timestamp=1790000000.0123456789abcdef"}) {
            m_headers = curl_slist_append(m_headers, header);
        }
        curl_easy_setopt(m_handle, CURLOPT_HTTPHEADER, m_headers);
        curl_easy_setopt(m_handle, CURLOPT_WRITEFUNCTION, &Ignore);
        curl_easy_setopt(m_handle, CURLOPT_POSTFIELDS, m_body.c_str());
        curl_easy_setopt(m_handle, CURLOPT_MAXCONNECTS, 128L);
        curl_easy_setopt(m_handle, CURLOPT_NOSIGNAL, 1L);
    }
    ~PlainLoop() {
        curl_easy_cleanup(m_handle);
        curl_slist_free_all(m_headers);
    }
    PlainLoop(const PlainLoop&) = delete;
    PlainLoop& operator=(const PlainLoop&) = delete;

    void Send() {
        for (std::size_t i = 0; i < m_peers.Ports().size(); ++i) {
            const std::string url = m_peers.Address(static_cast<int>(i)) + "/peer";
            curl_easy_setopt(m_handle, CURLOPT_URL, url.c_str());
            if (curl_easy_perform(m_handle) != CURLE_OK) {
                throw std::runtime_error("the plain loop could not send");
            }
        }
    }

private:
    const FakePeers& m_peers;
    std::string m_body;
    CURL* m_handle = curl_easy_init();
    curl_slist* m_headers = nullptr;
};

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
    KORV::APIRunner::Exec(answer, kApi, 1, method, request, "admin");
    if (answer.isMember("error")) {
        throw std::runtime_error(std::string(method) + " was answered with " +
                                 answer["error"]["code"].asString());
    }
}

// `setUp` is not timed. Both halves of each round see the same machine.
void Measure(const char* what, int sends, const FakePeers& peers, const Json::Value& sent,
             const std::function<void()>& setUp, const std::function<void()>& act) {
    const int servers = static_cast<int>(peers.Ports().size());
    PlainLoop plain(peers, Signed(sent));
    plain.Send();  // connects
    setUp();
    act();
    double plain_us = 0;
    double own_us = 0;
    const int rounds = sends / servers;
    for (int round = 0; round < rounds; ++round) {
        setUp();
        plain_us += Time_us([&] { plain.Send(); });
        own_us += Time_us(act);
    }
    const double done = static_cast<double>(rounds) * servers;
    std::printf("%-8s %8d %12.1f %12.1f %12.1f %8.2f\n", what, servers, plain_us / done, own_us / done,
                (own_us - plain_us) / done, own_us / plain_us);
    std::fflush(stdout);
}

void MeasureSends(int sends, const FakePeers& peers) {
    Json::Value request = Relayed("CreateRecShare");
    for (const char* key : {"shareName", "volume", "description", "encPasswd"}) {
        request[key] = "";
    }
    request["relayedCmd"] = true;
    Measure(
        "send", sends, peers, request, [] {},
        [&] {
            for (int id = 1; id <= static_cast<int>(peers.Ports().size()); ++id) {
                Json::Value reply;
                if (SendWebAPIToRecServerByJson(id, request, false, reply) != 0) {
                    throw std::runtime_error("a send failed");
                }
            }
        });
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
    Measure(
        "delete", sends, peers, sent,
        [&] {
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
        },
        [&] { Call("DelRecShare", request); });
}

void MeasureCreate(int sends, const FakePeers& peers) {
    Json::Value sent = Relayed("CreateRecShare");
    for (const char* key : {"blAddExistShare", "blHideShare", "blEncryption", "blRecLimit"}) {
        sent[key] = false;
    }
    for (const char* key : {"shareName", "volume", "description", "encPasswd"}) {
        sent[key] = "";
    }
    Measure(
        "create", sends, peers, sent,
        [] { pavane::AppDatabase().Session() << "delete from recording_share"; },
        [&] {
            for (int id = 1; id <= static_cast<int>(peers.Ports().size()); ++id) {
                Call("CreateRecShare", Creation(id));
            }
        });
}

void Run(const std::string& module) {
    korv::LoadModules({module}, korv::Registry());
    pavane::SetSetting("cms_enabled", "1");
    pavane::SetSetting("cms_role", "host");
    for (const Pace& pace : kPaces) {
        std::printf("servers take %u us to answer\n", pace.work_us);
        std::printf("%-8s %8s %12s %12s %12s %8s\n", "", "servers", "libcurl us", "ours us", "overhead us",
                    "ratio");
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
