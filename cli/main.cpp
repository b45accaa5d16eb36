// `pavane`, the command line of a recorder. Talks HTTP only.
// Ends with 0; 1 when the server refused or could not be reached; 2 when the command can't be used so.

#include <cerrno>
#include <exception>
#include <iostream>
#include <system_error>

#include <CLI/CLI.hpp>

#include "cli/command.h"
#include "cli/input_error.h"
#include "cli/printable.h"

namespace {

constexpr int kRefused = 1;
constexpr int kUsage = 2;

// `status`, or that of a failure when not all output could be written, which standard error tells then. A
// stream that went bad before is written to once more: nobody kept the reason.
int Written(int status) {
    const bool wasGood = std::cout.good();
    errno = 0;
    if (!wasGood) {
        std::cout.clear();
        std::cout << '\n';
    }
    std::cout.flush();
    if (wasGood && std::cout) {
        return status;
    }
    const int reason = errno;
    std::cerr << "pavane: cannot write the output";
    if (reason != 0) {
        std::cerr << ": " << std::generic_category().message(reason);
    }
    std::cerr << '\n';
    return kRefused;
}

int Run(int argc, char** argv) {
    cli::Context context;
    CLI::App app("Manages the recording shares of a recorder.", "pavane");
    app.require_subcommand(1);
    app.fallthrough();  // the options below may also stand after the command
    app.add_option("--url", context.url, "The recorder's address")
        ->envname("PAVANE_URL")
        ->capture_default_str();
    app.add_option("--cacert", context.certificateFile, "Certificate to trust for https");
    app.add_flag("--json", context.json, "Print the server's data for programs");
    cli::AddSessionCommands(app, context);
    cli::AddShareCommands(app, context);
    cli::AddCandidatesCommand(app, context);
    cli::AddJobCommands(app, context);
    cli::AddApplicationCommands(app, context);
    cli::AddArchiveCommands(app, context);
    cli::AddCameraCommands(app, context);
    cli::AddEventCommands(app, context);
    cli::AddLogCommands(app, context);
    cli::AddMountCommands(app, context);
    cli::AddServerCommands(app, context);
    cli::AddServiceCommands(app, context);
    cli::AddSnapshotCommands(app, context);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return Written(app.exit(error) == 0 ? 0 : kUsage);
    }
    context.chosen();
    return Written(context.hasFailed ? kRefused : 0);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const cli::Refused& refused) {
        std::cerr << "pavane: " << cli::DescribeRefusal(refused) << '\n';
        return kRefused;
    } catch (const cli::Unreachable& unreachable) {
        std::cerr << "pavane: the server can't be reached: " << cli::MakePrintable(unreachable.what()).text
                  << '\n';
        return kRefused;
    } catch (const cli::InputError& error) {
        std::cerr << "pavane: " << cli::MakePrintable(error.what()).text << '\n';
        return kUsage;
    } catch (const std::exception& error) {
        std::cerr << "pavane: " << cli::MakePrintable(error.what()).text << '\n';
        return kRefused;
    }
}
