#pragma once

#include <string>
#include <vector>

#include "korv/framework/api_registry.h"

namespace korv {

// Loads the module libraries in order, adds their tables to `registry` and then calls each one's
// OnModuleLoaded, if it has one. They stay loaded until the process ends.
// Throws std::runtime_error naming the module when it can't be loaded (every symbol is resolved at once), has
// no GetAPITable, or clashes with another.
void LoadModules(const std::vector<std::string>& paths, ApiRegistry& registry);

}  // namespace korv
