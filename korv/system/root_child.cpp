#include "korv/system/root_child.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <utility>
#include <vector>

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "korv/system/file_descriptor.h"

namespace korv {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t kLongestOutput = std::size_t{64} * 1024;
constexpr int kBroken = 125;             // the exit status of a child that could not do its work
constexpr milliseconds kDeathWait(200);  // for a killed child; one that needs longer is held by the kernel

// Children that did not die when they were killed; they are looked for again before the next one starts.
std::vector<pid_t>& LeftBehind() {
    static std::vector<pid_t> children;
    return children;
}

bool IsEnded(pid_t child, int& status) {
    const pid_t ended = waitpid(child, &status, WNOHANG);
    return ended == child || (ended < 0 && errno != EINTR);
}

void ReapLeftBehind() {
    std::erase_if(LeftBehind(), [](pid_t child) {
        int status = 0;
        return IsEnded(child, status);
    });
}

bool BecomeRoot() {
    return setresuid(-1U, 0, -1U) == 0 && setgroups(0, nullptr) == 0 && setresgid(0, 0, 0) == 0 &&
           setresuid(0, 0, 0) == 0;
}

void DefaultSignals() {
    for (int signal = 1; signal < NSIG; ++signal) {
        std::signal(signal, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

bool UseFiles(int output) {
    const int nothing = open("/dev/null", O_RDONLY);
    return nothing >= 0 && dup2(nothing, STDIN_FILENO) >= 0 && dup2(output, STDOUT_FILENO) >= 0 &&
           dup2(output, STDERR_FILENO) >= 0 && close_range(STDERR_FILENO + 1, ~0U, 0) == 0;
}

[[noreturn]] void Work(const std::function<int()>& work, int output, pid_t parent) {
    int result = kBroken;
    DefaultSignals();
    setsid();
    if (BecomeRoot() && UseFiles(output)) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // after the ids: their change clears it
        if (getppid() != parent) {
            _exit(kBroken);
        }
        try {
            result = work();
        } catch (const std::exception& error) {
            dprintf(STDERR_FILENO, "%s\n", error.what());
        }
    }
    _exit(result);
}

// Takes what there is now.
void Drain(int input, std::string& text) {
    std::array<char, 4096> block{};
    ssize_t length = 0;
    while ((length = read(input, block.data(), block.size())) > 0) {
        if (text.size() < kLongestOutput) {
            text.append(block.data(), static_cast<std::size_t>(length));
        }
    }
}

}  // namespace

RootChild::RootChild(const std::function<int()>& work, milliseconds deadline)
    : m_deadline(Clock::now() + deadline) {
    ReapLeftBehind();
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return;
    }
    m_output = FileDescriptor(ends[0]);
    const FileDescriptor writing(ends[1]);
    fcntl(m_output.Get(), F_SETFL, O_NONBLOCK);
    const pid_t parent = getpid();
    std::fflush(nullptr);
    m_child = fork();
    if (m_child == 0) {
        Work(work, writing.Get(), parent);
    }
}

RootChild::RootChild(RootChild&& other) noexcept
    : m_deadline(other.m_deadline),
      m_child(std::exchange(other.m_child, -1)),
      m_output(std::move(other.m_output)) {}

RootChild::~RootChild() {
    if (m_child > 0) {
        Kill();
    }
}

ChildEnd RootChild::Wait() {
    ChildEnd end;
    if (m_child <= 0) {
        return {true, -1, "no process could be started for it"};
    }
    end.isInTime = WaitForEnd(end);
    Drain(m_output.Get(), end.output);
    if (!end.isInTime) {
        Kill();
    }
    m_child = -1;
    return end;
}

// Until the child itself has ended: a daemon that it has started may hold its output open for ever.
bool RootChild::WaitForEnd(ChildEnd& end) {
    const FileDescriptor process(static_cast<int>(syscall(SYS_pidfd_open, m_child, 0)));
    nfds_t watched = 2;
    while (true) {
        std::array<pollfd, 2> waiting{{{process.Get(), POLLIN, 0}, {m_output.Get(), POLLIN, 0}}};
        const auto left = std::chrono::duration_cast<milliseconds>(m_deadline - Clock::now());
        if (poll(waiting.data(), watched, static_cast<int>(std::max<long>(left.count(), 0))) < 0 &&
            errno != EINTR) {
            return false;
        }
        Drain(m_output.Get(), end.output);
        watched = (waiting[1].revents & POLLHUP) != 0 ? 1 : watched;
        int status = 0;
        if (IsEnded(m_child, status)) {
            end.exitCode = WIFEXITED(status) && WEXITSTATUS(status) != kBroken ? WEXITSTATUS(status) : -1;
            return true;
        }
        if (left.count() <= 0) {
            return false;
        }
    }
}

void RootChild::Kill() {
    kill(-m_child, SIGKILL);
    kill(m_child, SIGKILL);
    const FileDescriptor process(static_cast<int>(syscall(SYS_pidfd_open, m_child, 0)));
    pollfd waiting{process.Get(), POLLIN, 0};
    poll(&waiting, 1, static_cast<int>(kDeathWait.count()));
    int status = 0;
    if (!IsEnded(m_child, status)) {
        LeftBehind().push_back(m_child);
    }
}

ChildEnd RunAsRootChild(const std::function<int()>& work, milliseconds deadline) {
    return RootChild(work, deadline).Wait();
}

}  // namespace korv
