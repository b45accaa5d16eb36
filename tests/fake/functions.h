#pragma once

#include <string>
#include <vector>

#include <json/json.h>

namespace fake {

// How a platform function takes part in a scenario.
enum class Kind {
    kCall,        // has an effect or decides: every call must be scripted
    kBackground,  // answered from the scenario's given world unless the scenario scripts it
};

// What is known about one platform function beyond its C++ declaration; docs/ref/scenario-format.md shows the
// same facts to those who write scenarios.
//   argNames   the recorded arguments, in order
//   benign     the reply of a scripted call that names none; its members are those that a reply may have
//   failing    the reply in the fault sweep; null for a function that has no way to fail
//   tellsFailure  false when the failing reply is a plain answer that callers can't tell from a real one
struct FunctionTraits {
    std::string name;
    Kind kind = Kind::kCall;
    std::vector<std::string> argNames;
    Json::Value benign;
    Json::Value failing;
    bool canFail = false;
    bool tellsFailure = true;
};

// The function of that name; null when there is none.
const FunctionTraits* FindFunction(const std::string& name);

const std::vector<FunctionTraits>& AllFunctions();

}  // namespace fake
