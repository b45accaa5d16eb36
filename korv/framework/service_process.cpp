#include "korv/framework/service_process.h"

#include <malloc.h>

#include <csignal>
#include <exception>
#include <string>

#include "korv/framework/api_registry.h"
#include "korv/framework/log.h"
#include "korv/framework/module_loader.h"
#include "korv/framework/service_user.h"
#include "korv/system/settings.h"

namespace korv {
namespace {

volatile std::sig_atomic_t g_stop = 0;

void RequestStop(int /*signal*/) { g_stop = 1; }

void HandleStopSignals() {
    struct sigaction action {};
    action.sa_handler = RequestStop;
    action.sa_flags = SA_RESTART;  // the current request goes on undisturbed
    sigaction(SIGTERM, &action, nullptr);
    // Ctrl-C reaches the whole group of processes; the supervisor decides what becomes of it.
    std::signal(SIGINT, SIG_IGN);
}

// A large answer is built from hundreds of thousands of small blocks, just after as many others were given
// back. Without the lists of recently freed blocks these are joined again and new ones lie side by side,
// which keeps the cost of a list in proportion to its length.
void KeepMemoryTogether() { mallopt(M_MXFAST, 0); }

}  // namespace

bool IsStopRequested() { return g_stop != 0; }

int RunServiceProcess(const std::function<void()>& work) {
    int status = kProcessFailed;
    try {
        HandleStopSignals();
        KeepMemoryTogether();
        LowerToServiceUser();
        LoadModules(GetSettings().node.modules, Registry());
        work();
        status = kProcessDone;
    } catch (const std::exception& error) {
        LogLine(std::string("a worker could not work: ") + error.what());
    }
    // A leak check at exit needs the rights that the process started with.
    RaiseToRoot();
    return status;
}

}  // namespace korv
