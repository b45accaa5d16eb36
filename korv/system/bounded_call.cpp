#include "korv/system/bounded_call.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "platform/korv/configuration.h"

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

std::chrono::milliseconds LeftUntil(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return std::max(left, std::chrono::milliseconds::zero());
}

void ReapKilled() {
    for (auto& [key, silence] : ProcessSilences()) {
        if (silence.child > 0 && IsEnded(silence.child)) {
            silence.child = -1;
        }
    }
    std::erase_if(ProcessSilences(), [now = Clock::now()](const auto& each) {
        return each.second.child <= 0 && each.second.until <= now;
    });
}

// A killed child ends a moment later, or when what it waits for comes back.
void AwaitKilled() {
    constexpr std::chrono::milliseconds kPatience(50);
    const Clock::time_point deadline = Clock::now() + kPatience;
    for (const auto& [key, silence] : ProcessSilences()) {
        if (silence.child > 0) {
            const FileDescriptor process(static_cast<int>(syscall(SYS_pidfd_open, silence.child, 0)));
            pollfd ending{process.Get(), POLLIN, 0};
            poll(&ending, 1, static_cast<int>(LeftUntil(deadline).count()));
        }
    }
    ReapKilled();
}

// Another mount at the same place is another one to ask.
std::string KeyOf(const std::string& question, const std::string& path) {
    const auto along = MountsAlong(path);
    return question + " " + (along.empty() ? path : along.back()->id + " " + along.back()->mountPoint);
}

bool IsUnanswered(const std::string& key) {
    ReapKilled();
    return ProcessSilences().count(key) != 0;
}

// Holds nothing of the request's: a child that hangs must not keep a client's connection open.
[[noreturn]] void Answer(pid_t asker, int output, const std::function<bool(void*)>& work, std::size_t size) {
    std::vector<char> answer(size);
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != asker) {
        _exit(1);
    }
    if (output > 0) {
        close_range(0, static_cast<unsigned>(output) - 1, 0);
    }
    close_range(static_cast<unsigned>(output) + 1, ~0U, 0);
    const bool isGiven = work(answer.data());
    const bool isSent = isGiven && write(output, answer.data(), size) == static_cast<ssize_t>(size);
    _exit(isSent ? 0 : 1);
}

enum class Ending { kAnswered, kNoAnswer, kLate };

Ending Receive(int input, void* answer, std::size_t size, Clock::time_point deadline) {
    while (true) {
        pollfd waiting{input, POLLIN, 0};
        const int ready = poll(&waiting, 1, static_cast<int>(LeftUntil(deadline).count()));
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

// A question that a child was given.
struct Question {
    std::string key;
    pid_t child;
    FileDescriptor reading;
};

std::optional<Question> Put(const std::string& key, const std::function<bool(void*)>& work,
                            std::size_t size) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return std::nullopt;
    }
    FileDescriptor reading(ends[0]);
    const FileDescriptor writing(ends[1]);
    const pid_t asker = getpid();
    const pid_t child = fork();
    if (child == 0) {
        Answer(asker, writing.Get(), work, size);
    }
    return child > 0 ? std::optional(Question{key, child, std::move(reading)}) : std::nullopt;
}

Ending Await(const Question& question, void* answer, std::size_t size, Clock::time_point deadline) {
    const Ending ending = Receive(question.reading.Get(), answer, size, deadline);
    if (ending == Ending::kLate) {
        kill(question.child, SIGKILL);
        ProcessSilences()[question.key] = {Clock::now() + kSilencePause, question.child};
    } else {
        Reap(question.child);
    }
    return ending;
}

// In a child, unless the question of this key is known to get no answer.
Ending Ask(const std::string& key, const std::function<bool(void*)>& work, void* answer, std::size_t size) {
    const auto put = IsUnanswered(key) ? std::nullopt : Put(key, work, size);
    return put ? Await(*put, answer, size, Clock::now() + kAnswerDeadline) : Ending::kNoAnswer;
}

bool IsPrompt(const Mount& mount) {
    return std::find(kPromptTypes.begin(), kPromptTypes.end(), mount.fsType) != kPromptTypes.end();
}

bool IsOnVolume(const std::string& path) {
    const auto& volumes = KORV::GetConfiguration().volumes;
    return std::any_of(volumes.begin(), volumes.end(),
                       [&path](const std::string& volume) { return IsAtOrBeneath(path, volume); });
}

// The mounts on the volumes that may be slow and aren't known to be silent.
std::vector<std::string> MountsToLookAt() {
    std::set<std::string> found;
    for (const Mount& mount : ListMounts()) {
        if (!IsPrompt(mount) && IsOnVolume(mount.mountPoint)) {
            found.insert(mount.mountPoint);
        }
    }
    std::erase_if(found, [](const std::string& path) { return IsSilent(path); });
    return {found.begin(), found.end()};
}

// The server itself is asked, not what this machine still knows of it.
bool Answers(const std::string& path) {
    struct statx status {};
    return statx(AT_FDCWD, path.c_str(), AT_STATX_FORCE_SYNC, STATX_TYPE, &status) == 0;
}

// Who meets one silent mount may have others before them, of the same dead server: those are found within one
// more deadline, however many they are.
void LookAtOtherMounts() {
    constexpr std::size_t kAtOnce = 200;
    const std::vector<std::string> mounts = MountsToLookAt();
    for (std::size_t begin = 0; begin < mounts.size(); begin += kAtOnce) {
        std::vector<Question> questions;
        for (std::size_t i = begin; i < std::min(mounts.size(), begin + kAtOnce); ++i) {
            const auto ask = [&path = mounts[i]](void* /*answer*/) { return Answers(path); };
            if (auto question = Put(KeyOf(kIsItThere, mounts[i]), ask, 1)) {
                questions.push_back(std::move(*question));
            }
        }
        const Clock::time_point deadline = Clock::now() + kAnswerDeadline;
        for (const Question& question : questions) {
            char answer = 0;
            Await(question, &answer, 1, deadline);
        }
    }
}

bool IsAnswered(Ending ending) {
    if (ending == Ending::kLate) {
        AwaitKilled();
    }
    return ending == Ending::kAnswered;
}

}  // namespace

bool IsPathPrompt(const std::string& path) {
    const auto along = MountsAlong(path);
    return std::all_of(along.begin(), along.end(), [](const Mount* mount) { return IsPrompt(*mount); });
}

bool IsSilent(const std::string& path) {
    return !IsPathPrompt(path) && IsUnanswered(KeyOf(kIsItThere, path));
}

bool CallInChild(const std::string& question, const std::string& path, const std::function<bool(void*)>& work,
                 void* answer, std::size_t size) {
    if (IsSilent(path)) {
        return false;
    }
    const Ending ending = Ask(KeyOf(question, path), work, answer, size);
    if (ending == Ending::kLate && question == kIsItThere) {
        LookAtOtherMounts();
    }
    return IsAnswered(ending);
}

bool AskInChild(const std::string& subject, const std::function<bool(void*)>& work, void* answer,
                std::size_t size) {
    return IsAnswered(Ask(subject, work, answer, size));
}

}  // namespace korv
