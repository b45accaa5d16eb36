#pragma once

#include <functional>
#include <string>

#include <json/json.h>

// What an application library registers with the host process that loaded it, so that the NAS side stays
// below the application. A module library may export `extern "C" void OnModuleLoaded()`; it is called once
// per worker, after the fork and before the first request. Implemented in korv/framework/host.cpp.
namespace KORV {

// Part of GET /healthz: returns an empty text when all is well, else what is wrong (for the log, not for
// clients).
void RegisterHealthCheck(const std::string& name, std::function<std::string()> check);

// Whether a peer with this pairing key over this stamp may have this request.
//   api     name of the web API that is called
//   params  JSON object with all of the request's parameters
using PairCheck = std::function<bool(const std::string& pairKey, const std::string& stamp,
                                     const std::string& api, const Json::Value& params)>;

// Judges each request on the peer pool. One that throws ends the request with 110.
void RegisterPairCheck(PairCheck check);

// Is told by the process that looks after remote mounts, every few seconds and of every mount, whether the
// one at `mountPoint` is normal. Most of that is no news: an observer must be quick then.
void RegisterMountObserver(std::function<void(const std::string& mountPoint, bool isNormal)> observer);

enum class JobLength {
    kShort,  // ends within seconds, however slow the disks are
    kLong,
};

// Has `job` run now and then in one of the node's two job processes, never in a process that serves requests.
//   name        unique; a second registration replaces the first
//   interval_s  seconds from the end of one run to the next, at least 1; the first run follows the start
//   length      the jobs of each length have a process, so that a long one holds up no short one
// Runs as the service user with saved uid 0, one job of a length at a time. What it throws is logged and it
// is tried again after the interval; should the process die, a new one starts all of its jobs anew.
void RegisterPeriodicJob(const std::string& name, int interval_s, JobLength length,
                         std::function<void()> job);

}  // namespace KORV
