#pragma once

#include <string>

#include <json/json.h>

#include "cli/client.h"

namespace cli {

// A job's line while it goes on: a bar of 30 cells and what it does; fits into 80 columns but for long names.
std::string ProgressLine(const Json::Value& job);

// How a job ended or why it waits, as a sentence.
std::string JobEndText(const Json::Value& job);

// Shows how far the job `id` is, on a terminal as a bar that moves, until it is over. True when it has done
// what it was to do. Throws Refused and Unreachable; the job goes on then, as it does when this is
// interrupted.
bool FollowJob(Client& client, const std::string& id);

}  // namespace cli
