#pragma once

#include <chrono>
#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "korv/framework/http_exchange.h"
#include "korv/system/file_descriptor.h"
#include "korv/system/settings.h"

// Keeps nginx, the worker pools and the job processes running: starts them, replaces what dies (at once after
// a good life, with growing delays otherwise), and ends all of them when asked to. One thread; waits for
// signals only.
class Supervisor {
public:
    // Blocks the signals that it waits for. The folders have been prepared.
    explicit Supervisor(const korv::Settings& settings);
    Supervisor(const Supervisor&) = delete;
    Supervisor& operator=(const Supervisor&) = delete;

    // Runs until SIGTERM or SIGINT; a second one ends everything at once. Returns the exit status: 0 after an
    // orderly end, 1 when the start failed.
    int Run();

private:
    using Clock = std::chrono::steady_clock;

    enum class Role { kNginx, kPublicWorker, kPeerWorker, kMountKeeper, kJobs, kLongJobs, kShareJobs };

    struct Child {
        Role role;
        pid_t pid = 0;             // 0 = not running, to be started at `due`
        bool isOfTheDead = false;  // its last process did not end by itself
        Clock::time_point started{};
        Clock::time_point due{};
        std::chrono::milliseconds delay{0};
    };

    static std::string NameOf(Role role);
    bool StartAll();
    bool StartNginx(Child& child);
    void RestartNginx(Child& child);
    void StartWorker(Child& child);
    void StartMountKeeper(Child& child);
    void StartJobs(Child& child);
    void StartShareJobs(Child& child);
    void Restart(Child& child);
    void StartDue();
    void Reap();
    void NoteDeath(Child& child, int status);
    void StopAll();
    bool WaitForEnd(Role lowest, Role highest, std::chrono::seconds patience);
    void Signal(Role role, int signal);
    int WaitForSignal(Clock::time_point until);
    pid_t Fork(const std::function<int()>& work);
    bool RunToEnd(const char* what, const std::function<int()>& work);

    const korv::Settings& m_settings;
    korv::FileDescriptor m_publicSocket;
    korv::FileDescriptor m_peerSocket;
    std::vector<Child> m_children;
    sigset_t m_signals{};
    bool m_isStopping = false;
};
