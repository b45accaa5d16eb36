#include "platform/korv/process_environment.h"

#include <sched.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "korv/framework/log.h"
#include "korv/system/settings.h"

namespace {

constexpr const char* kDefaultTask = "default";
constexpr const char* kDualAuthVariable = "PAV_DUAL_AUTH";

// The set that the process had when it first came here: the machine's, unless the service was bound.
const cpu_set_t& InitialSet() {
    static const cpu_set_t initial = [] {
        cpu_set_t set;
        if (sched_getaffinity(0, sizeof set, &set) != 0) {
            std::memset(&set, 0xFF, sizeof set);  // the kernel takes those that exist
        }
        return set;
    }();
    return initial;
}

}  // namespace

void PVTaskSet::SetAffinity(const std::string& task) {
    cpu_set_t set = InitialSet();
    const auto& configured = korv::GetSettings().affinity;
    const auto found = configured.find(task.empty() ? kDefaultTask : task);
    if (found != configured.end()) {
        CPU_ZERO(&set);
        for (const int cpu : found->second) {
            CPU_SET(cpu, &set);
        }
    }
    if (sched_setaffinity(0, sizeof set, &set) != 0) {
        korv::LogLine("the processors of task '" + task + "' could not be set: " + std::strerror(errno));
    }
}

void DualAuth::CheckToSetEnv(const std::string& cookie, const std::string& sessionId) {
    if (cookie.empty() || sessionId.empty()) {
        unsetenv(kDualAuthVariable);
    } else if (setenv(kDualAuthVariable, cookie.c_str(), 1) != 0) {
        korv::LogLine(std::string("the second-factor state could not be set: ") + std::strerror(errno));
    }
}
