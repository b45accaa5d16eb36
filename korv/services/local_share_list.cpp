#include "platform/korv/api_runner.h"
#include "platform/korv/share.h"

#include "korv/system/cipher_folder.h"

int GetLocalShareListByWebApi(Json::Value& list, bool /*withState*/) {
    Json::Value reply;
    KORV::APIRunner::Exec(reply, "KORV.Core.Share", 1, "list", Json::Value(Json::objectValue), "admin");
    if (!reply["success"].asBool()) {
        return -1;
    }
    list = reply["data"]["shares"];
    return 0;
}

std::vector<std::string> ListUnlockedShareFolders() { return korv::CipherFolder::MountPoints(); }
