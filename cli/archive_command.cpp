// `pavane archive add`, `list` and `remove`.

#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/command.h"
#include "cli/whole_number.h"

namespace cli {

namespace {

constexpr const char* kApi = "KORV.Pavane.Archive";

struct AddOptions {
    std::string name;
    std::string path;
    std::string server;
    int type = 1;
};

void List(const Context& context, const std::string& server) {
    Json::Value parameters(Json::objectValue);
    parameters["server"] = server;
    const Json::Value data = context.MakeClient().Call(kApi, "list", parameters);
    if (context.json) {
        PrintJson(data);
        return;
    }
    Table table({{"ID", Align::kRight}, {"NAME"}, {"TYPE", Align::kRight}, {"STORES IN"}});
    for (const Json::Value& task : data["tasks"]) {
        table.Add({Cell(task, "id"), Cell(task, "name"), Cell(task, "type"), Cell(task, "storagePath")});
    }
    PrintTable(table);
}

void Add(const Context& context, const AddOptions& options) {
    Json::Value parameters(Json::objectValue);
    parameters["name"] = options.name;
    parameters["storagePath"] = options.path;
    parameters["server"] = options.server;
    parameters["type"] = options.type;
    const Json::Value data = context.MakeClient().Call(kApi, "set", parameters);
    if (context.json) {
        PrintJson(data);
    } else {
        PrintLine("archive task " + Cell(data, "id") + " stores in " + options.path);
    }
}

void Remove(const Context& context, int id) {
    Json::Value parameters(Json::objectValue);
    parameters["id"] = id;
    const Json::Value data = context.MakeClient().Call(kApi, "remove", parameters);
    if (context.json) {
        PrintJson(data);
    } else {
        PrintLine("archive task " + std::to_string(id) + " removed");
    }
}

void AddAdd(CLI::App& archive, Context& context) {
    const auto options = std::make_shared<AddOptions>();
    CLI::App* const add = archive.add_subcommand("add", "Add a task, or change the one of that name");
    add->add_option("name", options->name, "Name of the task")->required();
    add->add_option("path", options->path, "Folder that it stores in, e.g. /volume1/rec")->required();
    add->add_option("--server", options->server, "Name of the server it belongs to; this one by default");
    add->add_option("--type", options->type, "Kind of the task, from 1 on")
        ->transform(WholeNumber(1, kMostNumber));
    add->callback([&context, options] { context.chosen = [&context, options] { Add(context, *options); }; });
}

}  // namespace

void AddArchiveCommands(CLI::App& app, Context& context) {
    CLI::App* const archive = app.add_subcommand("archive", "Tasks that archive recordings");
    archive->require_subcommand(1);
    AddAdd(*archive, context);
    const auto server = std::make_shared<std::string>();
    CLI::App* const list = archive->add_subcommand("list", "List the tasks");
    list->add_option("--server", *server, "Those of the server of this name");
    list->callback([&context, server] { context.chosen = [&context, server] { List(context, *server); }; });
    const auto id = std::make_shared<int>();
    CLI::App* const remove = archive->add_subcommand("remove", "Remove a task");
    remove->add_option("id", *id, "Id of the task")->required()->transform(Id());
    remove->callback([&context, id] { context.chosen = [&context, id] { Remove(context, *id); }; });
}

}  // namespace cli
