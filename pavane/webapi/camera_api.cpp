// "KORV.Pavane.Camera": which cameras record where.

#include <algorithm>
#include <string>
#include <vector>

#include "pavane/recorder/camera_store.h"
#include "pavane/webapi/api_call.h"
#include "pavane/webapi/methods.h"

namespace pavane {

namespace {

constexpr std::size_t kLongestName = 255;
constexpr std::size_t kLongestPath = 4096;
constexpr std::size_t kLongestAddress = 255;

// What is wrong with the value `value` of the camera `index`.
[[noreturn]] void Refuse(Json::ArrayIndex index, const char* value, const char* why) {
    throw BadParameter("cameras[" + std::to_string(index) + "]." + value, why);
}

// Absolute, no component empty, "." or "..", no slash at the end: as it must read to be compared byte for
// byte.
bool IsCleanPath(const std::string& path) {
    if (path.empty()) {
        return true;
    }
    if (path.front() != '/' || path.size() > kLongestPath || !IsPlainText(path)) {
        return false;
    }
    std::size_t begin = 1;
    while (begin <= path.size()) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string component = path.substr(begin, end - begin);
        if (component.empty() || component == "." || component == "..") {
            return false;
        }
        begin = end + 1;
    }
    return true;
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
        Refuse(index, key, "must be a number from 0 on");
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

CameraRecord ReadCamera(const Json::Value& camera, Json::ArrayIndex index) {
    if (!camera.isObject()) {
        throw BadParameter("cameras[" + std::to_string(index) + "]", "must be an object");
    }
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
    if (!IsCleanPath(record.recordingPath)) {
        Refuse(index, "recordingPath", "must be empty or an absolute path in its shortest form");
    }
    return record;
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
        list.append(element);
    }
    Json::Value data(Json::objectValue);
    data["cameras"] = list;
    data["total"] = page.total;
    return data;
}

}  // namespace pavane
