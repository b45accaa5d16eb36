#include "korv/framework/worker.h"

#include <fcgiapp.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <sys/prctl.h>

#include "korv/framework/service_process.h"

namespace korv {
namespace {

// Waits for a request. False when the worker is to end: it was asked to, or its supervisor is gone.
bool WaitForRequest(int listenFd, pid_t supervisor) {
    sigset_t stopSignal;
    sigset_t before;
    sigemptyset(&stopSignal);
    sigaddset(&stopSignal, SIGTERM);
    sigprocmask(SIG_BLOCK, &stopSignal, &before);
    // A change of ids clears the request for a signal at the parent's death, so it is made again each time.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    bool isReady = false;
    while (!IsStopRequested() && getppid() == supervisor && !isReady) {
        pollfd listening{listenFd, POLLIN, 0};
        // SIGTERM comes through only while waiting, so that none slips in between the test and the wait.
        isReady = ppoll(&listening, 1, nullptr, &before) > 0;
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return isReady;
}

std::string Parameter(const FCGX_Request& fcgi, const char* name) {
    const char* const value = FCGX_GetParam(name, fcgi.envp);
    return value != nullptr ? value : "";
}

// True when the whole body of `length` bytes arrived.
bool ReadBody(FCGX_Stream* stream, long length, std::string& body) {
    body.resize(static_cast<std::size_t>(length));
    return FCGX_GetStr(body.data(), static_cast<int>(length), stream) == length;
}

// Nothing when the body broke off: there is nobody left to answer then.
bool ReadRequest(const FCGX_Request& fcgi, HttpRequest& request) {
    request.target = Parameter(fcgi, "KORV_TARGET");
    request.method = Parameter(fcgi, "REQUEST_METHOD");
    request.contentType = Parameter(fcgi, "CONTENT_TYPE");
    request.cookies = Parameter(fcgi, "HTTP_COOKIE");
    request.csrf = Parameter(fcgi, "HTTP_X_KORV_CSRF");
    request.remoteIp = Parameter(fcgi, "REMOTE_ADDR");
    const std::string lengthText = Parameter(fcgi, "CONTENT_LENGTH");
    const long length = std::strtol(lengthText.c_str(), nullptr, 10);
    request.isTooLarge = length > BodyLimit(request.contentType);
    return length <= 0 || request.isTooLarge || ReadBody(fcgi.in, length, request.body);
}

void WriteAnswer(const FCGX_Request& fcgi, const HttpAnswer& answer) {
    std::string head = "Status: " + std::to_string(answer.status) + "\r\n";
    for (const auto& [name, value] : answer.headers) {
        head.append(name).append(": ").append(value).append("\r\n");
    }
    head += "\r\n";
    FCGX_PutStr(head.data(), static_cast<int>(head.size()), fcgi.out);
    FCGX_PutStr(answer.body.data(), static_cast<int>(answer.body.size()), fcgi.out);
}

void ServeRequests(const WorkerPlan& plan, pid_t supervisor) {
    FCGX_Init();
    FCGX_Request fcgi;
    FCGX_InitRequest(&fcgi, plan.listenFd, 0);
    int served = 0;
    while (served < plan.recycleAfter && WaitForRequest(plan.listenFd, supervisor)) {
        if (FCGX_Accept_r(&fcgi) != 0) {
            continue;  // another worker was quicker
        }
        HttpRequest request;
        if (ReadRequest(fcgi, request)) {
            WriteAnswer(fcgi, Serve(plan.pool, request));
        }
        FCGX_Finish_r(&fcgi);
        ++served;
    }
    FCGX_Free(&fcgi, 1);
}

}  // namespace

int RunWorker(const WorkerPlan& plan) {
    const pid_t supervisor = getppid();
    prctl(PR_SET_NAME, plan.pool == Pool::kPublic ? "korvd-public" : "korvd-peer");
    return RunServiceProcess([&] { ServeRequests(plan, supervisor); });
}

int CheckWorkerStart() {
    return RunServiceProcess([] {});
}

}  // namespace korv
