#pragma once

#include "platform/korv/host.h"

namespace korv {

// The life of a job process, called in the child right after the fork as RunWorker is: runs the jobs of this
// length that modules have registered with KORV::RegisterPeriodicJob, each at its interval, until SIGTERM or
// until its supervisor is gone; a job that runs then is finished first. Returns the exit status
// (korv/framework/service_process.h).
int RunJobs(KORV::JobLength length);

}  // namespace korv
