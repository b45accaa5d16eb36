#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include <sys/stat.h>

#include "korv/framework/log.h"
#include "korv/system/settings.h"
#include "korvd/error_reference.h"
#include "korvd/peer_certificate.h"
#include "korvd/pid_file.h"
#include "korvd/run_folders.h"
#include "korvd/supervisor.h"

namespace {

constexpr int kUsageError = 2;
constexpr mode_t kUmask = 022;

int RunDaemon() {
    if (geteuid() != 0) {
        throw std::runtime_error("korvd must be started as root");
    }
    umask(kUmask);
    const korv::Settings& settings = korv::GetSettings();
    MakeRunFolder(settings);
    const PidFile pidFile(settings.node.runDir + "/korvd.pid");
    PrepareFolders(settings);
    korv::OpenLog(settings.node.logDir + "/korvd.log");
    try {
        MakePeerCertificate(settings.peerTls);
        Supervisor supervisor(settings);
        return supervisor.Run();
    } catch (const std::exception& error) {
        korv::LogLine(error.what());
        throw;
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        if (argc == 1) {
            const int status = RunDaemon();
            if (status != EXIT_SUCCESS) {
                std::cerr << "korvd: the start failed, see korvd.log in the log folder\n";
            }
            return status;
        }
        if (argc == 2 && std::string(argv[1]) == "--print-errors") {
            std::cout << ErrorReferencePage();
            return EXIT_SUCCESS;
        }
        std::cerr << "usage: korvd                 run with the configuration that KORV_CONFIG names\n"
                     "       korvd --print-errors  print the reference page of error codes\n";
        return kUsageError;
    } catch (const std::exception& error) {
        std::cerr << "korvd: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
