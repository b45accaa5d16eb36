#include <exception>

#include <soci/soci.h>

#include "platform/korv/api_runner.h"
#include "platform/korv/share.h"

#include "korv/framework/log.h"
#include "korv/system/cipher_folder.h"
#include "korv/system/share_store.h"

int GetLocalShareListByWebApi(Json::Value& list, bool /*withState*/) {
    Json::Value reply;
    KORV::APIRunner::Exec(reply, "KORV.Core.Share", 1, "list", Json::Value(Json::objectValue), "admin");
    if (!reply["success"].asBool()) {
        return -1;
    }
    list = reply["data"]["shares"];
    return 0;
}

int ListRenamedShareFolders(std::vector<KORVRENAMEDSHARE>& list) {
    std::vector<KORVRENAMEDSHARE> renamed;
    try {
        for (const korv::RenamedShare& each : korv::ListRenamedShares()) {
            renamed.push_back({each.formerPath, each.share.name, each.share.Path(), each.share.description,
                               each.share.isHidden});
        }
    } catch (const soci::soci_error& error) {
        // what() would hold bound values, which may be secrets.
        korv::LogLine("the renamed shares can't be listed: database: " + error.get_error_message());
        return -1;
    } catch (const std::exception& error) {
        korv::LogLine(std::string("the renamed shares can't be listed: ") + error.what());
        return -1;
    }
    list = std::move(renamed);
    return 0;
}

std::vector<std::string> ListUnlockedShareFolders() { return korv::CipherFolder::MountPoints(); }
