#include <cerrno>
#include <exception>
#include <string>

#include <sys/stat.h>

#include "platform/korv/configuration.h"
#include "platform/pavane/services.h"

#include "pavane/log_line.h"

// Whoever stops or updates the application makes the file <run folder>/pavane.stopped and removes it when the
// application may work again; a start of the machine begins with an empty run folder.
bool IsPVRunning() {
    try {
        const std::string mark = KORV::GetConfiguration().runDir + "/pavane.stopped";
        struct stat facts {};
        return lstat(mark.c_str(), &facts) != 0 && errno == ENOENT;
    } catch (const std::exception& failure) {
        PV_LOG_LINE("pavane/recorder/running", "Failed to read the configuration: %s\n", failure.what());
        return false;
    }
}
