#pragma once

namespace korv {

// The life of the job process, called in the child right after the fork as RunWorker is: runs what modules
// have registered with KORV::RegisterPeriodicJob, each at its interval, until SIGTERM or until its supervisor
// is gone; a job that runs then is finished first. Returns the exit status
// (korv/framework/service_process.h).
int RunJobs();

}  // namespace korv
