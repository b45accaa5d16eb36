#pragma once

#include <list>
#include <string>
#include <vector>

#include <json/json.h>

#include "platform/pavane/rec_share.h"

// Where a host's records of its recording servers' shares differ from what those servers answer: a server
// that died, or was cut off, between both sides of a change leaves such a drift behind.
namespace pavane {

// The records of this server's own shares, as its host asks for them. Throws (pavane/store/database.h): an
// empty answer would have the host forget all of them.
Json::Value OwnRecords();

enum class DriftKind {
    kMissing,  // the recording server has a share that the host does not know
    kStale,    // the host knows a share that the recording server does not have
    kDiffers,  // both know it, but not alike
};

struct Drift {
    DriftKind kind = DriftKind::kMissing;
    RecShare atHost;                  // the host's record; fresh for kMissing
    RecShare wanted;                  // what the host's record should be; fresh for kStale
    std::vector<std::string> fields;  // kDiffers: what differs
};

// Compares the host's records of the server `rvId` with `answer`, what OwnRecords gave there. Throws
// Json::Exception for an answer that can't be read, and when the records can't be (pavane/store/database.h).
std::vector<Drift> FindDrift(int rvId, const Json::Value& answer);

// Makes the host's records what they should be; nothing is done on the recording server. False when one could
// not be changed, which is logged; the others are.
bool RepairDrift(const std::vector<Drift>& drifts);

}  // namespace pavane
