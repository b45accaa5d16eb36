// `pavane share edit`, `limit`, `delete` and `migrating`.

#include <unistd.h>

#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli/command.h"
#include "cli/input_error.h"
#include "cli/job_progress.h"
#include "cli/password.h"
#include "cli/share_lookup.h"

namespace cli {

namespace {

constexpr const char* kApi = "KORV.Pavane.Share";
constexpr const char* kNasApi = "KORV.Core.Share";

struct MigratingOptions {
    int share = 0;
    std::optional<int> server;
};

// What is to change; the rest stays.
struct EditOptions {
    int share = 0;
    std::optional<int> server;
    std::optional<std::string> name;
    std::optional<std::string> description;
    bool hidden = false;
    bool visible = false;
    bool encrypt = false;
    bool decrypt = false;
    bool noLimit = false;
    bool noWait = false;
    std::optional<int> limitGB;
    PasswordSource password;
};

struct DeleteOptions {
    std::vector<int> shares;
    std::optional<int> server;
    bool keepFolder = false;
    bool yes = false;
};

// Of this server's own folder as it is now: the list may be a few seconds old.
bool IsEncrypted(Client& client, const Json::Value& share) {
    if (share["shareRvId"].asInt() != 0) {
        return share["encType"].asInt() != 0;
    }
    Json::Value parameters(Json::objectValue);
    parameters["name"] = share["shareName"];
    return client.Call(kNasApi, "get", parameters)["encryption"].asInt() != 0;
}

Json::Value EditParameters(Client& client, const EditOptions& options, const Json::Value& share) {
    Json::Value parameters(Json::objectValue);
    parameters["shareId"] = share["shareId"];
    parameters["rvId"] = share["shareRvId"];
    parameters["shareName"] = options.name.value_or(Cell(share, "shareName"));
    parameters["description"] = options.description.value_or(Cell(share, "description"));
    parameters["blHideShare"] = options.hidden || (share["blHidden"].asBool() && !options.visible);
    parameters["blRecLimit"] =
        options.limitGB.has_value() || (share["enableRecLimit"].asBool() && !options.noLimit);
    parameters["recLimitGB"] = options.limitGB.value_or(share["recLimitGB"].asInt());
    parameters["blEncryption"] = options.encrypt || (IsEncrypted(client, share) && !options.decrypt);
    if (options.encrypt) {
        parameters["encPasswd"] = options.password.Read("Password to encrypt the share with: ");
    }
    return parameters;
}

// The job that moves the data of this server's shared folder `name`; "" when there is none.
std::string MovingJob(Client& client, const std::string& name) {
    constexpr int kNoJob = 3314;
    Json::Value parameters(Json::objectValue);
    parameters["name"] = name;
    try {
        return Cell(client.Call(kNasApi, "move_status", parameters), "task_id");
    } catch (const Refused& refused) {
        if (refused.code != kNoJob) {
            throw;
        }
        return "";
    }
}

void Edit(Context& context, const EditOptions& options) {
    Client client = context.MakeClient();
    const Json::Value share = FindShare(client, options.share, options.server);
    const Json::Value parameters = EditParameters(client, options, share);
    const Json::Value data = client.Call(kApi, "EditRecShare", parameters);
    if (context.json) {
        PrintJson(data);
        return;
    }
    PrintLine("recording share " + std::to_string(options.share) + " is changed");
    const bool isMoving = (options.encrypt || options.decrypt) && share["shareRvId"].asInt() == 0;
    const std::string job = isMoving ? MovingJob(client, Cell(parameters, "shareName")) : "";
    if (job.empty()) {
        return;
    }
    if (options.noWait) {
        PrintLine("job " + job + " moves its data; `pavane job follow " + job + "` shows how far it is");
    } else {
        context.hasFailed = !FollowJob(client, job);
    }
}

// Whether the person at the terminal wants that. Throws InputError when not.
void Confirm() {
    if (isatty(STDIN_FILENO) == 0) {
        throw InputError("nobody can be asked; give --yes to delete without a question");
    }
    std::cout << "Go on? [yes/no] " << std::flush;
    std::string answer;
    if (!std::getline(std::cin, answer) || answer != "yes") {
        throw InputError("not confirmed; nothing was deleted");
    }
}

void Delete(const Context& context, const DeleteOptions& options) {
    Client client = context.MakeClient();
    Json::Value parameters(Json::objectValue);
    parameters["blKeepOskShare"] = options.keepFolder;
    parameters["delShareList"] = Json::Value(Json::arrayValue);
    Table table(
        {{"ID", Align::kRight}, {"NAME"}, {"PATH"}, {"SERVER", Align::kRight}, {"CAMERAS", Align::kRight}});
    for (const int id : options.shares) {
        const Json::Value share = FindShare(client, id, options.server);
        Json::Value item(Json::objectValue);
        item["shareId"] = share["shareId"];
        item["shareRvId"] = share["shareRvId"];
        item["sharePath"] = share["sharePath"];
        parameters["delShareList"].append(item);
        table.Add({Cell(share, "shareId"), Cell(share, "shareName"), Cell(share, "sharePath"),
                   Cell(share, "shareRvId"), Cell(share, "camCnt")});
    }
    if (!options.yes) {
        PrintTable(table);
        PrintLine(options.keepFolder ? "They will no longer be recording shares. Their folders stay."
                                     : "They will be deleted, with their folders and all that is in them.");
        Confirm();
    }
    const Json::Value data = client.Call(kApi, "DelRecShare", parameters);
    if (context.json) {
        PrintJson(data);
    } else {
        PrintLine(options.keepFolder ? "no recording shares any more; the folders are kept" : "deleted");
    }
}

// Only a share's owner knows what is moved out of it; of another server's share this one asks the owner.
void ShowMigrating(const Context& context, const MigratingOptions& options) {
    Client client = context.MakeClient();
    Json::Value parameters(Json::objectValue);
    parameters["shareId"] = options.share;
    const bool isFar =
        options.server.has_value() && FindShare(client, options.share, options.server)["shareRvId"] != 0;
    parameters["blCheckMigrating"] = true;
    const Json::Value data = client.Call(kApi, isFar ? "ListUsingCam" : "CheckStorageMigrating", parameters);
    if (context.json) {
        PrintJson(isFar ? Json::Value() : data);
    } else {
        PrintLine("no camera is moving recordings out of share " + std::to_string(options.share));
    }
}

constexpr int kMostGB = 1 << 30;

void AddEdit(CLI::App& share, Context& context) {
    const auto options = std::make_shared<EditOptions>();
    CLI::App* const edit = share.add_subcommand("edit", "Change a recording share; what is not named stays");
    edit->add_option("share", options->share, "Id of the recording share")->required();
    AddOwnerOption(*edit, options->server);
    edit->add_option("--name", options->name, "New name of the folder");
    edit->add_option("--description", options->description, "What the share is for");
    CLI::Option* const hidden =
        edit->add_flag("--hidden", options->hidden, "Do not show it when the network is browsed");
    edit->add_flag("--visible", options->visible, "Show it")->excludes(hidden);
    CLI::Option* const limit =
        edit->add_option("--limit-gb", options->limitGB, "Delete the oldest recordings beyond this size")
            ->check(CLI::Range(1, kMostGB));
    edit->add_flag("--no-limit", options->noLimit, "Keep all recordings")->excludes(limit);
    CLI::Option* const encrypt =
        edit->add_flag("--encrypt", options->encrypt, "Encrypt its files, with a password");
    edit->add_flag("--decrypt", options->decrypt, "Make its files plain again")->excludes(encrypt);
    edit->add_flag("--no-wait", options->noWait, "Do not wait until its files are encrypted or plain");
    options->password.AddOptions(*edit);
    edit->callback(
        [&context, options] { context.chosen = [&context, options] { Edit(context, *options); }; });
}

void AddLimit(CLI::App& share, Context& context) {
    const auto options = std::make_shared<EditOptions>();
    CLI::App* const limit = share.add_subcommand("limit", "Limit the size of a share's recordings");
    limit->add_option("share", options->share, "Id of the recording share")->required();
    AddOwnerOption(*limit, options->server);
    CLI::Option* const size =
        limit->add_option("gb", options->limitGB, "Delete the oldest recordings beyond so many GB")
            ->check(CLI::Range(1, kMostGB));
    limit->add_flag("--off", options->noLimit, "Keep all recordings")->excludes(size);
    limit->callback([&context, options] {
        if (!options->limitGB.has_value() && !options->noLimit) {
            throw CLI::RequiredError("gb or --off");
        }
        context.chosen = [&context, options] { Edit(context, *options); };
    });
}

void AddDelete(CLI::App& share, Context& context) {
    const auto options = std::make_shared<DeleteOptions>();
    CLI::App* const remove = share.add_subcommand("delete", "Delete recording shares and their folders");
    remove->add_option("share", options->shares, "Ids of the recording shares")->required();
    AddOwnerOption(*remove, options->server);
    remove->add_flag("--keep-folder", options->keepFolder, "Keep the folders; only stop recording into them");
    remove->add_flag("--yes", options->yes, "Do not ask");
    remove->callback(
        [&context, options] { context.chosen = [&context, options] { Delete(context, *options); }; });
}

}  // namespace

void AddShareChangeCommands(CLI::App& share, Context& context) {
    AddEdit(share, context);
    AddLimit(share, context);
    AddDelete(share, context);
    const auto options = std::make_shared<MigratingOptions>();
    CLI::App* const migrating =
        share.add_subcommand("migrating", "Tell whether cameras are moving recordings out of a share");
    migrating->add_option("share", options->share, "Id of the recording share")->required();
    AddOwnerOption(*migrating, options->server);
    migrating->callback(
        [&context, options] { context.chosen = [&context, options] { ShowMigrating(context, *options); }; });
}

}  // namespace cli
