// `pavane link list` and `backup list`.

#include <array>
#include <ctime>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/command.h"

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

void ListBackup(const Context& context) {
    const Json::Value data = context.MakeClient().Call(kApi, "list_backup");
    if (context.json) {
        PrintJson(data);
        return;
    }
    Table table({{"FOLDER"}, {"USED SINCE"}});
    for (const Json::Value& folder : data["folders"]) {
        const auto added = static_cast<std::time_t>(folder["addedTime"].asInt64());
        std::tm parts{};
        localtime_r(&added, &parts);
        std::array<char, 32> text{};
        const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
        table.Add({Cell(folder, "name"), std::string(text.data(), length)});
    }
    PrintTable(table);
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
}

}  // namespace cli
