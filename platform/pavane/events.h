#pragma once

#include <cstdint>
#include <list>
#include <string>

// The application's event log, kept for its users to read. Implemented in pavane/recorder/event_log.cpp.
enum PV_LOG_TYPE : std::uint32_t {
    PV_LOG_REC_SHARE_CREATED = 0x133000C8,
    PV_LOG_REC_SHARE_DELETED = 0x133000C9,
    PV_LOG_REC_SHARE_ROTATED = 0x133000CA,       // arguments: name, files, MB, times of the oldest and newest
    PV_LOG_REC_SHARE_ROTATION_CUT = 0x133000CB,  // arguments: name, time at which it began to remove
};

// Writes one event; one that can't be written is lost and logged.
//   user    the account that caused it
//   item    id of the thing it is about; 0 = none
//   args    texts that the event's sentence names, in its order
//   rvId    the recording server it happened on; 0 = this server
void PVLog(PV_LOG_TYPE type, const std::string& user, std::int64_t item, const std::list<std::string>& args,
           int rvId);

// What connected clients are told to reload. Implemented in pavane/recorder/client_notify.cpp.
enum CLIENT_NOTIFY_TYPE : int {
    CLIENT_NOTIFY_REC_SHARE = 41,
};

class PVClientNotify {
public:
    // Tells every connected client; each gets {"type": N}. Doesn't wait for them; a failure is logged.
    static void Notify(CLIENT_NOTIFY_TYPE type);
};
