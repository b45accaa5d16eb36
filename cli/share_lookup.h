#pragma once

#include <optional>

#include "cli/client.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace cli {

// What the server lists of `server`'s recording shares, in whatever state they are, under "sharelist"; a host
// that is asked for 0 adds those of its recording servers.
Json::Value ListAllShares(Client& client, int server);

// The recording share `id` as the server lists it, in whatever state it is. With `server` it must be owned by
// that recording server (0: by the server that is asked). Throws InputError when there is none like that.
Json::Value FindShare(Client& client, int id, const std::optional<int>& server);

// Throws InputError when `server` is none of the recording servers that this server knows. 0, this server,
// always is; an account that may not list them gets no such check.
void CheckServer(Client& client, int server);

// Takes out of `data`'s array `list` the elements of other servers than `server`; `key` holds an element's.
void KeepServer(Json::Value& data, const char* list, const char* key, int server);

// --server ID of a command that names a share by its id.
CLI::Option* AddOwnerOption(CLI::App& command, std::optional<int>& server);

}  // namespace cli
