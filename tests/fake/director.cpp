#include "tests/fake/director.h"

#include <stdexcept>

namespace fake {

namespace {

Director* g_director = nullptr;

}  // namespace

DirectorScope::DirectorScope(Director& director) { g_director = &director; }

DirectorScope::~DirectorScope() { g_director = nullptr; }

Director* CurrentDirector() { return g_director; }

Json::Value Ask(const char* function, const Json::Value& args) {
    const FunctionTraits* traits = FindFunction(function);
    if (traits == nullptr || g_director == nullptr) {
        throw std::logic_error(std::string("nobody answers for ") + function);
    }
    return g_director->Reply(*traits, args);
}

}  // namespace fake
