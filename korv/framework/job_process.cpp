#include "korv/framework/job_process.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <ctime>
#include <exception>
#include <map>
#include <string>

#include <soci/soci.h>
#include <sys/prctl.h>

#include "korv/framework/host.h"
#include "korv/framework/log.h"
#include "korv/framework/service_process.h"

namespace korv {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kIdleWait(3600);

void RunOnce(const std::string& name, const PeriodicJob& job) {
    try {
        job.run();
    } catch (const soci::soci_error& error) {
        // what() would hold bound values, which may be secrets.
        LogLine("job " + name + " failed: database: " + error.get_error_message());
    } catch (const std::exception& error) {
        LogLine("job " + name + " failed: " + error.what());
    }
}

// Waits until `due` or a signal.
void Wait(Clock::time_point due) {
    sigset_t stopSignal;
    sigset_t before;
    sigemptyset(&stopSignal);
    sigaddset(&stopSignal, SIGTERM);
    sigprocmask(SIG_BLOCK, &stopSignal, &before);
    // A change of ids clears the request for a signal at the parent's death, so it is made again each time.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (!IsStopRequested()) {
        const auto left = std::max(due - Clock::now(), Clock::duration::zero());
        const auto left_s = std::chrono::duration_cast<std::chrono::seconds>(left);
        const timespec timeout{left_s.count(), std::chrono::nanoseconds(left - left_s).count()};
        // SIGTERM comes through only while waiting, so that none slips in between the test and the wait.
        pselect(0, nullptr, nullptr, nullptr, &timeout, &before);
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

void RunDueJobs(pid_t supervisor, KORV::JobLength length) {
    std::map<std::string, Clock::time_point> due;
    while (!IsStopRequested() && getppid() == supervisor) {
        Clock::time_point next = Clock::now() + kIdleWait;
        for (const auto& [name, job] : PeriodicJobs()) {
            if (job.length != length) {
                continue;
            }
            Clock::time_point& time = due[name];
            if (!IsStopRequested() && time <= Clock::now()) {
                RunOnce(name, job);
                time = Clock::now() + std::chrono::seconds(job.interval_s);
            }
            next = std::min(next, time);
        }
        Wait(next);
    }
}

}  // namespace

int RunJobs(KORV::JobLength length) {
    const pid_t supervisor = getppid();
    prctl(PR_SET_NAME, length == KORV::JobLength::kLong ? "korvd-longjobs" : "korvd-jobs");
    return RunServiceProcess([supervisor, length] { RunDueJobs(supervisor, length); });
}

}  // namespace korv
