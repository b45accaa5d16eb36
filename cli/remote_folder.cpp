#include "cli/remote_folder.h"

#include "include/trailing_slashes.h"

namespace cli {

void RemoteFolder::AddOptions(CLI::App& command) {
    command.add_option("source", source, "//host/folder (CIFS) or host:/folder (NFS)")->required();
    command.add_option("mount-point", mountPoint, "Folder below a shared folder, e.g. /volume1/rec/nas")
        ->transform(WithoutTrailingSlashes)
        ->required();
    command.add_option("--type", type, "cifs or nfs; without it the form of the source tells")
        ->check(CLI::IsMember({"cifs", "nfs"}));
    command.add_option("--account", account, "Account on the CIFS server; without it as a guest");
    command.add_option("--nfs-version", nfsVersion, "3, 4, 4.0, 4.1 or 4.2");
    command.add_option("--protocol", protocol, "tcp or udp (NFS)");
    command.add_option("--options", options, "More mount options, separated by commas");
    command.add_flag("--auto", isAutomatic, "Mount it again by itself after a restart or a failure");
    password.AddOptions(command);
}

bool RemoteFolder::IsNfs() const {
    return type.empty() ? source.rfind("//", 0) != 0 && source.rfind("\\\\", 0) != 0 : type == "nfs";
}

std::string RemoteFolder::OptionsOfMounting() const {
    std::string names;
    const auto add = [&names](bool isGiven, const char* name) {
        if (isGiven) {
            names += (names.empty() ? "" : ", ") + std::string(name);
        }
    };
    add(isAutomatic, "--auto");
    add(!account.empty(), "--account");
    add(!options.empty(), "--options");
    add(!nfsVersion.empty(), "--nfs-version");
    add(!protocol.empty(), "--protocol");
    add(!password.file.empty(), "--password-file");
    add(password.fromStdin, "--password-stdin");
    return names;
}

std::string RemoteFolder::ReadPassword() const {
    return account.empty() ? "" : password.Read("Password of " + account + " on the server: ");
}

}  // namespace cli
