// `pavane mount add`, `list`, `remove` and `reconnect`.

#include <memory>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/command.h"
#include "cli/input_error.h"
#include "cli/remote_folder.h"
#include "cli/share_lookup.h"
#include "include/trailing_slashes.h"

namespace cli {

namespace {

constexpr const char* kMountApi = "KORV.Tarsel.Mount";
constexpr const char* kListApi = "KORV.Tarsel.Mount.List";
constexpr const char* kShareApi = "KORV.Pavane.Share";
constexpr int kNoSuchApi = 102;
constexpr int kNotPermitted = 105;

void Add(const Context& context, const RemoteFolder& folder) {
    Json::Value parameters(Json::objectValue);
    parameters["mount_type"] = folder.IsNfs() ? "NFS" : "CIFS";
    parameters["server_ip"] = folder.source;
    parameters["mount_point"] = folder.mountPoint;
    parameters["auto_mount"] = folder.isAutomatic;
    parameters["adv_opt"] = folder.options;
    if (folder.IsNfs()) {
        parameters["nfs_version"] = folder.nfsVersion;
        parameters["protocol"] = folder.protocol;
    } else {
        parameters["account"] = folder.account;
        parameters["passwd"] = folder.ReadPassword();
    }
    context.MakeClient().Call(kMountApi, "mount_remote", parameters);
    if (!context.json) {
        PrintLine(folder.source + " is mounted at " + folder.mountPoint);
    }
}

std::string StateOf(const Json::Value& mount) {
    if (!mount["mounted"].asBool()) {
        return "not mounted";
    }
    return mount["status"].asInt() == 0 ? "normal" : "does not answer";
}

void List(const Context& context) {
    const Json::Value data = context.MakeClient().Call(kListApi, "list");
    if (context.json) {
        PrintJson(data);
        return;
    }
    Table table({{"MOUNT POINT"}, {"SOURCE"}, {"TYPE"}, {"AUTO"}, {"STATE"}, {"ERROR", Align::kRight}});
    for (const Json::Value& mount : data["mounts"]) {
        table.Add({Cell(mount, "mount_point"), Cell(mount, "source"), Cell(mount, "type"),
                   Cell(mount, "auto_mount"), StateOf(mount),
                   mount["last_error"].asInt() == 0 ? "" : Cell(mount, "last_error")});
    }
    PrintTable(table);
}

// `mountPoint` may leave out the volume.
bool StandsOn(const Json::Value& share, const std::string& mountPoint) {
    const std::string path = Cell(share, "sharePath");
    return share["shareRvId"].asInt() == 0 &&
           (path == mountPoint || (path.size() > mountPoint.size() && path.ends_with(mountPoint)));
}

// Without its mount the folder is ordinary local disk, that anybody may write into. The mount service knows
// no recording shares, so the recorder is asked for its own. Throws InputError.
void RefuseBelowRecordingShare(Client& client, const std::string& mountPoint) {
    try {
        const Json::Value data = ListAllShares(client, 0);
        for (const Json::Value& share : data["sharelist"]) {
            if (StandsOn(share, mountPoint)) {
                throw InputError("recording share " + Cell(share, "shareId") + " stands on " + mountPoint +
                                 ", and without its mount the folder is ordinary local disk; take the share "
                                 "away first, by `pavane share delete " +
                                 Cell(share, "shareId") + " --keep-folder`, or give --force");
            }
        }
    } catch (const Refused& refused) {
        if (refused.code == kNotPermitted) {
            throw InputError("this account may not see whether a recording share stands on " + mountPoint +
                             "; have somebody remove it who may, or give --force");
        }
        if (refused.code != kNoSuchApi) {  // without the recorder there are no recording shares
            throw;
        }
    }
}

void Remove(const Context& context, const std::string& mountPoint, bool isForced) {
    Client client = context.MakeClient();
    if (!isForced) {
        RefuseBelowRecordingShare(client, mountPoint);
    }
    Json::Value parameters(Json::objectValue);
    parameters["mount_type"] = "remote";
    parameters["is_mount_point"] = true;
    parameters["mount_point"] = mountPoint;
    client.Call(kMountApi, "unmount", parameters);
    if (!context.json) {
        PrintLine(mountPoint + " is no longer mounted");
    }
}

// Asks for a recording share first, whose record then says so at once; other mounts are the mount service's.
void Reconnect(const Context& context, const std::string& mountPoint) {
    constexpr int kNoSuchShare = 401;
    Client client = context.MakeClient();
    Json::Value parameters(Json::objectValue);
    parameters["mount_point"] = mountPoint;
    try {
        client.Call(kShareApi, "ReconnetRemoteMount", parameters);
    } catch (const Refused& refused) {
        if (refused.code != kNoSuchShare && refused.code != kNotPermitted) {
            throw;
        }
        parameters["mount_point"] = Json::Value(Json::arrayValue);
        parameters["mount_point"].append(mountPoint);
        client.Call(kListApi, "reconnect", parameters);
    }
    if (!context.json) {
        PrintLine(mountPoint + " is mounted");
    }
}

void AddMountPoint(CLI::App& command, std::string& mountPoint) {
    command.add_option("mount-point", mountPoint, "Folder on which it is mounted")
        ->transform(WithoutTrailingSlashes)
        ->required();
}

void AddRemove(CLI::App& mount, Context& context) {
    struct Options {
        std::string mountPoint;
        bool isForced = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* const remove = mount.add_subcommand("remove", "Unmount a remote folder and forget it");
    AddMountPoint(*remove, options->mountPoint);
    remove->add_flag("--force", options->isForced,
                     "Also below a recording share, whose folder is ordinary local disk then");
    remove->callback([&context, options] {
        context.chosen = [&context, options] { Remove(context, options->mountPoint, options->isForced); };
    });
}

void AddReconnect(CLI::App& mount, Context& context) {
    const auto mountPoint = std::make_shared<std::string>();
    CLI::App* const reconnect =
        mount.add_subcommand("reconnect", "Mount a remote folder again that is known");
    AddMountPoint(*reconnect, *mountPoint);
    reconnect->callback([&context, mountPoint] {
        context.chosen = [&context, mountPoint] { Reconnect(context, *mountPoint); };
    });
}

}  // namespace

void AddMountCommands(CLI::App& app, Context& context) {
    CLI::App* const mount = app.add_subcommand("mount", "Remote folders mounted inside shared folders");
    mount->require_subcommand(1);
    const auto folder = std::make_shared<RemoteFolder>();
    CLI::App* const add = mount->add_subcommand("add", "Mount a remote folder");
    folder->AddOptions(*add);
    add->callback([&context, folder] { context.chosen = [&context, folder] { Add(context, *folder); }; });
    mount->add_subcommand("list", "List the mounts")->callback([&context] {
        context.chosen = [&context] { List(context); };
    });
    AddRemove(*mount, context);
    AddReconnect(*mount, context);
}

}  // namespace cli
