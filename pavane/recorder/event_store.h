#pragma once

#include <cstdint>
#include <list>
#include <string>

// The events, as their readers see them. Failures are thrown (pavane/store/database.h).
namespace pavane {

// How many events are kept; the oldest go first.
inline constexpr int kEventLimit = 100000;

struct EventRecord {
    int id = 0;
    std::int64_t time_ms = 0;  // since 1970, UTC
    std::uint32_t type = 0;    // PV_LOG_TYPE
    std::string user;
    std::int64_t item = 0;
    std::list<std::string> arguments;
    int rvId = 0;
};

struct EventPage {
    std::list<EventRecord> events;
    int total = 0;
};

// The events, newest first: at most `limit`, after skipping `offset`; `total` counts all.
EventPage ListEvents(int offset, int limit);

// What happened as a sentence for people, e.g. "Recording share rec was created."
std::string EventSentence(const EventRecord& event);

}  // namespace pavane
