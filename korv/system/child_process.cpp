#include "korv/system/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <thread>

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
            kill(child, SIGKILL);
            while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
            }
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

}  // namespace korv
