#include "korvd/supervisor.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include <sys/wait.h>

#include "korv/framework/job_process.h"
#include "korv/framework/log.h"
#include "korv/framework/service_user.h"
#include "korv/framework/upload_files.h"
#include "korv/framework/worker.h"
#include "korv/services/mount_keeper.h"
#include "korv/services/share_jobs.h"
#include "korv/services/share_recovery.h"
#include "korvd/listening_socket.h"
#include "korvd/nginx_process.h"
#include "korvd/run_folders.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds kGoodLife(10);          // a child that lived so long is replaced without delay
constexpr milliseconds kFirstDelay(100);  // doubled by every early death
constexpr milliseconds kLongestDelay(2000);
constexpr seconds kNginxStart(10);
constexpr seconds kWorkersEnd(60);  // for the requests that they hold
constexpr seconds kNginxEnd(5);
constexpr milliseconds kPollPause(20);
constexpr seconds kIdleWait(3600);

std::string DeathText(int status) {
    if (WIFSIGNALED(status)) {
        return "was killed by signal " + std::to_string(WTERMSIG(status));
    }
    return "ended with status " + std::to_string(WEXITSTATUS(status));
}

int RecoverShares() {
    korv::RecoverShares();
    korv::RecoverMountsAtStart();
    return EXIT_SUCCESS;
}

// A worker that died may have left a share half made, whose name nobody can use until it is put in order, and
// a key that somebody sent it. Its successor does that, still as root, before it serves; when it can't, the
// others' creations try again.
void RecoverAfterDeath() {
    try {
        korv::RemoveLeftUploads();
        korv::RecoverShares();
    } catch (const std::exception& error) {
        korv::LogLine(std::string("the recovery of shares failed: ") + error.what());
    }
}

}  // namespace

Supervisor::Supervisor(const korv::Settings& settings) : m_settings(settings) {
    sigemptyset(&m_signals);
    for (const int signal : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&m_signals, signal);
    }
    sigprocmask(SIG_BLOCK, &m_signals, nullptr);
}

int Supervisor::Run() {
    const bool isStarted = StartAll();
    while (isStarted && !m_isStopping) {
        StartDue();
        Clock::time_point next = Clock::now() + kIdleWait;
        for (const Child& child : m_children) {
            next = child.pid == 0 ? std::min(next, child.due) : next;
        }
        const int signal = WaitForSignal(next);
        m_isStopping = signal == SIGTERM || signal == SIGINT;
        Reap();
    }
    StopAll();
    return isStarted ? EXIT_SUCCESS : EXIT_FAILURE;
}

bool Supervisor::StartAll() {
    // Before anyone can ask for shares: what an earlier end left half done. As root, as nobody lowered it.
    if (!RunToEnd("the recovery of shares", RecoverShares) ||
        !RunToEnd("the check of the modules", korv::CheckWorkerStart)) {
        return false;
    }
    const korv::UserIds nginx = korv::IdsOf(m_settings.nginx.user);
    m_publicSocket = ListenOn(m_settings.node.runDir + "/public.sock", nginx);
    m_peerSocket = ListenOn(m_settings.node.runDir + "/peer.sock", nginx);
    m_children.push_back({Role::kNginx});
    if (!StartNginx(m_children.front())) {
        korv::LogLine("nginx did not start, see nginx-error.log");
        return false;
    }
    m_children.insert(m_children.end(), static_cast<std::size_t>(m_settings.workers.publicCount),
                      {Role::kPublicWorker});
    m_children.insert(m_children.end(), static_cast<std::size_t>(m_settings.workers.peerCount),
                      {Role::kPeerWorker});
    m_children.push_back({Role::kMountKeeper});
    m_children.push_back({Role::kJobs});
    m_children.push_back({Role::kLongJobs});
    m_children.push_back({Role::kShareJobs});
    korv::LogLine("korvd serves on " + m_settings.listen);
    return true;
}

// Waits until nginx listens, so that its notification socket is nobody else's before anyone can reach it.
bool Supervisor::StartNginx(Child& child) {
    WriteNginxConfiguration(m_settings);
    EndOldNginx(m_settings);
    CloseRunFolder(m_settings);
    child.started = Clock::now();
    child.pid = Fork([this] {
        ExecNginx(m_settings);
        return EXIT_FAILURE;
    });
    while (Clock::now() < child.started + kNginxStart) {
        int status = 0;
        if (waitpid(child.pid, &status, WNOHANG) == child.pid) {
            NoteDeath(child, status);
            return false;
        }
        if (TakeNotifySocket(m_settings)) {
            OpenRunFolder(m_settings);
            return true;
        }
        std::this_thread::sleep_for(kPollPause);
    }
    return false;
}

