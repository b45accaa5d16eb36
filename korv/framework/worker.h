#pragma once

#include "korv/framework/http_exchange.h"
#include "korv/framework/service_process.h"

namespace korv {

// What one worker process is to do.
struct WorkerPlan {
    Pool pool = Pool::kPublic;
    int listenFd = -1;     // non-blocking listening socket that all workers of the pool share
    int recycleAfter = 1;  // requests after which the worker ends, so that what leaks can't pile up
};

// The life of a worker process, called in the child right after the fork, as root with no signal blocked:
// lowers the effective ids to the service user's (saved uid 0 stays), loads the modules, and serves requests
// one at a time until SIGTERM, which lets the current request finish. Returns the exit status
// (korv/framework/service_process.h).
int RunWorker(const WorkerPlan& plan);

// What RunWorker does before it serves, without serving: finds out whether workers can start at all.
int CheckWorkerStart();

}  // namespace korv
