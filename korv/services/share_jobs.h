#pragma once

namespace korv {

// The life of the process that looks after long work on shares, called in the child right after the fork as
// RunWorker is: runs each job that moves a share's data, and the freeing of removed shares' space, in a child
// process of its own, some at a time, until SIGTERM or until its supervisor is gone; the children then save
// where they are and end. Stays root. Returns the exit status (korv/framework/service_process.h).
int RunShareJobs();

}  // namespace korv