void Supervisor::RestartNginx(Child& child) {
    child.due = Clock::now() + kLongestDelay;  // unless its death is noted
    try {
        if (!StartNginx(child) && child.pid != 0) {
            kill(child.pid, SIGKILL);  // it hangs; its death is noted as any other
        }
    } catch (const std::exception& error) {
        korv::LogLine(std::string("nginx could not be restarted: ") + error.what());
    }
}

void Supervisor::StartWorker(Child& child) {
    const bool isPublic = child.role == Role::kPublicWorker;
    const int listenFd = (isPublic ? m_publicSocket : m_peerSocket).Get();
    const int otherFd = (isPublic ? m_peerSocket : m_publicSocket).Get();
    const bool isSuccessorOfTheDead = std::exchange(child.isOfTheDead, false);
    child.started = Clock::now();
    child.pid = Fork([this, isPublic, listenFd, otherFd, isSuccessorOfTheDead] {
        close(otherFd);
        if (isSuccessorOfTheDead) {
            RecoverAfterDeath();
        }
        return korv::RunWorker(
            {isPublic ? korv::Pool::kPublic : korv::Pool::kPeer, listenFd, m_settings.workers.recycleAfter});
    });
}

void Supervisor::StartMountKeeper(Child& child) {
    child.started = Clock::now();
    child.pid = Fork([this] {
        close(m_publicSocket.Get());
        close(m_peerSocket.Get());
        return korv::RunMountKeeper();
    });
}

void Supervisor::StartShareJobs(Child& child) {
    child.started = Clock::now();
    child.pid = Fork([this] {
        close(m_publicSocket.Get());
        close(m_peerSocket.Get());
        return korv::RunShareJobs();
    });
}

void Supervisor::StartJobs(Child& child) {
    const bool isSuccessorOfTheDead = std::exchange(child.isOfTheDead, false);
    const auto length = child.role == Role::kLongJobs ? KORV::JobLength::kLong : KORV::JobLength::kShort;
    child.started = Clock::now();
    child.pid = Fork([this, isSuccessorOfTheDead, length] {
        close(m_publicSocket.Get());
        close(m_peerSocket.Get());
        if (isSuccessorOfTheDead) {
            RecoverAfterDeath();
        }
        return korv::RunJobs(length);
    });
}

// A machine short of processes must not end the whole node.
void Supervisor::Restart(Child& child) {
    const bool isOfTheDead = child.isOfTheDead;
    try {
        switch (child.role) {
            case Role::kNginx:
                RestartNginx(child);
                break;
            case Role::kMountKeeper:
                StartMountKeeper(child);
                break;
            case Role::kJobs:
            case Role::kLongJobs:
                StartJobs(child);
                break;
            case Role::kShareJobs:
                StartShareJobs(child);
                break;
            case Role::kPublicWorker:
            case Role::kPeerWorker:
                StartWorker(child);
                break;
        }
    } catch (const std::system_error& error) {
        korv::LogLine(std::string("a process could not be started: ") + error.what());
        child.isOfTheDead = isOfTheDead;
        child.due = Clock::now() + kLongestDelay;
    }
}

void Supervisor::StartDue() {
    for (Child& child : m_children) {
        if (child.pid == 0 && child.due <= Clock::now()) {
            Restart(child);
        }
    }
}

void Supervisor::Reap() {
    int status = 0;
    for (pid_t pid = waitpid(-1, &status, WNOHANG); pid > 0; pid = waitpid(-1, &status, WNOHANG)) {
        const auto child = std::find_if(m_children.begin(), m_children.end(),
                                        [pid](const Child& each) { return each.pid == pid; });
        if (child != m_children.end()) {
            NoteDeath(*child, status);
        }
    }
}

