// `pavane share list`, `create` and `create-remote`.

#include <array>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/command.h"
#include "cli/input_error.h"
#include "cli/password.h"
#include "cli/remote_folder.h"
#include "cli/share_lookup.h"
#include "cli/whole_number.h"

namespace cli {

namespace {

constexpr const char* kApi = "KORV.Pavane.Share";
constexpr int kEncrypted = 2;
constexpr int kLocked = 1;
constexpr const char* kRepair = "`pavane server check --repair` makes up for that";

struct ListOptions {
    bool migrating = false;
    bool locked = false;
    bool abnormal = false;
    std::optional<int> server;
};

struct CreateOptions {
    std::string name;
    std::string volume;
    std::string description;
    bool adopt = false;
    bool visible = false;
    bool hidden = false;
    bool encrypt = false;
    std::optional<int> limitGB;
    int server = 0;
    PasswordSource password;
};

std::string FileSystemName(int type) {
    switch (type) {
        case 1:
            return "ext4";
        case 2:
            return "btrfs";
        case 3:
            return "xfs";
        case 10:
            return "nfs";
        case 11:
            return "cifs";
        case 99:
            return "other";
        default:
            return "unknown";
    }
}

std::string SizeText(double size) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f", size);
    return text.data();
}

// What is special about a share, in words.
std::string StateOf(const Json::Value& share) {
    std::string state;
    const auto add = [&state](bool isSo, const char* word) {
        if (isSo) {
            state += (state.empty() ? "" : ", ") + std::string(word);
        }
    };
    add(share["blHidden"].asBool(), "hidden");
    add(share["blMigrating"].asBool(), "migrating");
    add(share["encType"].asInt() == kLocked, "locked");
    add(share["encType"].asInt() == kEncrypted, "encrypted");
    add(share["mountStatus"].asInt() != 0, "mount failed");
    return state;
}

void List(const Context& context, const ListOptions& options) {
    Json::Value parameters(Json::objectValue);
    parameters["blIncldMigrating"] = options.migrating;
    parameters["blIncldEncUnmount"] = options.locked;
    parameters["blIncldRemoteAbnormal"] = options.abnormal;
    parameters["rvId"] = options.server.value_or(0);
    Json::Value data = context.MakeClient().Call(kApi, "ListRecShare", parameters);
    if (options.server.has_value()) {
        KeepServer(data, "sharelist", "shareRvId", *options.server);
        data["total"] = data["sharelist"].size();
    }
    if (context.json) {
        PrintJson(data);
        return;
    }
    Table table({{"ID", Align::kRight},
                 {"NAME"},
                 {"PATH"},
                 {"SERVER", Align::kRight},
                 {"FILES"},
                 {"SIZE GB", Align::kRight},
                 {"LIMIT GB", Align::kRight},
                 {"CAMERAS", Align::kRight},
                 {"STATE"},
                 {"DESCRIPTION"}});
    for (const Json::Value& share : data["sharelist"]) {
        table.Add({Cell(share, "shareId"), Cell(share, "shareName"), Cell(share, "sharePath"),
                   Cell(share, "shareRvId"), FileSystemName(share["volumeFormat"].asInt()),
                   SizeText(share["quota"].asDouble()),
                   share["enableRecLimit"].asBool() ? Cell(share, "recLimitGB") : "-", Cell(share, "camCnt"),
                   StateOf(share), Cell(share, "description")});
    }
    PrintTable(table);
}

// The server succeeds also when the record could not be kept, and then gives no id.
void ShowCreated(const Context& context, const Json::Value& data, const std::string& path,
                 const std::string& achieved, const std::string& remedy) {
    if (context.json) {
        PrintJson(data);
    }
    if (data["id"].asInt() == 0) {
        throw std::runtime_error(achieved + ", but the server could not record it as a recording share; " +
                                 remedy);
    }
    if (!context.json) {
        PrintLine("recording share " + Cell(data, "id") + ": " + path);
    }
}

void Create(const Context& context, const CreateOptions& options) {
    Json::Value parameters(Json::objectValue);
    parameters["shareName"] = options.name;
    parameters["volume"] = options.volume;
    parameters["description"] = options.description;
    parameters["blAddExistShare"] = options.adopt;
    parameters["blHideShare"] = !options.visible;
    parameters["rvId"] = options.server;
    parameters["blRecLimit"] = options.limitGB.has_value();
    if (options.limitGB.has_value()) {
        parameters["recLimitGB"] = *options.limitGB;
    }
    if (options.encrypt) {
        parameters["blEncryption"] = true;
        parameters["encPasswd"] = options.password.Read("Password of the encrypted share: ");
    }
    const Json::Value data = context.MakeClient().Call(kApi, "CreateRecShare", parameters);
    const std::string path = options.volume + "/" + options.name;
    ShowCreated(context, data, path, "the folder " + path + " was made",
                options.server == 0 ? "repeat the command with --adopt" : kRepair);
}

// "mountPath" is what the mount service reads, "mountPoint" what becomes the share.
void CreateRemote(const Context& context, const RemoteFolder& folder, bool isMounted, int server) {
    constexpr int kNfs = 1;
    constexpr int kCifs = 2;
    const std::string unused = isMounted ? folder.OptionsOfMounting() : "";
    if (!unused.empty()) {
        throw InputError("with --mounted nothing is mounted, so " + unused +
                         " can't be given; `pavane mount add` takes it when the folder is mounted");
    }
    Json::Value parameters(Json::objectValue);
    parameters["mountType"] = folder.IsNfs() ? kNfs : kCifs;
    parameters["mountSource"] = folder.source;
    parameters["mountPoint"] = folder.mountPoint;
    parameters["mountPath"] = folder.mountPoint;
    parameters["blAutoMount"] = folder.isAutomatic;
    parameters["auto_mount"] = folder.isAutomatic;
    parameters["blNeedMount"] = !isMounted;
    parameters["adv_opt"] = folder.options;
    parameters["nfs_version"] = folder.nfsVersion;
    parameters["protocol"] = folder.protocol;
    parameters["rvId"] = server;
    if (!isMounted && !folder.IsNfs()) {
        parameters["account"] = folder.account;
        parameters["passwd"] = folder.ReadPassword();
    }
    const Json::Value data = context.MakeClient().Call(kApi, "CreateRemoteRecShare", parameters);
    ShowCreated(context, data, folder.mountPoint, folder.source + " is mounted at " + folder.mountPoint,
                server == 0 ? "repeat the command with --mounted, without the options of mounting" : kRepair);
}

void AddCreateRemote(CLI::App& share, Context& context) {
    struct Options {
        RemoteFolder folder;
        bool isMounted = false;
        int server = 0;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* const create =
        share.add_subcommand("create-remote", "Make a folder of another machine a recording share");
    options->folder.AddOptions(*create);
    create->add_flag("--mounted", options->isMounted,
                     "It is mounted there already; the options of mounting can't be given then");
    create->add_option("--server", options->server, "Id of the recording server that is to own it, on a host")
        ->transform(Id());
    create->callback([&context, options] {
        context.chosen = [&context, options] {
            CreateRemote(context, options->folder, options->isMounted, options->server);
        };
    });
}

void AddList(CLI::App& share, Context& context) {
    const auto options = std::make_shared<ListOptions>();
    CLI::App* const list = share.add_subcommand("list", "List the recording shares");
    list->add_flag("--migrating", options->migrating, "Also shares whose recordings are being moved");
    list->add_flag("--locked", options->locked, "Also encrypted shares that are not unlocked");
    list->add_flag("--abnormal", options->abnormal, "Also remote shares whose mount failed");
    list->add_option("--server", options->server, "Only those of this recording server; 0 is this server")
        ->transform(Id());
    list->callback(
        [&context, options] { context.chosen = [&context, options] { List(context, *options); }; });
}

void AddCreate(CLI::App& share, Context& context) {
    constexpr int kMostGB = 1 << 30;
    const auto options = std::make_shared<CreateOptions>();
    CLI::App* const create = share.add_subcommand("create", "Make a folder of a volume a recording share");
    create->add_option("name", options->name, "Name of the folder")->required();
    create->add_option("--volume", options->volume, "Path of the volume, e.g. /volume1")->required();
    create->add_option("--description", options->description, "What the share is for");
    create->add_flag("--adopt", options->adopt, "Use a folder that exists");
    CLI::Option* const visible =
        create->add_flag("--visible", options->visible, "Show it when the network is browsed");
    create->add_flag("--hidden", options->hidden, "Do not show it (the default)")->excludes(visible);
    create->add_option("--limit-gb", options->limitGB, "Delete the oldest recordings beyond this size")
        ->transform(WholeNumber(1, kMostGB));
    create->add_option("--server", options->server, "Id of the recording server that is to own it, on a host")
        ->transform(Id());
    create->add_flag("--encrypt", options->encrypt, "Encrypt it with a password");
    options->password.AddOptions(*create);
    create->callback(
        [&context, options] { context.chosen = [&context, options] { Create(context, *options); }; });
}

}  // namespace

void AddShareCommands(CLI::App& app, Context& context) {
    CLI::App* const share = app.add_subcommand("share", "Recording shares");
    share->require_subcommand(1);
    AddList(*share, context);
    AddCreate(*share, context);
    AddCreateRemote(*share, context);
    AddShareUseCommands(*share, context);
    AddShareChangeCommands(*share, context);
    AddShareKeyCommands(*share, context);
}

}  // namespace cli
