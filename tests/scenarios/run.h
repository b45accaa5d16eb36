#pragma once

#include <optional>
#include <string>

#include "tests/scenarios/case.h"
#include "tests/scenarios/script_director.h"

namespace scenario {

// What one run of a case came to.
struct Outcome {
    explicit Outcome(const Case& script, std::optional<std::size_t> failing) : director(script, failing) {}

    ScriptDirector director;
    std::string thrown;  // type and text of an exception that left the module
    std::string thrownType;
    Json::Value returns;
    ErrorState error;
    std::size_t openResults = 0;       // database results that were not freed
    std::size_t openShareRecords = 0;  // records of shared folders that were not freed
};

// Runs the case once; the made call at the place `failing` fails.
void Run(const Case& script, Outcome& outcome);

// True when the run did what its request asked for; nothing when that can't be told of this routine.
std::optional<bool> HasSucceeded(const Case& script, const Outcome& outcome);

// Runs the case, compares, and repeats it for the fault sweep. Empty when all is as it must be, else a text
// for people.
std::string Judge(const Case& script);

}  // namespace scenario
