#include "korv/system/bounded_call.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <map>
#include <utility>
#include <vector>

#include <sys/wait.h>

#include "korv/system/file_descriptor.h"
#include "korv/system/mount_table.h"

namespace korv {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::array<const char*, 16> kPromptTypes{"ext2",     "ext3",  "ext4",  "btrfs",    "xfs",  "f2fs",
                                                   "tmpfs",    "ramfs", "vfat",  "devtmpfs", "proc", "sysfs",
                                                   "squashfs", "exfat", "erofs", "overlay"};

// A question that a mount left unanswered. The child may sit in the kernel beyond any signal.
struct Silence {
    Clock::time_point until;
    pid_t child = -1;
};

struct Silences {
    pid_t owner = 0;
    std::map<std::string, Silence> byQuestion;
};

// Children of a parent's are not this process's to wait for.
std::map<std::string, Silence>& ProcessSilences() {
    static Silences silences;
    if (silences.owner != getpid()) {
        silences = {getpid(), {}};
    }
    return silences.byQuestion;
}

bool IsEnded(pid_t child) {
    int status = 0;
    const pid_t ended = waitpid(child, &status, WNOHANG);
    return ended == child || (ended < 0 && errno != EINTR);
}

std::string KeyOf(const std::string& question, const std::string& path) {
    const auto along = MountsAlong(path);
    return question + " " + (along.empty() ? path : along.back()->mountPoint);
}

bool IsUnanswered(const std::string& key) {
    auto& silences = ProcessSilences();
    const auto found = silences.find(key);
    if (found == silences.end()) {
        return false;
    }
    Silence& silence = found->second;
    if (silence.child > 0 && IsEnded(silence.child)) {
        silence.child = -1;
    }
    if (silence.child > 0 || Clock::now() < silence.until) {
        return true;
    }
    silences.erase(found);
    return false;
}

// Holds nothing of the request's: a child that hangs must not keep a client's connection open.
[[noreturn]] void Answer(int output, const std::function<bool(void*)>& work, std::size_t size) {
    std::vector<char> answer(size);
    if (output > 0) {
        close_range(0, static_cast<unsigned>(output) - 1, 0);
    }
    close_range(static_cast<unsigned>(output) + 1, ~0U, 0);
    const bool isGiven = work(answer.data());
    const bool isSent = isGiven && write(output, answer.data(), size) == static_cast<ssize_t>(size);
    _exit(isSent ? 0 : 1);
}

enum class Ending { kAnswered, kNoAnswer, kLate };

Ending Receive(int input, void* answer, std::size_t size) {
    const Clock::time_point deadline = Clock::now() + kAnswerDeadline;
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd waiting{input, POLLIN, 0};
        const int ready = left.count() > 0 ? poll(&waiting, 1, static_cast<int>(left.count())) : 0;
        if (ready == 0) {
            return Ending::kLate;
        }
        // An answer is shorter than what a pipe passes on in one piece.
        const ssize_t length = ready > 0 ? read(input, answer, size) : -1;
        if (length == static_cast<ssize_t>(size)) {
            return Ending::kAnswered;
        }
        if (length >= 0 || errno != EINTR) {
            return Ending::kNoAnswer;
        }
    }
}

void Reap(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace

bool IsPathPrompt(const std::string& path) {
    const auto along = MountsAlong(path);
    return std::all_of(along.begin(), along.end(), [](const Mount* mount) {
        return std::find(kPromptTypes.begin(), kPromptTypes.end(), mount->fsType) != kPromptTypes.end();
    });
}

bool IsSilent(const std::string& path) {
    return !IsPathPrompt(path) && IsUnanswered(KeyOf(kIsItThere, path));
}

bool CallInChild(const std::string& question, const std::string& path, const std::function<bool(void*)>& work,
                 void* answer, std::size_t size) {
    const std::string key = KeyOf(question, path);
    std::array<int, 2> ends{};
    if (IsUnanswered(key) || IsSilent(path) || pipe2(ends.data(), O_CLOEXEC) != 0) {
        return false;
    }
    const FileDescriptor reading(ends[0]);
    FileDescriptor writing(ends[1]);
    const pid_t child = fork();
    if (child == 0) {
        Answer(writing.Get(), work, size);
    }
    writing = FileDescriptor();
    if (child < 0) {
        return false;
    }
    const Ending ending = Receive(reading.Get(), answer, size);
    if (ending == Ending::kLate) {
        kill(child, SIGKILL);
        ProcessSilences()[key] = {Clock::now() + kSilencePause, IsEnded(child) ? -1 : child};
    } else {
        Reap(child);
    }
    return ending == Ending::kAnswered;
}

}  // namespace korv
