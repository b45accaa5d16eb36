// "ListMountedFolder": remote folders mounted on this NAS that could still be adopted as recording shares.

#include <algorithm>
#include <list>
#include <string>

#include <json/json.h>

#include "platform/korv/mount.h"
#include "platform/korv/share.h"
#include "platform/pavane/rec_share.h"

#include "webapi/share/mount_point_path.h"
#include "webapi/share/share_handler.h"
#include "webapi/share/share_privilege.h"

namespace {

SHARE_MOUNT_TYPE ToMountType(const std::string& type) {
    if (type == "nfs") {
        return SHARE_MOUNT_NFS;
    }
    return type == "cifs" ? SHARE_MOUNT_CIFS : SHARE_MOUNT_LOCAL;
}

// NFS mounts are left out on purpose, although a client that sees one knows its type.
bool IsAdoptable(const Json::Value& mount, const std::list<std::string>& taken, const std::string& user) {
    constexpr unsigned int kAnyRight = KORV_SHARE_RIGHT_WRITE | KORV_SHARE_RIGHT_READ;
    const std::string mountPoint = mount["mount_point"].asString();
    std::string shareName;
    return std::find(taken.begin(), taken.end(), mountPoint) == taken.end() &&
           GetShareNameFromPath(mountPoint, shareName) == 0 &&
           CheckSharePrivilege(shareName, user, kAnyRight) == 0 && mount["type"].asString() != "nfs";
}

}  // namespace

// When the system's list is not to be had, the error is followed by a success: intended, the first answer
// stands.
void ShareHandler::HandleListMountedFolder() {
    const std::string user = GetLoginUserName();
    Json::Value data;
    Json::Value mounts;
    if (GetLocalMountedFolderByWebApi(mounts, false) != 0) {
        response->SetError(PV_WEBAPI_ERR_OPERATION_FAILED, Json::Value());
        AnswerUnlessFailed(data);
        return;
    }
    const std::list<std::string> taken = LoadRecSharePath(0);
    for (const Json::Value& mount : mounts) {
        if (!IsAdoptable(mount, taken, user)) {
            continue;
        }
        Json::Value element(Json::objectValue);
        element["blAutoMount"] = mount["auto_mount"] == "yes";
        element["mountType"] = static_cast<int>(ToMountType(mount["type"].asString()));
        element["mountPoint"] = mount["mount_point"];
        element["mountSource"] = mount["source"];
        data["remoteList"].append(element);
    }
    AnswerUnlessFailed(data);
}
