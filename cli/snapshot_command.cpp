// `pavane snapshot show`, `set` and `clear`.

#include <charconv>
#include <memory>
#include <string>
#include <system_error>

#include <CLI/CLI.hpp>

#include "cli/command.h"
#include "cli/input_error.h"
#include "cli/share_lookup.h"

namespace cli {

namespace {

constexpr const char* kApi = "KORV.Pavane.Snapshot";

void Show(const Context& context, const Json::Value& data) {
    if (context.json) {
        PrintJson(data);
        return;
    }
    const std::string path = Cell(data, "path");
    PrintLine(path.empty() ? "no share keeps snapshots" : "snapshots are kept in " + path);
}

// The path that is given, or that of this server's share of that id. Throws InputError.
std::string PathOf(Client& client, const std::string& share) {
    if (share.rfind('/', 0) == 0) {
        return share;
    }
    int id = 0;
    const auto end = std::from_chars(share.data(), share.data() + share.size(), id);
    if (end.ec != std::errc() || end.ptr != share.data() + share.size()) {
        throw InputError(share + " is neither the id nor the path of a recording share");
    }
    constexpr int kThisServer = 0;
    return Cell(FindShare(client, id, kThisServer), "sharePath");
}

void Set(const Context& context, const std::string& share) {
    Client client = context.MakeClient();
    Json::Value parameters(Json::objectValue);
    parameters["path"] = PathOf(client, share);
    Show(context, client.Call(kApi, "set", parameters));
}

}  // namespace

void AddSnapshotCommands(CLI::App& app, Context& context) {
    CLI::App* const snapshot = app.add_subcommand("snapshot", "The recording share that keeps snapshots");
    snapshot->require_subcommand(1);
    snapshot->add_subcommand("show", "Tell which it is")->callback([&context] {
        context.chosen = [&context] { Show(context, context.MakeClient().Call(kApi, "get")); };
    });
    const auto share = std::make_shared<std::string>();
    CLI::App* const set = snapshot->add_subcommand("set", "Choose it");
    set->add_option("share", *share, "Id or path of a recording share of this server")->required();
    set->callback([&context, share] { context.chosen = [&context, share] { Set(context, *share); }; });
    snapshot->add_subcommand("clear", "Have none keep them")->callback([&context] {
        context.chosen = [&context] { Show(context, context.MakeClient().Call(kApi, "clear")); };
    });
}

}  // namespace cli
