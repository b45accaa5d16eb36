#pragma once

#include <string>

#include <json/json.h>

#include "platform/pavane/cms.h"

#include "pavane/cms/peer_client.h"

// How paired servers are, found out by asking them.
namespace pavane {

// What the application's own API for paired servers is called.
inline constexpr const char* kCmsApi = "KORV.Pavane.CMS";

// The state of one server.
//   problem  empty when it is in order, else one of
//            unreachable    no connection
//            no_answer      connected, but no answer in time
//            bad_answer     an answer that is none of a recorder
//            other_server   an answer of another server than was paired
//            key_changed    it shows another key than when it was paired
//            unpaired       it does not know this server any more
//            clock          its clock is too far from this server's to accept pairing keys
//            version        it runs another version
//            busy           it answers, but with an error
//            failed         this server could not ask
//            not_asked      this server has given up its role as host, and asks nobody
struct ServerState {
    RV_STATUS status = RV_STATUS_OFFLINE;
    std::string problem;
    std::string version;
    bool answered = false;
    std::string back;  // asked for the way back: the problem that it has with this server
};

// Asks the recording server `rvId` (> 0), or the host (0). With `wayBack` a recording server asks its host in
// turn. Blocks for a few seconds at most.
ServerState AskServer(int rvId, bool wayBack);

// Asks and keeps the result where IsRvOnline and its like look; a change is logged. A server that was online
// and whose connection stands stays so until it has given no answer for three quarters of a minute: its
// workers for peers may all be busy with relays. Nothing is kept when this server is no host.
ServerState RefreshRecServer(int rvId, bool wayBack);

// The periodic job: a host refreshes its recording servers, a recording server the state of its pairing.
void RefreshServerStates();

inline constexpr int kRefreshInterval_s = 5;

}  // namespace pavane
