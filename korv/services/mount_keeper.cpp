#include "korv/services/mount_keeper.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <exception>
#include <string>

#include <sys/prctl.h>

#include "korv/framework/api_registry.h"
#include "korv/framework/host.h"
#include "korv/framework/log.h"
#include "korv/framework/module_loader.h"
#include "korv/framework/service_user.h"
#include "korv/framework/worker.h"
#include "korv/services/mount_list.h"
#include "korv/system/database.h"
#include "korv/system/mount_record.h"
#include "korv/system/remote_mounts.h"
#include "korv/system/settings.h"

namespace korv {

namespace {

constexpr long kRoundPause_s = 5;

void LogTroubles() {
    for (const std::string& trouble : RecoverMounts()) {
        LogLine(trouble);
    }
}

// Told anew each round, since a state may have come and gone between two of them, and so may the share that
// stands on the mount: observers act on what is news to them.
void TellStates() {
    for (const MountRow& row : ListMountRows()) {
        if (row.state == MountState::kKept) {
            AnnounceMountState(row.mountPoint, row.isNormal);
        }
    }
}

// Nobody looks after these, but a share may stand on one.
void TellForeignStates() {
    for (const auto& [mountPoint, isAlive] : LookAtForeignMounts()) {
        AnnounceMountState(mountPoint, isAlive);
    }
}

// A round that fails, since the database is locked or a disk is full, must not end the care for good.
void CareOnce() {
    try {
        LogTroubles();
        for (const MountChange& change : CareForMounts(std::time(nullptr), TellStates)) {
            LogLine("the mount at " + change.mountPoint + " " + change.text);
        }
        TellForeignStates();
    } catch (const std::exception& error) {
        LogLine(std::string("the care for mounts failed: ") + error.what());
    }
}

// False when asked to stop or left alone.
bool Pause(const sigset_t& stopSignals, pid_t supervisor) {
    const timespec pause{kRoundPause_s, 0};
    prctl(PR_SET_PDEATHSIG, SIGTERM);  // a change of ids has cleared it
    return getppid() == supervisor && sigtimedwait(&stopSignals, nullptr, &pause) < 0;
}

}  // namespace

int RunMountKeeper() {
    const pid_t supervisor = getppid();
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGINT, SIG_IGN);
    try {
        prctl(PR_SET_NAME, "korvd-mounts");
        LowerToServiceUser();
        LoadModules(GetSettings().node.modules, Registry());
        ForgetMountFailures();  // nobody knows how long this node was down
        TellStates();
        do {
            CareOnce();
        } while (Pause(stopSignals, supervisor));
        // A leak check at exit needs the rights that the process started with.
        RaiseToRoot();
        return kProcessDone;
    } catch (const std::exception& error) {
        LogLine(std::string("the care for mounts could not start: ") + error.what());
        return kProcessFailed;
    }
}

void RecoverMountsAtStart() {
    LogTroubles();
    CloseDatabase();
}

}  // namespace korv
