#include "pavane/cms/server_state.h"

#include <cstdint>
#include <ctime>
#include <map>
#include <vector>

#include "pavane/cms/pairing.h"
#include "pavane/cms/remote_session.h"
#include "pavane/cms/server_registry.h"
#include "pavane/log_line.h"
#include "pavane/store/settings_table.h"

namespace pavane {

namespace {

constexpr const char* kSource = "pavane/cms/server_state";
constexpr int kWait_s = 5;
constexpr int kWaitWithWayBack_s = 12;
// A question waits at the other server as long as all of its workers for peers carry out relays; the longest
// of these, a mount, takes 38 s.
constexpr int kSilenceAllowed_s = 45;
constexpr int kErrorNotAllowed = 105;
constexpr const char* kNoAnswer = "no_answer";
constexpr const char* kInOrder = "0";
constexpr const char* kUnpaired = "2";

ServerState Problem(RV_STATUS status, const char* problem, bool answered = false) {
    ServerState state;
    state.status = status;
    state.problem = problem;
    state.answered = answered;
    return state;
}

const char* ProblemOf(SendFailure failure) {
    switch (failure) {
        case SendFailure::kNotPaired:
            return "unpaired";
        case SendFailure::kBadAddress:
        case SendFailure::kUnreachable:
            return "unreachable";
        case SendFailure::kNoAnswer:
            return kNoAnswer;
        case SendFailure::kKeyChanged:
            return "key_changed";
        case SendFailure::kBadAnswer:
            return "bad_answer";
        case SendFailure::kNone:
        case SendFailure::kBroken:
            break;
    }
    return "failed";
}

ServerState JudgeRefusal(int code, const SendOutcome& outcome) {
    if (code != kErrorNotAllowed) {
        return Problem(RV_STATUS_OFFLINE, code > 0 ? "busy" : "bad_answer", code > 0);
    }
    return IsClockTooFarOff(outcome.clockAhead_s) ? Problem(RV_STATUS_OFFLINE, "clock", true)
                                                  : Problem(RV_STATUS_UNPAIRED, "unpaired", true);
}

std::string TextOf(const Json::Value& object, const char* key) {
    return object.isObject() && object[key].isString() ? object[key].asString() : "";
}

ServerState JudgeAnswer(const Json::Value& data, const std::string& expectedSerial) {
    const std::string serial = TextOf(data, "serial");
    if (serial.empty() || serial != expectedSerial) {
        return Problem(RV_STATUS_OFFLINE, serial.empty() ? "bad_answer" : "other_server", true);
    }
    ServerState state;
    state.version = TextOf(data, "version");
    state.back = TextOf(data, "back");
    state.answered = true;
    const bool isSame = state.version == PAVANE_VERSION;
    state.status = isSame ? RV_STATUS_ONLINE : RV_STATUS_VERSION_DIFFERS;
    state.problem = isSame ? "" : "version";
    return state;
}

// The serial of the server that is asked; empty for one that is not known.
std::string ExpectedSerial(int rvId) {
    if (rvId == 0) {
        const auto host = PairedHost();
        return host ? host->serial : "";
    }
    const auto server = FindRecServer(rvId);
    return server ? server->serial : "";
}

// What an operator should read in the log; the word itself where it says enough.
std::string Explain(const std::string& problem) {
    if (problem.empty()) {
        return "in order";
    }
    if (problem == "key_changed") {
        return "key_changed: it shows another key than when it was paired, so nothing is sent to it. Either "
               "its "
               "key was made anew, or someone stands between the servers; find out which before pairing it "
               "again";
    }
    if (problem == "clock") {
        return "clock: its clock is more than " + std::to_string(kStampTolerance_s) +
               " s from this server's, so it accepts no pairing keys; set both clocks";
    }
    return problem;
}

void LogChange(const std::string& name, const std::string& before, const std::string& after) {
    if (before != after) {
        PV_LOG_LINE(kSource, "The state of %s is now: %s\n", name.c_str(), Explain(after).c_str());
    }
}

Json::Value Ping(bool wayBack) {
    Json::Value request(Json::objectValue);
    request["api"] = kCmsApi;
    request["version"] = 1;
    request["method"] = "ping";
    request["wayBack"] = wayBack;
    return request;
}

ServerState Judge(const SendOutcome& outcome, const Json::Value& reply, const std::string& expectedSerial) {
    if (outcome.failure != SendFailure::kNone) {
        const bool isUnpaired = outcome.failure == SendFailure::kNotPaired;
        return Problem(isUnpaired ? RV_STATUS_UNPAIRED : RV_STATUS_OFFLINE, ProblemOf(outcome.failure));
    }
    const int code = CodeOf(reply);
    return code == 0 ? JudgeAnswer(reply["data"], expectedSerial) : JudgeRefusal(code, outcome);
}

// True for a server whose connection stands and that only answers late. By a clock that was set back nothing
// is known.
bool MayBeBusyOnly(const RecServerRecord& before, const ServerState& state) {
    const std::int64_t silent_s = static_cast<std::int64_t>(std::time(nullptr)) - before.seen_s;
    return state.problem == kNoAnswer && before.status == RV_STATUS_ONLINE && silent_s >= 0 &&
           silent_s < kSilenceAllowed_s;
}

void Note(const RecServerRecord& before, ServerState state) {
    if (MayBeBusyOnly(before, state)) {
        state.status = RV_STATUS_ONLINE;
        state.problem = before.problem;
    }
    NoteRecServerState(before.id, state.status, state.problem, state.version, state.answered);
    LogChange("recording server " + std::to_string(before.id), before.problem, state.problem);
}

// Each state is kept as soon as it is known.
void RefreshRecServers() {
    std::map<int, RecServerRecord> servers;
    std::vector<int> ids;
    for (const RecServerRecord& server : ListRecServers()) {
        servers[server.id] = server;
        ids.push_back(server.id);
    }
    AskRecServers(ids, Ping(false), kWait_s,
                  [&](int rvId, const SendOutcome& outcome, const Json::Value& reply) {
                      const RecServerRecord& server = servers.at(rvId);
                      Note(server, Judge(outcome, reply, server.serial));
                  });
}

void RefreshHost() {
    const auto host = PairedHost();
    if (!host) {
        return;
    }
    const ServerState state = AskServer(0, false);
    NoteHostState(state.problem, state.answered);
    LogChange("the host", host->problem, state.problem);
    // While the host has no pairing with this server nothing is to be forwarded to it. A host that only can't
    // be reached leaves that alone: each request finds out for itself.
    const std::string own = state.problem == "unpaired" ? kUnpaired : kInOrder;
    if (GetSetting("rec_server_status", kInOrder) != own) {
        SetSetting("rec_server_status", own);
    }
}

}  // namespace

ServerState AskServer(int rvId, bool wayBack) {
    Json::Value reply;
    const SendOutcome outcome =
        SendToPaired(rvId, Ping(wayBack), wayBack ? kWaitWithWayBack_s : kWait_s, reply);
    return Judge(outcome, reply, ExpectedSerial(rvId));
}

ServerState RefreshRecServer(int rvId, bool wayBack) {
    const auto before = FindRecServer(rvId);
    ServerState state = AskServer(rvId, wayBack);
    if (before) {
        Note(*before, state);
    }
    return state;
}

void RefreshServerStates() {
    switch (GetCmsRole()) {
        case CmsRole::kHost:
            RefreshRecServers();
            break;
        case CmsRole::kRecServer:
            RefreshHost();
            break;
        case CmsRole::kNone:
            break;
    }
}

}  // namespace pavane
