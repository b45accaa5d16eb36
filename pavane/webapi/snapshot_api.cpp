// "KORV.Pavane.Snapshot": which recording share of this server keeps snapshots.

#include <string>

#include "pavane/recorder/snapshot_share.h"
#include "pavane/webapi/api_call.h"
#include "pavane/webapi/methods.h"

namespace pavane {

namespace {

Json::Value PathData(const std::string& path) {
    Json::Value data(Json::objectValue);
    data["path"] = path;
    return data;
}

}  // namespace

Json::Value GetSnapshotShareMethod(const KORV::APIRequest&) { return PathData(ReadSnapshotShare()); }

Json::Value SetSnapshotShareMethod(const KORV::APIRequest& request) {
    const std::string path = request.GetParam("path", "").asString();
    if (!IsCleanPath(path) || !ChooseSnapshotShare(path)) {
        throw BadParameter("path", "must be the path of a recording share of this server");
    }
    return PathData(path);
}

Json::Value ClearSnapshotShareMethod(const KORV::APIRequest&) {
    ForgetSnapshotShare();
    return PathData("");
}

}  // namespace pavane
