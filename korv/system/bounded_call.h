#pragma once

#include <chrono>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>

// Asking a file system that may never answer: a server that is gone, a disk that hangs.
namespace korv {

// The longest time that one question may take, and how long a file system that missed it isn't asked again.
inline constexpr std::chrono::seconds kAnswerDeadline(3);
inline constexpr std::chrono::seconds kSilencePause(30);

// The question whether something is there: a file system that leaves it unanswered answers no other either.
inline constexpr const char* kIsItThere = "stat";

// True when every file system along `path` answers from this machine's own disks or memory.
bool IsPathPrompt(const std::string& path);

// Runs `work` in a child with this process's ids; false when it had no answer of `size` bytes within the
// deadline. A question that missed it isn't put again to that mount for kSilencePause, nor while the child
// hangs on; other questions are, unless it was kIsItThere. Needs that nobody else waits for this process's
// children. When it was kIsItThere that missed it, the other mounts on the volumes are asked the same, all at
// once, which may take as long again: so nobody waits longer than twice the deadline, however many of a dead
// server's folders they come upon.
//   question  what is asked, so that one that hangs doesn't keep others from being asked
bool CallInChild(const std::string& question, const std::string& path, const std::function<bool(void*)>& work,
                 void* answer, std::size_t size);

// The same about what isn't a path: `subject` names it, a device for one.
bool AskInChild(const std::string& subject, const std::function<bool(void*)>& work, void* answer,
                std::size_t size);

// True while the mount that `path` lies on isn't asked because kIsItThere missed the deadline. All that is
// known of it then is what the kernel's list of mounts says.
bool IsSilent(const std::string& path);

// What `work` gives in the child that `call` makes.
template <class Work, class Call>
auto CarriedAnswer(const Work& work, const Call& call) -> decltype(work()) {
    using Answer = typename decltype(work())::value_type;
    static_assert(std::is_trivially_copyable_v<Answer>);
    Answer answer{};
    const auto ask = [&work](void* place) {
        const auto given = work();
        if (given) {
            std::memcpy(place, &*given, sizeof(*given));
        }
        return given.has_value();
    };
    return call(ask, &answer, sizeof(answer)) ? std::optional(answer) : std::nullopt;
}

// What `work` gives; nothing when it gives nothing, or not in time. It runs in this process where the path is
// prompt, else in a child, and must not depend on the difference.
template <class Work>
auto CallBounded(const std::string& question, const std::string& path, const Work& work) -> decltype(work()) {
    if (IsPathPrompt(path)) {
        return work();
    }
    return CarriedAnswer(work, [&](const std::function<bool(void*)>& ask, void* answer, std::size_t size) {
        return CallInChild(question, path, ask, answer, size);
    });
}

// What `work` gives about `subject`, always from a child.
template <class Work>
auto CallApart(const std::string& subject, const Work& work) -> decltype(work()) {
    return CarriedAnswer(work, [&](const std::function<bool(void*)>& ask, void* answer, std::size_t size) {
        return AskInChild(subject, ask, answer, size);
    });
}

}  // namespace korv
