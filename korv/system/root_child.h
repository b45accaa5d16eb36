#pragma once

#include <chrono>
#include <functional>
#include <string>

#include <sys/types.h>

#include "korv/system/file_descriptor.h"

// Work that may hang on a server that is gone, or that needs root's real ids as libmount does.
namespace korv {

// How the work of a child ended.
//   isInTime   false: it missed its deadline and was killed
//   exitCode   what `work` returned; -1 when it was killed, threw or could not be started
//   output     what it and the programs that it ran wrote to standard output and standard error, at most 64
//   KiB
struct ChildEnd {
    bool isInTime = false;
    int exitCode = -1;
    std::string output;
};

// Runs `work` in a child with all ids 0, no open files but the standard ones, a session of its own and the
// signals as a shell would give them; waits at most until the deadline. What is killed then is the child and
// everything that it started and that stayed in its session. A child that the kernel holds back from dying is
// left behind and no longer waited for.
// Needs saved uid 0, a process of one thread, and that nobody else waits for this process's children.
class RootChild {
public:
    RootChild(const std::function<int()>& work, std::chrono::milliseconds deadline);
    // Kills it when nobody has waited.
    ~RootChild();
    RootChild(RootChild&& other) noexcept;
    RootChild& operator=(RootChild&&) = delete;
    RootChild(const RootChild&) = delete;
    RootChild& operator=(const RootChild&) = delete;

    // Until it has ended or the deadline, which counts from the start. Once only.
    ChildEnd Wait();

private:
    void Kill();
    bool WaitForEnd(ChildEnd& end);

    std::chrono::steady_clock::time_point m_deadline;
    pid_t m_child = -1;
    FileDescriptor m_output;
};

// Starts the work and waits for it.
ChildEnd RunAsRootChild(const std::function<int()>& work, std::chrono::milliseconds deadline);

}  // namespace korv
