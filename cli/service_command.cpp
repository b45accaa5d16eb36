// `pavane link list`, `backup list` and `service outbox|taken`.

#include <array>
#include <ctime>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/command.h"
#include "cli/whole_number.h"

namespace cli {

namespace {

constexpr const char* kApi = "KORV.Pavane.Service";

void ListLinks(const Context& context) {
    const Json::Value data = context.MakeClient().Call(kApi, "list_links");
    if (context.json) {
        PrintJson(data);
        return;
    }
    Table table({{"LINK"}, {"LEADS TO"}, {"STATE"}});
    for (const Json::Value& link : data["links"]) {
        table.Add(
            {Cell(link, "name"), Cell(link, "path"), link["inPlace"].asBool() ? "in place" : "missing"});
    }
    PrintTable(table);
}

std::string TimeText(const Json::Value& time_s) {
    const auto time = static_cast<std::time_t>(time_s.asInt64());
    std::tm parts{};
    localtime_r(&time, &parts);
    std::array<char, 32> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
    return {text.data(), length};
}

void ListBackup(const Context& context) {
    const Json::Value data = context.MakeClient().Call(kApi, "list_backup");
    if (context.json) {
        PrintJson(data);
        return;
    }
    Table table({{"FOLDER"}, {"USED SINCE"}});
    for (const Json::Value& folder : data["folders"]) {
        table.Add({Cell(folder, "name"), TimeText(folder["addedTime"])});
    }
    PrintTable(table);
}

std::string OperationText(const Json::Value& notice) {
    constexpr int kRecShareRemoved = 6;
    return notice["operation"].asInt() == kRecShareRemoved ? "no recording share any more"
                                                           : "operation " + Cell(notice, "operation");
}

void ListNotices(const Context& context) {
    const Json::Value all = context.MakeClient().CallForAll(kApi, "list_notices", "notices");
    if (context.json) {
        PrintJson(all);
        return;
    }
    Table table({{"ID", Align::kRight}, {"TIME"}, {"SERVICE"}, {"FOLDER"}, {"WHAT HAPPENED"}});
    for (const Json::Value& notice : all["notices"]) {
        table.Add({Cell(notice, "id"), TimeText(notice["time"]), Cell(notice, "service"),
                   Cell(notice, "path"), OperationText(notice)});
    }
    PrintTable(table);
}

void TakeNotice(const Context& context, int id) {
    Json::Value parameters(Json::objectValue);
    parameters["id"] = id;
    const Json::Value data = context.MakeClient().Call(kApi, "take_notice", parameters);
    if (context.json) {
        PrintJson(data);
    } else {
        PrintLine("notice " + std::to_string(id) + " taken");
    }
}

void AddNotices(CLI::App& app, Context& context) {
    CLI::App* const service =
        app.add_subcommand("service", "What other services of the application are told");
    service->require_subcommand(1);
    service->add_subcommand("outbox", "List the notices that are not taken yet")->callback([&context] {
        context.chosen = [&context] { ListNotices(context); };
    });
    const auto id = std::make_shared<int>();
    CLI::App* const taken = service->add_subcommand("taken", "Take a notice out of the outbox");
    taken->add_option("id", *id, "Id of the notice")->required()->transform(Id());
    taken->callback([&context, id] { context.chosen = [&context, id] { TakeNotice(context, *id); }; });
}

}  // namespace

void AddServiceCommands(CLI::App& app, Context& context) {
    CLI::App* const link = app.add_subcommand("link", "Links through which other services reach the shares");
    link->require_subcommand(1);
    link->add_subcommand("list", "List them")->callback([&context] {
        context.chosen = [&context] { ListLinks(context); };
    });
    CLI::App* const backup = app.add_subcommand("backup", "Folders that a backup should know of");
    backup->require_subcommand(1);
    backup->add_subcommand("list", "List them")->callback([&context] {
        context.chosen = [&context] { ListBackup(context); };
    });
    AddNotices(app, context);
}

}  // namespace cli
