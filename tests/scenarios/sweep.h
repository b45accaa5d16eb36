#pragma once

#include <string>
#include <vector>

#include "tests/scenarios/run.h"

namespace scenario {

// A call as the reports show it: "IsExistDir("/volume1/rec")".
std::string CallLine(const fake::FunctionTraits& function, const Json::Value& args);

// Empty when the run freed all results, gave back the ids (or said that it could not) and misused nothing.
std::string CheckLeftovers(const Case& script, const Outcome& outcome);

// Repeats the case once for each call of `made` that can fail and didn't, with that call failing. Empty when
// each repetition ended in order: cleanly, and with an error unless the case tolerates that failure.
std::string Sweep(const Case& script, const std::vector<MadeCall>& made);

}  // namespace scenario
