#include "korv/system/child_process.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <spawn.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <thread>

#include <linux/close_range.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include "include/run_as_scope.h"
#include "korv/system/file_descriptor.h"

namespace korv {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kLongestOutput = std::size_t{16} * 1024 * 1024;
constexpr std::chrono::milliseconds kPollPause(2);

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// Starts the program with its output going to `output`; -1 when that fails. Signals are as a shell would give
// them, whatever this process ignores or blocks.
pid_t Start(const std::string& path, std::vector<std::string> arguments, int output) {
    arguments.insert(arguments.begin(), path);
    std::vector<std::string> environment{"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8"};

    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&files, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&files, output, STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    pid_t child = -1;
    int failure = 0;
    {
        const RunAsScope root = IF_RUN_AS;
        failure = root ? posix_spawn(&child, path.c_str(), &files, &attributes, Pointers(arguments).data(),
                                     Pointers(environment).data())
                       : EPERM;
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    return failure == 0 ? child : -1;
}

// In a child: root with all three ids, since some programs look at the real one, and no groups.
bool BecomeRootForGood() {
    return seteuid(0) == 0 && setgroups(0, nullptr) == 0 && setresgid(0, 0, 0) == 0 &&
           setresuid(0, 0, 0) == 0;
}

void ResetSignals() {
    for (int signal = 1; signal < NSIG; ++signal) {
        std::signal(signal, SIG_DFL);
    }
    sigset_t signals;
    sigemptyset(&signals);
    sigprocmask(SIG_SETMASK, &signals, nullptr);
}

constexpr int kNotStarted = 127;

// In a child that was forked by a process with one thread: becomes the program, with `input` as its standard
// input. Returns only when that fails.
void BecomeProgram(const std::string& path, std::vector<std::string> arguments, int input, int kept) {
    arguments.insert(arguments.begin(), path);
    std::vector<std::string> environment{"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8"};
    const int nothing = open("/dev/null", O_WRONLY | O_CLOEXEC);
    ResetSignals();
    if (nothing < 0 || !BecomeRootForGood() || dup2(input, STDIN_FILENO) < 0 ||
        // Changing ids would clear it.
        prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || dup2(nothing, STDOUT_FILENO) < 0 ||
        dup2(nothing, STDERR_FILENO) < 0 || chdir("/") != 0) {
        return;
    }
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    if (kept >= 0 && fcntl(kept, F_SETFD, 0) != 0) {
        return;
    }
    execve(path.c_str(), Pointers(arguments).data(), Pointers(environment).data());
}

// Reads until the program closes its output. False when the deadline comes first.
bool ReadUntil(int output, Clock::time_point deadline, std::string& text) {
    constexpr std::size_t kBlock = 4096;
    std::array<char, kBlock> block{};
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd waiting{output, POLLIN, 0};
        const int ready = left.count() > 0 ? poll(&waiting, 1, static_cast<int>(left.count())) : 0;
        if (ready == 0) {
            return false;
        }
        const ssize_t length = ready > 0 ? read(output, block.data(), block.size()) : -1;
        if (length == 0 || (length < 0 && errno != EINTR)) {
            return length == 0;
        }
        if (length > 0 && text.size() < kLongestOutput) {
            text.append(block.data(), static_cast<std::size_t>(length));
        }
    }
}

// Kills and waits, not for ever: a child in a system call that hangs may outlive the signal.
void Kill(pid_t child) {
    constexpr std::chrono::seconds kPatience(2);
    const RunAsScope root = IF_RUN_AS;
    kill(child, SIGKILL);
    const Clock::time_point end = Clock::now() + kPatience;
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0 && Clock::now() < end) {
        std::this_thread::sleep_for(kPollPause);
    }
}

// The exit status; -1 after a signal. A program may close its output long before its end.
int WaitUntil(pid_t child, Clock::time_point deadline) {
    int status = 0;
    while (true) {
        const pid_t ended = waitpid(child, &status, WNOHANG);
        if (ended == child) {
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        if (ended < 0 && errno != EINTR) {
            return -1;
        }
        if (Clock::now() > deadline) {
            Kill(child);
            return -1;
        }
        std::this_thread::sleep_for(kPollPause);
    }
}

}  // namespace

ProgramEnd RunProgram(const std::string& path, const std::vector<std::string>& arguments,
                      std::chrono::milliseconds deadline) {
    const Clock::time_point end = Clock::now() + deadline;
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return {};
    }
    const FileDescriptor reading(ends[0]);
    FileDescriptor writing(ends[1]);
    const pid_t child = Start(path, arguments, writing.Get());
    writing = FileDescriptor();
    if (child < 0) {
        return {};
    }
    ProgramEnd result;
    const bool isComplete = ReadUntil(reading.Get(), end, result.output);
    result.exitCode = WaitUntil(child, isComplete ? end : Clock::now());
    return result;
}

int RunProgramWithInput(const std::string& path, const std::vector<std::string>& arguments,
                        std::string_view input, std::chrono::milliseconds deadline, int kept) {
    std::array<int, 2> ends{};
    if (input.size() > kLongestInput || pipe2(ends.data(), O_CLOEXEC) != 0) {
        return -1;
    }
    const FileDescriptor reading(ends[0]);
    FileDescriptor writing(ends[1]);
    // So little fits into the pipe at once, and its other end is still here, so this neither waits nor fails
    // when the program ends without reading.
    if (write(writing.Get(), input.data(), input.size()) != static_cast<ssize_t>(input.size())) {
        return -1;
    }
    writing = FileDescriptor();
    const pid_t child = fork();
    if (child == 0) {
        BecomeProgram(path, arguments, reading.Get(), kept);
        _exit(kNotStarted);
    }
    return child > 0 ? WaitUntil(child, Clock::now() + deadline) : -1;
}

std::optional<int> RunInChild(const std::function<int()>& work, std::chrono::milliseconds deadline) {
    constexpr int kThrew = 255;
    const pid_t child = fork();
    if (child == 0) {
        int result = kThrew;
        try {
            // A caller that was killed starts over, and late work of this child would undo what it does then.
            result = BecomeRootForGood() && prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 ? work() : kThrew;
        } catch (...) {
            result = kThrew;
        }
        _exit(result);
    }
    const int result = child > 0 ? WaitUntil(child, Clock::now() + deadline) : -1;
    return result >= 0 && result != kThrew ? std::optional(result) : std::nullopt;
}

}  // namespace korv
