#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Who is paired with whom, as this server's database knows it. All functions throw
// (pavane/store/database.h).
namespace pavane {

enum class CmsRole { kNone, kHost, kRecServer };

CmsRole GetCmsRole();
// Also switches central management on, or off for kNone. A server that is no host knows no states of others:
// all its recording servers count as offline from then on.
void SetCmsRole(CmsRole role);

// This server's own serial: random, made at first use, the same from then on.
std::string OwnSerial();

// The name by which people know this machine.
std::string OwnName();

// A recording server of this host.
struct RecServerRecord {
    int id = 0;
    std::string serial;
    std::string name;
    std::string address;
    bool enabled = true;
    int status = 1;  // RV_STATUS
    std::string version;
    bool standby = false;
    bool takenOver = false;
    std::string problem;  // pavane/cms/server_state.h; empty = none
    std::int64_t checked_s = 0;
    std::int64_t seen_s = 0;
};

// What two servers share once they are paired. The secret stays in the database.
struct PairingProof {
    std::string secret;
    std::string pinnedKey;
};

// By ascending id.
std::vector<RecServerRecord> ListRecServers();
std::optional<RecServerRecord> FindRecServer(int id);

// Adds the server, or gives the one of the same serial its new name, address, version and proof. Returns its
// id.
int StoreRecServer(const RecServerRecord& server, const PairingProof& proof);

// Forgets the server, the records of its recording shares and its cameras. False when there is none.
bool RemoveRecServer(int id);

// False when there is none of that id.
bool SetRecServerEnabled(int id, bool enabled);
bool SetRecServerFailover(int id, bool standby, bool takenOver);

// Keeps what was found out about a server just now, unless this server is no host any more; `version` is left
// alone when empty.
void NoteRecServerState(int id, int status, const std::string& problem, const std::string& version,
                        bool answered);

// The host of this recording server.
struct HostRecord {
    std::string serial;
    std::string name;
    std::string address;
    std::string problem;
    std::int64_t checked_s = 0;
    std::int64_t seen_s = 0;
};

std::optional<HostRecord> PairedHost();
// Replaces whatever host there was, and makes this server a recording server.
void StoreHost(const HostRecord& host, const PairingProof& proof);
// Ends the pairing from this side; this server stands alone then.
void ForgetHost();
void NoteHostState(const std::string& problem, bool answered);

}  // namespace pavane
