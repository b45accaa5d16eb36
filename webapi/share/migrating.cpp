// "CheckStorageMigrating": whether recordings are being moved out of a share.

#include "webapi/share/migrating.h"

#include <algorithm>
#include <optional>

#include "platform/korv/filesystem.h"
#include "platform/pavane/camera.h"
#include "platform/pavane/key_value_file.h"
#include "platform/pavane/rec_share.h"

#include "webapi/share/share_handler.h"

namespace {

// The share that the camera's recordings are moved out of; none when they are not.
std::optional<std::string> MigrationSource(const Camera& camera) {
    const std::string path = GetRecMigrateTmpFilePath(camera.GetId());
    std::string sourceDir;
    if (!IsFileExist(path) || PVFileGetVal(path, "srcDir", sourceDir) < 1) {
        return std::nullopt;
    }
    return GetDirPath(sourceDir);
}

}  // namespace

void CountMigratingCamsOnShares(int& count, const std::list<std::string>& sharePaths) {
    for (const Camera& camera : GetCamLocalList(false, "", "", false, false)) {
        const std::optional<std::string> source = MigrationSource(camera);
        if (source && std::find(sharePaths.begin(), sharePaths.end(), *source) != sharePaths.end()) {
            ++count;
        }
    }
}

void ShareHandler::HandleCheckStorageMigrating() {
    const int shareId = request->GetParam("shareId", -1).asInt();
    RecShare share;
    if (shareId < 0) {
        SetErrorCode(PV_WEBAPI_ERR_BAD_PARAMETER, "", "");
    } else if (share.Load(shareId) != 0) {
        SetErrorCode(PV_WEBAPI_ERR_OPERATION_FAILED, "", "");
    } else {
        int count = 0;
        CountMigratingCamsOnShares(count, {share.GetPath()});
        if (count > 0) {
            SetErrorCode(PV_WEBAPI_ERR_SHARE_MIGRATING, std::to_string(count), "");
        }
    }
    AnswerUnlessFailed(Json::Value());
}
