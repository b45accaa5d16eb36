#include "cli/far_encryption.h"

#include <string>

#include "cli/command.h"
#include "cli/input_error.h"

namespace cli {

namespace {

std::string GoneText(const Json::Value& share) {
    const std::string server = Cell(share, "shareRvId");
    return "recording server " + server + " has no share " + Cell(share, "shareName") +
           " any more; `pavane server check --repair " + server + "` makes the host forget it";
}

}  // namespace

bool IsEncryptedThere(const Json::Value& share, const Json::Value& check) {
    const std::string name = Cell(share, "shareName");
    const std::string server = "recording server " + Cell(share, "shareRvId");
    if (!check["servers"][0]["answered"].asBool()) {
        throw InputError(server + " gives no answer, so nobody knows whether " + name +
                         " is encrypted there; nothing was changed");
    }
    // What both sides agree on is no difference.
    bool isEncrypted = share["encType"].asInt() != 0;
    bool isMoving = share["blMigrating"].asBool();
    for (const Json::Value& difference : check["differences"]) {
        if (difference["shareId"] != share["shareId"]) {
            continue;
        }
        if (Cell(difference, "kind") == "stale") {
            throw InputError(GoneText(share));
        }
        isEncrypted = difference["encType"].asInt() != 0;
        isMoving = difference["migrating"].asBool();
    }
    if (isMoving) {
        throw InputError("the files of " + name + " are being moved on " + server +
                         "; try again when that is over");
    }
    return isEncrypted;
}

bool AskWhetherEncryptedThere(Client& client, const Json::Value& share) {
    Json::Value parameters(Json::objectValue);
    parameters["id"] = share["shareRvId"];
    return IsEncryptedThere(share, client.Call("KORV.Pavane.CMS", "check", parameters));
}

}  // namespace cli
