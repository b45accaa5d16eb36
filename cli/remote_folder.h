#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include "cli/password.h"

namespace cli {

// A remote folder and how it is to be mounted, as the command line gives it.
struct RemoteFolder {
    std::string source;
    std::string mountPoint;
    std::string type;  // "cifs", "nfs"; empty = by the form of the source
    std::string account;
    std::string nfsVersion;
    std::string protocol;
    std::string options;
    bool isAutomatic = false;
    PasswordSource password;

    // Adds the positional source and mount point and the options to `command`.
    void AddOptions(CLI::App& command);

    [[nodiscard]] bool IsNfs() const;

    // The options that only say how to mount, as far as they are given: "--auto, --account"; else empty.
    [[nodiscard]] std::string OptionsOfMounting() const;

    // The account's password; empty without an account. Throws InputError.
    [[nodiscard]] std::string ReadPassword() const;
};

}  // namespace cli
