#include "cli/share_lookup.h"

#include <algorithm>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/input_error.h"
#include "cli/whole_number.h"

namespace cli {

namespace {

constexpr int kNotAllowed = 105;

std::string Refusal(int id, const std::optional<int>& server) {
    std::string owner;
    if (server.has_value()) {
        owner = *server == 0 ? " of this server" : " of recording server " + std::to_string(*server);
    }
    return "there is no recording share " + std::to_string(id) + owner +
           "; see `pavane share list --migrating --locked --abnormal`";
}

}  // namespace

Json::Value ListAllShares(Client& client, int server) {
    Json::Value parameters(Json::objectValue);
    parameters["blIncldMigrating"] = true;
    parameters["blIncldEncUnmount"] = true;
    parameters["blIncldRemoteAbnormal"] = true;
    parameters["rvId"] = server;
    return client.Call("KORV.Pavane.Share", "ListRecShare", parameters);
}

Json::Value FindShare(Client& client, int id, const std::optional<int>& server) {
    Json::Value data = ListAllShares(client, server.value_or(0));
    if (server.has_value()) {
        KeepServer(data, "sharelist", "shareRvId", *server);
    }
    for (const Json::Value& share : data["sharelist"]) {
        if (share["shareId"].asInt() == id) {
            return share;
        }
    }
    throw InputError(Refusal(id, server));
}

void CheckServer(Client& client, int server) {
    if (server == 0) {
        return;
    }
    Json::Value servers;
    try {
        servers = client.Call("KORV.Pavane.CMS", "list")["servers"];
    } catch (const Refused& refused) {
        if (refused.code != kNotAllowed) {
            throw;
        }
        return;
    }
    const bool isKnown = std::any_of(servers.begin(), servers.end(),
                                     [server](const Json::Value& each) { return each["id"] == server; });
    if (!isKnown) {
        throw InputError("there is no recording server " + std::to_string(server) +
                         "; see `pavane server list`");
    }
}

void KeepServer(Json::Value& data, const char* list, const char* key, int server) {
    Json::Value kept(Json::arrayValue);
    for (const Json::Value& element : data[list]) {
        if (element[key].isInt() && element[key].asInt() == server) {
            kept.append(element);
        }
    }
    data[list] = kept;
}

CLI::Option* AddOwnerOption(CLI::App& command, std::optional<int>& server) {
    return command
        .add_option("--server", server, "Id of the recording server that must own it; 0 is this server")
        ->transform(Id());
}

}  // namespace cli
