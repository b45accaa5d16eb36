// `pavane application list`, `enable`, `disable`, `use`, `release` and `storage`.

#include <memory>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/command.h"
#include "cli/input_error.h"
#include "cli/share_lookup.h"
#include "cli/whole_number.h"

namespace cli {

namespace {

constexpr const char* kApi = "KORV.Pavane.Application";
constexpr int kNoShare = -1;

struct StorageOptions {
    int application = 0;
    std::optional<int> share;
    std::string name;
};

const char* YesOrNo(const Json::Value& flag) { return flag.asBool() ? "yes" : "no"; }

void List(const Context& context) {
    const Json::Value data = context.MakeClient().Call(kApi, "list");
    if (context.json) {
        PrintJson(data);
        return;
    }
    Table table({{"ID", Align::kRight}, {"APPLICATION"}, {"ENABLED"}, {"CAN RUN"}});
    for (const Json::Value& application : data["applications"]) {
        table.Add({Cell(application, "id"), Cell(application["name"], "enu"), YesOrNo(application["enabled"]),
                   YesOrNo(application["compatible"])});
    }
    PrintTable(table);
}

void Enable(const Context& context, int application, bool isEnabled) {
    Json::Value parameters(Json::objectValue);
    parameters["applicationId"] = application;
    parameters["enabled"] = isEnabled;
    const Json::Value data = context.MakeClient().Call(kApi, "set", parameters);
    if (context.json) {
        PrintJson(data);
    } else {
        PrintLine("application " + std::to_string(application) + (isEnabled ? " enabled" : " disabled"));
    }
}

std::string FolderName(Client& client, const StorageOptions& options) {
    constexpr int kThisServer = 0;
    if (!options.name.empty()) {
        return options.name;
    }
    if (!options.share.has_value()) {
        throw InputError("say which folder: by the id of its recording share, or by --name");
    }
    return FindShare(client, *options.share, kThisServer)["shareName"].asString();
}

Json::Value ChangeStorage(const Context& context, const StorageOptions& options, const char* method,
                          std::string& folder) {
    Client client = context.MakeClient();
    folder = FolderName(client, options);
    Json::Value parameters(Json::objectValue);
    parameters["applicationId"] = options.application;
    parameters["shareId"] = options.share.value_or(kNoShare);
    parameters["name"] = folder;
    return client.Call(kApi, method, parameters);
}

void Use(const Context& context, const StorageOptions& options) {
    std::string folder;
    const Json::Value data = ChangeStorage(context, options, "add_storage", folder);
    if (context.json) {
        PrintJson(data);
    } else {
        PrintLine("application " + std::to_string(options.application) +
                  (data["added"].asBool() ? " uses " + folder : " used " + folder + " already"));
    }
}

void Release(const Context& context, const StorageOptions& options) {
    std::string folder;
    const Json::Value data = ChangeStorage(context, options, "remove_storage", folder);
    if (context.json) {
        PrintJson(data);
    } else {
        PrintLine("application " + std::to_string(options.application) +
                  (data["removed"].asBool() ? " uses " + folder + " no more" : " did not use " + folder));
    }
}

void ListStorage(const Context& context) {
    const Json::Value all = context.MakeClient().CallForAll(kApi, "list_storage", "storage");
    if (context.json) {
        PrintJson(all);
        return;
    }
    Table table({{"FOLDER"}, {"SHARE", Align::kRight}, {"APPLICATION", Align::kRight}});
    for (const Json::Value& row : all["storage"]) {
        table.Add({Cell(row, "name"), Cell(row, "shareId"), Cell(row, "applicationId")});
    }
    PrintTable(table);
}

void AddSwitch(CLI::App& application, Context& context, bool isEnabled) {
    const auto id = std::make_shared<int>();
    CLI::App* const command = application.add_subcommand(isEnabled ? "enable" : "disable",
                                                         isEnabled ? "Switch one on" : "Switch one off");
    command->add_option("id", *id, "Id of the application")->required()->transform(Id());
    command->callback([&context, id, isEnabled] {
        context.chosen = [&context, id, isEnabled] { Enable(context, *id, isEnabled); };
    });
}

void AddStorage(CLI::App& application, Context& context, const char* name, const char* help,
                void (*action)(const Context&, const StorageOptions&)) {
    const auto options = std::make_shared<StorageOptions>();
    CLI::App* const command = application.add_subcommand(name, help);
    command->add_option("id", options->application, "Id of the application")->required()->transform(Id());
    command->add_option("share", options->share, "Id of the recording share; without one the folder is none")
        ->transform(Id());
    command->add_option("--name", options->name, "Name of the folder; by default the recording share's");
    command->callback([&context, options, action] {
        context.chosen = [&context, options, action] { action(context, *options); };
    });
}

}  // namespace

void AddApplicationCommands(CLI::App& app, Context& context) {
    CLI::App* const application =
        app.add_subcommand("application", "The package's applications and the shared folders they use");
    application->require_subcommand(1);
    application->add_subcommand("list", "List them")->callback([&context] {
        context.chosen = [&context] { List(context); };
    });
    AddSwitch(*application, context, true);
    AddSwitch(*application, context, false);
    AddStorage(*application, context, "use", "Note that one keeps data in a shared folder", Use);
    AddStorage(*application, context, "release", "Note that it does so no more", Release);
    application->add_subcommand("storage", "List which ones keep data in which shared folders")
        ->callback([&context] { context.chosen = [&context] { ListStorage(context); }; });
}

}  // namespace cli
