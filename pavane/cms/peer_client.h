#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <json/json.h>

#include "pavane/http_post.h"

// Sends to paired servers, with the reason when one fails; the contract's functions
// (platform/pavane/cms.h) tell only whether.
namespace pavane {

enum class SendFailure {
    kNone,         // an answer arrived that is a JSON object
    kNotPaired,    // the server is not known, or there is no secret with it
    kBadAddress,   // nothing is sent to an address like this
    kUnreachable,  // no connection
    kNoAnswer,     // connected, but no complete answer within the deadline or the limit
    kKeyChanged,   // the server shows another key than the one pinned at pairing
    kBadAnswer,    // the answer is no JSON object
    kBroken,       // this server could not even try: its database, its memory
};

struct SendOutcome {
    SendFailure failure = SendFailure::kBroken;
    std::int64_t clockAhead_s = 0;  // how far the other clock is ahead of this one's, as its answer says
};

// Sends to the host, or to the recording server `rvId` for rvId > 0. `reply` is the answer, or null after a
// failure, which the caller logs. Blocks for at most wait_s. Never throws.
SendOutcome SendToPaired(int rvId, const Json::Value& request, int wait_s, Json::Value& reply);

// Sends the same to several recording servers at the same time. `take` gets each one's id, outcome and answer
// (null after a failure) as soon as they are known, in no particular order. Nothing is logged. Blocks until
// all are done, for at most wait_s after the last of them was sent to. Throws what the database or `take`
// throws.
void AskRecServers(const std::vector<int>& rvIds, const Json::Value& request, int wait_s,
                   const std::function<void(int, const SendOutcome&, const Json::Value&)>& take);

// What an exchange that went wrong failed at.
SendFailure FailureOf(const HttpReply& answer);

// One line without blanks.
std::string CompactJson(const Json::Value& value);

// True when a server whose clock is so far ahead (or behind, negative) can't accept this server's pairing
// keys.
bool IsClockTooFarOff(std::int64_t clockAhead_s);

}  // namespace pavane
