// "KORV.Pavane.Camera": which cameras record where.

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/pavane/camera.h"
#include "platform/pavane/key_value_file.h"

#include "pavane/recorder/camera_migration.h"
#include "pavane/recorder/camera_store.h"
#include "pavane/webapi/api_call.h"
#include "pavane/webapi/methods.h"

namespace pavane {

namespace {

constexpr std::size_t kLongestName = 255;
constexpr std::size_t kLongestAddress = 255;
// What "list" tells of a camera, so that a list can be imported again; the last two are not looked at.
constexpr std::array<const char*, 10> kMembers{
    "name",       "recordingPath",  "ownerRvId",         "ip", "recStorageStatus",
    "occupiedMB", "rotatedBySpace", "rotationBySpaceMB", "id", "migratingFrom"};

// What is wrong with the value `value` of the camera `index`.
[[noreturn]] void Refuse(Json::ArrayIndex index, const char* value, const char* why) {
    throw BadParameter("cameras[" + std::to_string(index) + "]." + value, why);
}

std::string TextMember(const Json::Value& camera, Json::ArrayIndex index, const char* key) {
    const Json::Value value = camera.get(key, "");
    if (!value.isString()) {
        Refuse(index, key, "must be a text");
    }
    return value.asString();
}

int NumberMember(const Json::Value& camera, Json::ArrayIndex index, const char* key) {
    const Json::Value value = camera.get(key, 0);
    if (!value.isInt() || value.asInt() < 0) {
        Refuse(index, key, "must be a whole number from 0 to 2147483647");
    }
    return value.asInt();
}

bool FlagMember(const Json::Value& camera, Json::ArrayIndex index, const char* key) {
    const Json::Value value = camera.get(key, false);
    if (!value.isBool()) {
        Refuse(index, key, "must be true or false");
    }
    return value.asBool();
}

// A misspelt key must not be taken for one that was left out.
void RefuseUnknownMembers(const Json::Value& camera, Json::ArrayIndex index) {
    constexpr std::size_t kLongestTold = 255;
    for (const std::string& member : camera.getMemberNames()) {
        if (std::find(kMembers.begin(), kMembers.end(), member) == kMembers.end()) {
            const bool canBeTold = member.size() <= kLongestTold && IsPlainText(member);
            Refuse(index, canBeTold ? member.c_str() : "?", "is no key of a camera");
        }
    }
}

CameraRecord ReadCamera(const Json::Value& camera, Json::ArrayIndex index) {
    if (!camera.isObject()) {
        throw BadParameter("cameras[" + std::to_string(index) + "]", "must be an object");
    }
    RefuseUnknownMembers(camera, index);
    CameraRecord record;
    record.name = TextMember(camera, index, "name");
    record.recordingPath = TextMember(camera, index, "recordingPath");
    record.ownerRvId = NumberMember(camera, index, "ownerRvId");
    record.recStorageStatus = NumberMember(camera, index, "recStorageStatus");
    record.ip = TextMember(camera, index, "ip");
    record.occupiedMB = NumberMember(camera, index, "occupiedMB");
    record.rotatedBySpace = FlagMember(camera, index, "rotatedBySpace") ? 1 : 0;
    record.rotationBySpaceMB = NumberMember(camera, index, "rotationBySpaceMB");
    if (record.ip.size() > kLongestAddress || !IsPlainText(record.ip)) {
        Refuse(index, "ip", "must be at most 255 bytes of UTF-8 without control characters");
    }
    if (record.name.empty() || record.name.size() > kLongestName || !IsPlainText(record.name)) {
        Refuse(index, "name", "must be 1 to 255 bytes of UTF-8 without control characters");
    }
    if (!record.recordingPath.empty() && !IsCleanPath(record.recordingPath)) {
        Refuse(index, "recordingPath", "must be empty or an absolute path in its shortest form");
    }
    return record;
}

// Of two cameras that are one the first would be lost without a word.
void RefuseTwins(const std::vector<CameraRecord>& cameras) {
    std::map<std::pair<int, std::string>, std::size_t> places;
    for (std::size_t i = 0; i < cameras.size(); ++i) {
        const auto [first, isNew] = places.try_emplace({cameras[i].ownerRvId, cameras[i].name}, i);
        if (!isNew) {
            const std::string why =
                "is that of cameras[" + std::to_string(first->second) + "] of the same server";
            Refuse(static_cast<Json::ArrayIndex>(i), "name", why.c_str());
        }
    }
}

// The folder that its recordings are moved out of, empty when they are not.
std::string MigratingFrom(const CameraRecord& camera) {
    std::string folder;
    if (camera.ownerRvId == 0) {
        PVFileGetVal(GetRecMigrateTmpFilePath(camera.id), "srcDir", folder);
    }
    return folder;
}

CameraRecord WantedCamera(const KORV::APIRequest& request) {
    const std::optional<CameraRecord> camera = FindCamera(request.GetParam("id", 0).asInt());
    if (!camera.has_value() || camera->ownerRvId != 0) {
        throw BadParameter("id", "must be the id of a camera of this server");
    }
    return *camera;
}

}  // namespace

Json::Value ImportCamerasMethod(const KORV::APIRequest& request) {
    const Json::Value cameras = request.GetParam("cameras", Json::Value());
    if (!cameras.isArray()) {
        throw BadParameter("cameras", "must be an array");
    }
    std::vector<CameraRecord> records;
    records.reserve(cameras.size());
    for (Json::ArrayIndex i = 0; i < cameras.size(); ++i) {
        records.push_back(ReadCamera(cameras[i], i));
    }
    RefuseTwins(records);
    ImportCameras(records);
    Json::Value data(Json::objectValue);
    data["imported"] = cameras.size();
    return data;
}

Json::Value ListCamerasMethod(const KORV::APIRequest& request) {
    const PageRequest wanted = ReadPage(request);
    const CameraPage page = ListCameras(wanted.offset, wanted.limit);
    Json::Value list(Json::arrayValue);
    for (const CameraRecord& camera : page.cameras) {
        Json::Value element(Json::objectValue);
        element["id"] = camera.id;
        element["ownerRvId"] = camera.ownerRvId;
        element["name"] = camera.name;
        element["recordingPath"] = camera.recordingPath;
        element["recStorageStatus"] = camera.recStorageStatus;
        element["ip"] = camera.ip;
        element["occupiedMB"] = camera.occupiedMB;
        element["rotatedBySpace"] = camera.rotatedBySpace != 0;
        element["rotationBySpaceMB"] = camera.rotationBySpaceMB;
        element["migratingFrom"] = MigratingFrom(camera);
        list.append(element);
    }
    Json::Value data(Json::objectValue);
    data["cameras"] = list;
    data["total"] = page.total;
    return data;
}

Json::Value StartMigrationMethod(const KORV::APIRequest& request) {
    const CameraRecord camera = WantedCamera(request);
    const std::string sourceDir = request.GetParam("sourceDir", camera.recordingPath).asString();
    if (!IsCleanPath(sourceDir)) {
        throw BadParameter("sourceDir", "must be an absolute path in its shortest form");
    }
    try {
        StartCameraMigration(camera.id, sourceDir);
    } catch (const std::invalid_argument& invalid) {
        throw BadParameter("sourceDir", invalid.what());
    }
    Json::Value data(Json::objectValue);
    data["sourceDir"] = sourceDir;
    return data;
}

// Also for a camera that was removed meanwhile: its file has to go all the same.
Json::Value StopMigrationMethod(const KORV::APIRequest& request) {
    Json::Value data(Json::objectValue);
    data["wasMigrating"] = StopCameraMigration(request.GetParam("id", 0).asInt());
    return data;
}

}  // namespace pavane
