// `pavane share edit`, `limit`, `delete` and `migrating`.

#include <unistd.h>

#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli/command.h"
#include "cli/far_encryption.h"
#include "cli/input_error.h"
#include "cli/job_progress.h"
#include "cli/password.h"
#include "cli/share_lookup.h"
#include "cli/whole_number.h"

namespace cli {

namespace {

constexpr const char* kApi = "KORV.Pavane.Share";
constexpr const char* kNasApi = "KORV.Core.Share";
constexpr int kNotAllowed = 105;

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

bool IsOwn(const Json::Value& share) { return share["shareRvId"].asInt() == 0; }

// By the list alone: a share that is being moved becomes the other of the two.
bool IsToBeEncrypted(const Json::Value& share) {
    return (share["encType"].asInt() != 0) != share["blMigrating"].asBool();
}

// As it will be once the job under way is over; without one, as the folder is now: the list may be a few
// seconds old, and does not follow another server's folder. Only administrators may look at jobs and folders;
// others have the list.
bool IsEncrypted(Client& client, const Json::Value& share, const Json::Value& job) {
    if (IsUnderWay(job)) {
        return Cell(job, "kind") == "encrypt";
    }
    if (!IsOwn(share)) {
        return AskWhetherEncryptedThere(client, share);
    }
    Json::Value parameters(Json::objectValue);
    parameters["name"] = share["shareName"];
    try {
        return client.Call(kNasApi, "get", parameters)["encryption"].asInt() != 0;
    } catch (const Refused& refused) {
        if (refused.code != kNotAllowed) {
            throw;
        }
        return IsToBeEncrypted(share);
    }
}

// Throws InputError for what can't be changed while the job goes on.
void CheckAgainstJob(const EditOptions& options, const Json::Value& share, const Json::Value& job) {
    if (!IsUnderWay(job)) {
        return;
    }
    const bool isEncrypting = Cell(job, "kind") == "encrypt";
    const bool isRenamed = options.name.has_value() && *options.name != Cell(share, "shareName");
    if (isRenamed || (isEncrypting ? options.decrypt : options.encrypt)) {
        const std::string id = Cell(job, "id");
        throw InputError("the files of " + Cell(share, "shareName") + " are being " +
                         (isEncrypting ? "encrypted" : "decrypted") + "; wait for it (`pavane job follow " +
                         id + "`) or cancel it (`pavane job cancel " + id + "`) first");
    }
}

Json::Value EditParameters(Client& client, const EditOptions& options, const Json::Value& share,
                           const Json::Value& job) {
    Json::Value parameters(Json::objectValue);
    parameters["shareId"] = share["shareId"];
    parameters["rvId"] = share["shareRvId"];
    parameters["shareName"] = options.name.value_or(Cell(share, "shareName"));
    parameters["description"] = options.description.value_or(Cell(share, "description"));
    parameters["blHideShare"] = options.hidden || (share["blHidden"].asBool() && !options.visible);
    parameters["blRecLimit"] =
        options.limitGB.has_value() || (share["enableRecLimit"].asBool() && !options.noLimit);
    parameters["recLimitGB"] = options.limitGB.value_or(share["recLimitGB"].asInt());
    parameters["blEncryption"] = options.encrypt || (!options.decrypt && IsEncrypted(client, share, job));
    if (options.encrypt) {
        parameters["encPasswd"] = options.password.Read("Password to encrypt the share with: ");
    }
    return parameters;
}

// A job that has failed before anybody could look at it is followed to its end, too.
bool ShowMove(Client& client, const Json::Value& job, bool noWait) {
    const std::string id = Cell(job, "id");
    if (noWait && IsUnderWay(job)) {
        PrintLine("job " + id + " moves its data; `pavane job follow " + id + "` shows how far it is");
        return true;
    }
    return FollowJob(client, id);
}

void Edit(Context& context, const EditOptions& options) {
    Client client = context.MakeClient();
    const Json::Value share = FindShare(client, options.share, options.server);
    const Json::Value before = IsOwn(share) ? NewestJob(client, Cell(share, "shareName")) : Json::Value();
    CheckAgainstJob(options, share, before);
    const Json::Value parameters = EditParameters(client, options, share, before);
    const Json::Value data = client.Call(kApi, "EditRecShare", parameters);
    if (context.json) {
        PrintJson(data);
        return;
    }
    PrintLine("recording share " + std::to_string(options.share) + " is changed");
    if (!(options.encrypt || options.decrypt) || !IsOwn(share)) {
        return;
    }
    const Json::Value job = NewestJob(client, Cell(parameters, "shareName"));
    if (IsUnderWay(job) || Cell(job, "id") != Cell(before, "id")) {
        context.hasFailed = !ShowMove(client, job, options.noWait);
    }
}

// The names of this server's `folders` that are still there. Nothing is known to those who may not ask.
std::vector<std::string> Remaining(Client& client, const std::vector<std::string>& folders) {
    constexpr int kNoSuchShare = 3303;
    std::vector<std::string> remaining;
    for (const std::string& name : folders) {
        Json::Value parameters(Json::objectValue);
        parameters["name"] = name;
        try {
            client.Call(kNasApi, "get", parameters);
            remaining.push_back(name);
        } catch (const Refused& refused) {
            if (refused.code != kNoSuchShare && refused.code != kNotAllowed) {
                throw;
            }
        }
    }
    return remaining;
}

void ShowDeleted(bool areFoldersKept, const std::vector<std::string>& remaining) {
    if (areFoldersKept) {
        PrintLine("no recording shares any more; the folders are kept");
        return;
    }
    if (remaining.empty()) {
        PrintLine("deleted");
        return;
    }
    PrintLine("no recording shares any more, but these folders stay with all that is in them:");
    for (const std::string& name : remaining) {
        PrintLine("  " + name);
    }
    PrintLine(
        "Files of them are open, something is mounted in them, or a job works on them; korvd.log on the");
    PrintLine(
        "server tells which. Stop that, make them recording shares again (`pavane share create NAME ...");
    PrintLine("--adopt`) and delete them anew.");
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

void Delete(Context& context, const DeleteOptions& options) {
    Client client = context.MakeClient();
    Json::Value parameters(Json::objectValue);
    parameters["blKeepOskShare"] = options.keepFolder;
    parameters["delShareList"] = Json::Value(Json::arrayValue);
    std::vector<std::string> folders;
    Table table(
        {{"ID", Align::kRight}, {"NAME"}, {"PATH"}, {"SERVER", Align::kRight}, {"CAMERAS", Align::kRight}});
    for (const int id : options.shares) {
        const Json::Value share = FindShare(client, id, options.server);
        Json::Value item(Json::objectValue);
        item["shareId"] = share["shareId"];
        item["shareRvId"] = share["shareRvId"];
        item["sharePath"] = share["sharePath"];
        parameters["delShareList"].append(item);
        if (IsOwn(share) && share["mountType"].asInt() == 0) {
            folders.push_back(Cell(share, "shareName"));
        }
        table.Add({Cell(share, "shareId"), Cell(share, "shareName"), Cell(share, "sharePath"),
                   Cell(share, "shareRvId"), Cell(share, "camCnt")});
    }
    if (!options.yes) {
        PrintTable(table);
        PrintLine(options.keepFolder ? "They will no longer be recording shares. Their folders stay."
                                     : "They will be deleted, with their folders and all that is in them.");
        Confirm();
    }
    Json::Value data = client.Call(kApi, "DelRecShare", parameters);
    const auto remaining = options.keepFolder ? std::vector<std::string>() : Remaining(client, folders);
    context.hasFailed = !remaining.empty();
    if (!context.json) {
        ShowDeleted(options.keepFolder, remaining);
        return;
    }
    for (const std::string& name : remaining) {
        data["remainingFolders"].append(name);
    }
    PrintJson(data);
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
    edit->add_option("share", options->share, "Id of the recording share")->required()->transform(Id());
    AddOwnerOption(*edit, options->server);
    edit->add_option("--name", options->name, "New name of the folder");
    edit->add_option("--description", options->description, "What the share is for");
    CLI::Option* const hidden =
        edit->add_flag("--hidden", options->hidden, "Do not show it when the network is browsed");
    edit->add_flag("--visible", options->visible, "Show it")->excludes(hidden);
    CLI::Option* const limit =
        edit->add_option("--limit-gb", options->limitGB, "Delete the oldest recordings beyond this size")
            ->transform(WholeNumber(1, kMostGB));
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
    limit->add_option("share", options->share, "Id of the recording share")->required()->transform(Id());
    AddOwnerOption(*limit, options->server);
    CLI::Option* const size =
        limit->add_option("gb", options->limitGB, "Delete the oldest recordings beyond so many GB")
            ->transform(WholeNumber(1, kMostGB));
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
    remove->add_option("share", options->shares, "Ids of the recording shares")->required()->transform(Id());
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
    migrating->add_option("share", options->share, "Id of the recording share")->required()->transform(Id());
    AddOwnerOption(*migrating, options->server);
    migrating->callback(
        [&context, options] { context.chosen = [&context, options] { ShowMigrating(context, *options); }; });
}

}  // namespace cli
