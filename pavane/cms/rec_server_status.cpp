// Which recording servers are connected or taken over. Asked for each share of a long list, so the answers of
// one query are kept for a moment; the states themselves are older than that anyway.

#include <unistd.h>

#include <chrono>
#include <exception>
#include <map>

#include <soci/soci.h>

#include "platform/pavane/cms.h"

#include "pavane/log_line.h"
#include "pavane/store/database.h"

namespace {

constexpr const char* kSource = "pavane/cms/rec_server_status";
constexpr std::chrono::milliseconds kKept(200);

struct ServerState {
    RV_STATUS status;
    bool isTakenOver;
};

using ServerStates = std::map<int, ServerState>;

ServerStates ReadStates() {
    ServerStates states;
    int id = 0;
    int status = 0;
    int takenOver = 0;
    soci::statement statement =
        (pavane::AppDatabase().Session().prepare << "select id, status, taken_over from rec_server",
         soci::into(id), soci::into(status), soci::into(takenOver));
    for (bool more = statement.execute(true); more; more = statement.fetch()) {
        states[id] = {static_cast<RV_STATUS>(status), takenOver != 0};
    }
    return states;
}

// Null for a server that is not known, and when the table can't be read.
const ServerState* StateOf(int rvId) {
    using Clock = std::chrono::steady_clock;
    static ServerStates states;
    static Clock::time_point read;
    static pid_t reader = 0;
    const Clock::time_point now = Clock::now();
    if (reader != getpid() || now - read >= kKept) {
        states.clear();
        try {
            states = ReadStates();
        } catch (const std::exception& failure) {
            PV_LOG_LINE(kSource, "Failed to read the recording servers' states: %s\n",
                        pavane::DescribeFailure(failure).c_str());
        }
        read = now;
        reader = getpid();
    }
    const auto found = states.find(rvId);
    return found != states.end() ? &found->second : nullptr;
}

}  // namespace

// A server of another version answers, but nothing can be relayed to it.
bool IsRvOnlineSts(RV_STATUS status) { return status == RV_STATUS_ONLINE; }

bool IsRvOnline(int rvId) {
    const ServerState* const state = StateOf(rvId);
    return state != nullptr && IsRvOnlineSts(state->status);
}

bool IsRunTimeFailoverRv(int rvId) {
    const ServerState* const state = StateOf(rvId);
    return state != nullptr && state->isTakenOver;
}
