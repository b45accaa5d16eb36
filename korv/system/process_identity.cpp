#include "korv/system/process_identity.h"

#include <unistd.h>

#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "include/run_as_scope.h"

namespace korv {

namespace {

struct ProcessStatus {
    char state = 0;
    long long start = 0;
};

// Reads /proc/PID/stat, whose second field is a file name in brackets that may hold anything.
std::optional<ProcessStatus> StatusOf(int pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const std::size_t nameEnd = text.rfind(')');
    if (nameEnd == std::string::npos) {
        return std::nullopt;
    }
    constexpr int kFieldsBetween = 18;  // from the state, field 3, to the start time, field 22
    std::istringstream fields(text.substr(nameEnd + 1));
    ProcessStatus status;
    fields >> status.state;
    std::string skipped;
    for (int i = 0; i < kFieldsBetween; ++i) {
        fields >> skipped;
    }
    fields >> status.start;
    return fields ? std::optional(status) : std::nullopt;
}

std::string BootId() {
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string id;
    file >> id;
    return id;
}

}  // namespace

ProcessIdentity ThisProcess() {
    const int pid = getpid();
    const auto status = StatusOf(pid);
    if (!status) {
        // Others would take this process for a dead one and undo what it does.
        throw std::runtime_error("/proc does not tell about this process");
    }
    return {pid, status->start, BootId()};
}

bool IsThisProcess(const ProcessIdentity& process) {
    const ProcessIdentity self = ThisProcess();
    return process.pid == self.pid && process.start == self.start && process.bootId == self.bootId;
}

bool IsRunning(const ProcessIdentity& process) {
    if (process.pid <= 0 || process.bootId != BootId()) {
        return false;
    }
    // /proc may show other users' processes to root only.
    const RunAsScope root = IF_RUN_AS;
    const auto status = StatusOf(process.pid);
    return status && status->start == process.start && status->state != 'Z' && status->state != 'X';
}

}  // namespace korv
