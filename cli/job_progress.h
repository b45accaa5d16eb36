#pragma once

#include <string>

#include <json/json.h>

#include "cli/client.h"

namespace cli {

// A job's line while it goes on: a bar of 30 cells and what it does; fits into 80 columns but for long names.
std::string ProgressLine(const Json::Value& job);

// How a job ended, as a sentence.
std::string JobEndText(const Json::Value& job);

// What a job does or waits for, and what would let it go on.
std::string JobStateText(const Json::Value& job);

// The newest job, over or not, of the shared folder `share` of the server that is asked; null when there is
// none or the caller may not know.
Json::Value NewestJob(Client& client, const std::string& share);

// True for a job that is neither null nor over.
bool IsUnderWay(const Json::Value& job);

// Shows how far the job `id` is until it is over: on a terminal as a bar that moves, elsewhere as a line when
// it begins, waits or goes on. True when it has done what it was to do. Throws Refused and Unreachable; the
// job goes on then, as it does when this is interrupted.
bool FollowJob(Client& client, const std::string& id);

}  // namespace cli
