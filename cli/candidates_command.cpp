// `pavane candidates`.

#include <map>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/command.h"
#include "cli/size_text.h"

namespace cli {

namespace {

constexpr int kWrite = 1;
constexpr int kRead = 2;

struct Options {
    std::string right = "write";
    bool localOnly = false;
    bool fresh = false;
};

int MaskOf(const std::string& right) {
    static const std::map<std::string, int> masks{
        {"write", kWrite}, {"read", kRead}, {"any", kWrite | kRead}};
    return masks.at(right);
}

void Show(const Context& context, const Options& options) {
    Json::Value parameters(Json::objectValue);
    parameters["sharePriv"] = MaskOf(options.right);
    parameters["blLocalOnly"] = options.localOnly;
    parameters["blIncShareInDB"] = !options.fresh;
    const Json::Value data = context.MakeClient().Call("KORV.Pavane.Share", "List", parameters);
    if (context.json) {
        PrintJson(data);
        return;
    }
    Table table({{"NAME"}, {"VOLUME"}, {"FREE", Align::kRight}, {"COPY ON WRITE"}});
    for (const Json::Value& share : data["sharelist"]) {
        const bool isLocal = share.isMember("vol_path");
        table.Add({Cell(share, "display"), isLocal ? Cell(share, "vol_path") : "external disk",
                   FreeText(share["freesize"]),
                   !isLocal                             ? ""
                   : share["enable_share_cow"].asBool() ? "yes"
                                                        : "no"});
    }
    PrintTable(table);
}

}  // namespace

void AddCandidatesCommand(CLI::App& app, Context& context) {
    const auto options = std::make_shared<Options>();
    CLI::App* const candidates =
        app.add_subcommand("candidates", "List the shared folders that could become recording shares");
    candidates->add_option("--right", options->right, "The right that you must have there")
        ->check(CLI::IsMember({"write", "read", "any"}))
        ->capture_default_str();
    candidates->add_flag("--local", options->localOnly, "No external disks");
    candidates->add_flag("--new", options->fresh, "Leave out what is a recording share already");
    candidates->callback(
        [&context, options] { context.chosen = [&context, options] { Show(context, *options); }; });
}

}  // namespace cli
