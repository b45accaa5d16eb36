// `pavane share usage` and `cameras`: what uses the shares.

#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/command.h"
#include "cli/share_lookup.h"
#include "cli/size_text.h"
#include "cli/whole_number.h"

namespace cli {

namespace {

constexpr const char* kApi = "KORV.Pavane.Share";

struct UsageOptions {
    std::optional<int> share;
    std::optional<int> server;
};

struct CamerasOptions {
    int share = 0;
    std::optional<int> server;
    bool refuseMigrating = false;
};

// The name in English, or in whatever language there is.
std::string ApplicationName(const Json::Value& entry) {
    const Json::Value& names = entry["app"]["name"];
    if (!names.isObject() || names.empty()) {
        return "unknown (" + Cell(entry, "application_id") + ")";
    }
    return names.isMember("enu") ? Cell(names, "enu") : Cell(names, names.getMemberNames().front().c_str());
}

std::string EnabledText(const Json::Value& entry) {
    if (!entry.isMember("app")) {
        return "";
    }
    return entry["app"]["enabled"].asBool() ? "yes" : "no";
}

void Usage(const Context& context, const UsageOptions& options) {
    Client client = context.MakeClient();
    Json::Value parameters(Json::objectValue);
    if (options.share.has_value()) {
        FindShare(client, *options.share, options.server);
        parameters["shareId"] = *options.share;
    } else if (options.server.has_value()) {
        CheckServer(client, *options.server);
    }
    Json::Value data = client.Call(kApi, "ListShareUsage", parameters);
    if (options.server.has_value()) {
        KeepServer(data, "usage", "rvId", *options.server);
    }
    if (context.json) {
        PrintJson(data);
        return;
    }
    Table table(
        {{"FOLDER"}, {"SHARE", Align::kRight}, {"SERVER", Align::kRight}, {"APPLICATION"}, {"ENABLED"}});
    for (const Json::Value& entry : data["usage"]) {
        table.Add({Cell(entry, "name"), Cell(entry, "share_id"), Cell(entry, "rvId"), ApplicationName(entry),
                   EnabledText(entry)});
    }
    PrintTable(table);
    if (!options.share.has_value() && data["usage"].empty()) {
        std::cout << std::flush;  // so that the sentence stands below
        std::cerr << "pavane: no application uses a share "
                  << (options.server.has_value() ? "of that server " : "")
                  << "that is out of order; without a share's id only those are listed\n";
    }
}

void Cameras(const Context& context, const CamerasOptions& options) {
    Client client = context.MakeClient();
    FindShare(client, options.share, options.server);
    Json::Value parameters(Json::objectValue);
    parameters["shareId"] = options.share;
    parameters["blCheckMigrating"] = options.refuseMigrating;
    const Json::Value data = client.Call(kApi, "ListUsingCam", parameters);
    if (context.json) {
        PrintJson(data);
        return;
    }
    Table table({{"NAME"}, {"ADDRESS"}, {"OCCUPIED", Align::kRight}, {"KEEPS FREE", Align::kRight}});
    for (const Json::Value& camera : data["camList"]) {
        table.Add({Cell(camera, "name"), Cell(camera, "ip"), SizeText(camera["occupied"]),
                   camera["is_rotated_by_space"].asBool() ? SizeText(camera["rotation_by_space"]) : "-"});
    }
    PrintTable(table);
}

}  // namespace

void AddShareUseCommands(CLI::App& share, Context& context) {
    const auto used = std::make_shared<UsageOptions>();
    CLI::App* const usage =
        share.add_subcommand("usage",
                             "List which applications keep data in which folders; of all shares, those "
                             "that are not in order");
    usage->add_option("share", used->share, "Id of a recording share")->transform(Id());
    usage
        ->add_option(
            "--server", used->server,
            "Only what is on this recording server; 0 is this server. Without a share all servers are asked "
            "all the same, and each must answer")
        ->transform(Id());
    usage->callback([&context, used] { context.chosen = [&context, used] { Usage(context, *used); }; });

    const auto options = std::make_shared<CamerasOptions>();
    CLI::App* const cameras = share.add_subcommand("cameras", "List the cameras that record into a share");
    cameras->add_option("share", options->share, "Id of the recording share")->required()->transform(Id());
    AddOwnerOption(*cameras, options->server);
    cameras->add_flag("--refuse-migrating", options->refuseMigrating,
                      "Fail while recordings of the share are being moved");
    cameras->callback(
        [&context, options] { context.chosen = [&context, options] { Cameras(context, *options); }; });
}

}  // namespace cli
