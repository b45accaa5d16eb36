#include "korv/framework/request_scope.h"

namespace korv {

namespace {

std::uint64_t g_latest = 0;
unsigned g_depth = 0;

}  // namespace

RequestScope::RequestScope() {
    if (g_depth++ == 0) {
        ++g_latest;
    }
}

RequestScope::~RequestScope() { --g_depth; }

std::uint64_t CurrentRequest() { return g_depth > 0 ? g_latest : 0; }

}  // namespace korv
