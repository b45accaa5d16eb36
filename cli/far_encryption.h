#pragma once

#include <json/json.h>

#include "cli/client.h"

namespace cli {

// Whether the recording server that owns `share`, an element of the host's list, has its files encrypted.
//   check  what method "check" answered about that one server
// The host's record alone does not tell: it does not follow what is encrypted or decrypted over there. Throws
// InputError when that can't be known, or is about to change: the server gave no answer, has no such share or
// is moving its files.
bool IsEncryptedThere(const Json::Value& share, const Json::Value& check);

// The same, after asking the host to compare its records with those of that server.
bool AskWhetherEncryptedThere(Client& client, const Json::Value& share);

}  // namespace cli
