#pragma once

#include <string>

namespace CLI {
class App;
}

namespace cli {

// Where a password comes from; never from an argument, which everybody on the machine could read.
struct PasswordSource {
    std::string file;        // its first line, when not empty
    bool fromStdin = false;  // the first line of standard input

    // Adds --password-file and --password-stdin to `command`.
    void AddOptions(CLI::App& command);

    // The password; without an option it is asked for at the terminal with `prompt`, without echo.
    // Throws InputError when there is none to be had.
    [[nodiscard]] std::string Read(const std::string& prompt) const;
};

}  // namespace cli
