#include "korv/services/share_jobs.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <functional>
#include <map>
#include <string>

#include <soci/soci.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include "platform/korv/configuration.h"

#include "korv/framework/log.h"
#include "korv/framework/service_process.h"
#include "korv/system/database.h"
#include "korv/system/job_store.h"
#include "korv/system/move_job.h"
#include "korv/system/share_removal.h"

namespace korv {

namespace {

constexpr long kRoundPause_s = 1;
constexpr std::size_t kMostChildren = 4;
constexpr long long kFreeing = 0;  // stands for a job's id; no job has it

volatile std::sig_atomic_t g_isEndAsked = 0;

void AskForEnd(int /*signal*/) { g_isEndAsked = 1; }

sigset_t StopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    return signals;
}

void Log(const std::string& what, const std::function<void()>& work) {
    try {
        work();
    } catch (const soci::soci_error& error) {
        // what() would hold bound values.
        LogLine(what + " failed: database: " + error.get_error_message());
    } catch (const std::exception& error) {
        LogLine(what + " failed: " + error.what());
    }
}

void RunJob(long long id, const std::function<bool()>& shouldStop) {
    const std::string what = "job " + std::to_string(id);
    Log(what, [&] {
        const std::string reason = RunMoveJob(id, shouldStop);
        if (!reason.empty()) {
            LogLine(what + ": " + reason);
        }
    });
}

void FreeSpace(const std::function<bool()>& shouldStop) {
    Log("freeing the space of removed shares", [&] {
        for (const std::string& trouble :
             FreeRemovedShares(time(nullptr), KORV::GetConfiguration().volumes, shouldStop)) {
            LogLine(trouble);
        }
    });
}

// In the child: works until done, asked to end, or left alone.
[[noreturn]] void Work(long long id, pid_t keeper) {
    struct sigaction action {};
    action.sa_handler = AskForEnd;
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, nullptr);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    const sigset_t signals = StopSignals();
    sigprocmask(SIG_UNBLOCK, &signals, nullptr);
    prctl(PR_SET_NAME, "korvd-move");
    const auto shouldStop = [keeper] { return g_isEndAsked != 0 || getppid() != keeper; };
    id == kFreeing ? FreeSpace(shouldStop) : RunJob(id, shouldStop);
    CloseDatabase();
    // What the keeper has yet to do is not this process's.
    _exit(kProcessDone);
}

class Keeper {
public:
    void Round() {
        Reap();
        Log("the care for jobs", [this] {
            for (const long long id : Due()) {
                Start(id);
            }
        });
    }

    void EndAll() {
        for (const auto& [id, pid] : m_children) {
            kill(pid, SIGTERM);
        }
        for (const auto& [id, pid] : m_children) {
            while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
            }
        }
    }

private:
    // What waits for work and has nobody who does it, also not a child of a keeper that died.
    std::vector<long long> Due() {
        const long long now_s = time(nullptr);
        std::vector<long long> due;
        if (!m_children.contains(kFreeing) && IsSpaceToFree(now_s, KORV::GetConfiguration().volumes)) {
            due.push_back(kFreeing);
        }
        for (const JobRow& job : ListJobsUnderWay()) {
            if (job.nextTry_s <= now_s && !m_children.contains(job.id) && !IsRunning(job.runner)) {
                due.push_back(job.id);
            }
        }
        return due;
    }

    // The connection is closed while a process is forked.
    void Start(long long id) {
        if (m_children.size() >= kMostChildren) {
            return;
        }
        CloseDatabase();
        const pid_t keeper = getpid();
        const pid_t pid = fork();
        if (pid == 0) {
            Work(id, keeper);
        }
        if (pid > 0) {
            m_children[id] = pid;
        } else {
            LogLine("a process for a job could not be started");
        }
    }

    void Reap() {
        std::erase_if(m_children, [](const auto& child) {
            int status = 0;
            if (waitpid(child.second, &status, WNOHANG) == 0) {
                return false;
            }
            if (!WIFEXITED(status) || WEXITSTATUS(status) != kProcessDone) {
                LogLine("the process of job " + std::to_string(child.first) + " died and starts again");
            }
            return true;
        });
    }

    std::map<long long, pid_t> m_children;
};

// False when asked to stop or left alone.
bool Pause(const sigset_t& stopSignals, pid_t supervisor) {
    const timespec pause{kRoundPause_s, 0};
    return getppid() == supervisor && sigtimedwait(&stopSignals, nullptr, &pause) < 0;
}

}  // namespace

int RunShareJobs() {
    const pid_t supervisor = getppid();
    const sigset_t stopSignals = StopSignals();
    sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGINT, SIG_IGN);
    prctl(PR_SET_NAME, "korvd-moves");
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    Log("forgetting the passwords of jobs that are over", ForgetLostJobPasswords);
    Log("a look for removed shares", [] {
        for (const std::string& volume : VolumesOfForgottenSpace(KORV::GetConfiguration().volumes)) {
            LogLine("data of removed shares stay on " + volume + ", which is not configured");
        }
    });
    Keeper keeper;
    do {
        keeper.Round();
    } while (Pause(stopSignals, supervisor));
    keeper.EndAll();
    return kProcessDone;
}

}  // namespace korv
