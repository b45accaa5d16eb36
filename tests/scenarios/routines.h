#pragma once

#include <string>
#include <vector>

#include <json/json.h>

#include "platform/korv/api_request.h"
#include "platform/korv/api_response.h"

#include "tests/fake/world.h"
#include "tests/scenarios/case.h"

namespace scenario {

// What a routine has at hand.
struct RoutineContext {
    KORV::APIRequest& request;
    KORV::APIResponse& response;
    const Json::Value& args;  // complete
    fake::World& world;
    ErrorState error;  // out: the handler's error state afterwards
};

// A routine of the module that a case may call directly.
//   args              every argument with its default
//   returnsSomething  the case says what
//   answers           it writes the response
struct Routine {
    std::string name;
    Json::Value args;
    bool returnsSomething = false;
    bool answers = false;
    Json::Value (*run)(RoutineContext& context) = nullptr;
    // Whether `returns` means that the routine did what it is for; null when it can't be told from it.
    bool (*succeeded)(const Json::Value& returns) = nullptr;
};

// Null when there is none of that name.
const Routine* FindRoutine(const std::string& name);

const std::vector<Routine>& AllRoutines();

}  // namespace scenario
