// `pavane log level`.

#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/command.h"

namespace cli {

namespace {

constexpr const char* kApi = "KORV.Pavane.Log";

struct LevelOptions {
    std::string category;
    std::string level;
};

void ShowLevels(const Context& context) {
    const Json::Value data = context.MakeClient().Call(kApi, "get_level");
    if (context.json) {
        PrintJson(data);
        return;
    }
    Table table({{"CATEGORY"}, {"LEVEL"}});
    for (const Json::Value& category : data["categories"]) {
        table.Add({Cell(category, "name"), Cell(category, "levelName")});
    }
    for (const Json::Value& process : data["processes"]) {
        table.Add({"process " + Cell(process, "pid"), Cell(process, "levelName")});
    }
    PrintTable(table);
}

void Level(const Context& context, const LevelOptions& options) {
    if (options.category.empty()) {
        ShowLevels(context);
        return;
    }
    Json::Value parameters(Json::objectValue);
    parameters["category"] = options.category;
    parameters["level"] = options.level;
    const Json::Value data = context.MakeClient().Call(kApi, "set_level", parameters);
    if (context.json) {
        PrintJson(data);
    }
}

}  // namespace

void AddLogCommands(CLI::App& app, Context& context) {
    const auto options = std::make_shared<LevelOptions>();
    CLI::App* const log = app.add_subcommand("log", "The server's diagnostic log");
    log->require_subcommand(1);
    CLI::App* const level =
        log->add_subcommand("level", "Show how much is logged, or change it for a category");
    CLI::Option* const category = level->add_option("category", options->category, "e.g. SHARE");
    CLI::Option* const value =
        level->add_option("level", options->level, "NONE, ERR, WARN, NOTICE, INFO, DEBUG or TRACE");
    category->needs(value);
    level->callback(
        [&context, options] { context.chosen = [&context, options] { Level(context, *options); }; });
}

}  // namespace cli
