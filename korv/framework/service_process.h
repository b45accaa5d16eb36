#pragma once

#include <functional>

namespace korv {

// How a process of the daemon ended, as its exit status.
inline constexpr int kProcessDone = 0;    // asked to stop, recycled, or its supervisor is gone
inline constexpr int kProcessFailed = 1;  // could not start; the log tells why

// The life of a process that runs the modules, called in the child right after the fork, as root with no
// signal blocked: lowers the effective ids to the service user's (saved uid 0 stays), loads the modules and
// does `work`, which should end soon after a SIGTERM (IsStopRequested). Returns the exit status.
int RunServiceProcess(const std::function<void()>& work);

// True once this process was asked to stop.
bool IsStopRequested();

}  // namespace korv