void Supervisor::NoteDeath(Child& child, int status) {
    const pid_t pid = child.pid;
    const bool isExpected = WIFEXITED(status) && WEXITSTATUS(status) == korv::kProcessDone;
    const bool isOld = Clock::now() - child.started >= kGoodLife;
    child.pid = 0;
    child.isOfTheDead = !isExpected;
    child.delay =
        isExpected || isOld ? milliseconds(0) : std::clamp(child.delay * 2, kFirstDelay, kLongestDelay);
    if (child.role == Role::kNginx) {
        kill(-pid, SIGKILL);  // workers of a dead nginx would keep the address
        child.delay = std::max(child.delay, kFirstDelay);
    }
    child.due = Clock::now() + child.delay;
    if (!m_isStopping && (!isExpected || child.role == Role::kNginx)) {
        korv::LogLine(NameOf(child.role) + " " + std::to_string(pid) + " " + DeathText(status));
    }
}

// Workers first: nginx passes on what they still answer.
void Supervisor::StopAll() {
    m_isStopping = true;
    korv::LogLine("korvd ends");
    constexpr std::array kForked{Role::kPublicWorker, Role::kPeerWorker, Role::kMountKeeper,
                                 Role::kJobs,         Role::kLongJobs,   Role::kShareJobs};
    for (const Role role : kForked) {
        Signal(role, SIGTERM);
    }
    if (!WaitForEnd(Role::kPublicWorker, Role::kShareJobs, kWorkersEnd)) {
        for (const Role role : kForked) {
            Signal(role, SIGKILL);
        }
        WaitForEnd(Role::kPublicWorker, Role::kShareJobs, kNginxEnd);
    }
    Signal(Role::kNginx, SIGTERM);
    if (!WaitForEnd(Role::kNginx, Role::kNginx, kNginxEnd)) {
        Signal(Role::kNginx, SIGKILL);
        WaitForEnd(Role::kNginx, Role::kNginx, kNginxEnd);
    }
}

// False when some of them are left after `patience`, or when a second signal asks for haste.
bool Supervisor::WaitForEnd(Role lowest, Role highest, seconds patience) {
    const auto isLeft = [&](const Child& child) {
        return child.pid != 0 && child.role >= lowest && child.role <= highest;
    };
    const Clock::time_point deadline = Clock::now() + patience;
    Reap();
    while (std::any_of(m_children.begin(), m_children.end(), isLeft)) {
        const int signal = WaitForSignal(deadline);
        if (signal != SIGCHLD) {
            return false;
        }
        Reap();
    }
    return true;
}

void Supervisor::Signal(Role role, int signal) {
    for (const Child& child : m_children) {
        if (child.role == role && child.pid != 0) {
            kill(child.pid, signal);
        }
    }
}

// The signal that arrived, or 0 when none did until then. SIGHUP means nothing here.
int Supervisor::WaitForSignal(Clock::time_point until) {
    while (true) {
        const auto left = std::max(until - Clock::now(), Clock::duration::zero());
        const auto left_s = std::chrono::duration_cast<seconds>(left);
        const timespec timeout{left_s.count(), std::chrono::nanoseconds(left - left_s).count()};
        const int signal = sigtimedwait(&m_signals, nullptr, &timeout);
        if (signal > 0 && signal != SIGHUP) {
            return signal;
        }
        if (signal < 0 && errno == EAGAIN) {
            return 0;
        }
    }
}

pid_t Supervisor::Fork(const std::function<int()>& work) {
    const pid_t pid = fork();
    if (pid < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot start a process");
    }
    if (pid == 0) {
        sigprocmask(SIG_UNBLOCK, &m_signals, nullptr);
        int status = EXIT_FAILURE;
        try {
            status = work();
        } catch (const std::exception& error) {
            korv::LogLine(error.what());
        }
        // Also runs what the libraries do at exit, such as closing their databases.
        std::exit(status);
    }
    return pid;
}

std::string Supervisor::NameOf(Role role) {
    switch (role) {
        case Role::kNginx:
            return "nginx";
        case Role::kJobs:
        case Role::kLongJobs:
            return "job process";
        case Role::kShareJobs:
            return "share job process";
        case Role::kMountKeeper:
            return "mount keeper";
        case Role::kPublicWorker:
        case Role::kPeerWorker:
            break;
    }
    return "worker";
}

bool Supervisor::RunToEnd(const char* what, const std::function<int()>& work) {
    const pid_t pid = Fork(work);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS) {
        return true;
    }
    korv::LogLine(std::string(what) + " " + DeathText(status));
    return false;
}
