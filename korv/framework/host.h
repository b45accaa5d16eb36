#pragma once

#include <functional>
#include <map>
#include <string>

#include <json/json.h>

#include "platform/korv/host.h"

// What application libraries have registered in this process (platform/korv/host.h).
namespace korv {

// Runs every registered health check; an empty text when all is well, else what is wrong. A check that throws
// is one that failed.
std::string FailedHealthCheck();

// Judges a peer's request (KORV::PairCheck); false while no check is registered. What the check throws is
// thrown.
bool IsPairedPeer(const std::string& pairKey, const std::string& stamp, const std::string& api,
                  const Json::Value& params);

// Tells every observer of mounts; what one throws is logged.
void AnnounceMountState(const std::string& mountPoint, bool isNormal);

struct PeriodicJob {
    int interval_s = 1;
    KORV::JobLength length = KORV::JobLength::kShort;
    std::function<void()> run;
};

// By name.
const std::map<std::string, PeriodicJob>& PeriodicJobs();

}  // namespace korv
