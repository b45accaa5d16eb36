// "KORV.Pavane.Application": the package's applications and the shared folders that they use.

#include <optional>
#include <string>

#include "platform/pavane/application.h"

#include "pavane/recorder/application_store.h"
#include "pavane/webapi/api_call.h"
#include "pavane/webapi/methods.h"

namespace pavane {

namespace {

constexpr std::size_t kLongestName = 255;

int ReadId(const KORV::APIRequest& request, const char* name, int least) {
    const Json::Value value = request.GetParam(name, Json::Value());
    if (!value.isInt() || value.asInt() < least) {
        throw BadParameter(name, "must be a number from " + std::to_string(least) + " to 2147483647");
    }
    return value.asInt();
}

// Nothing when it isn't given.
std::optional<bool> ReadFlag(const KORV::APIRequest& request, const char* name) {
    const Json::Value value = request.GetParam(name, Json::Value());
    if (value.isNull()) {
        return std::nullopt;
    }
    if (!value.isBool()) {
        throw BadParameter(name, "must be true or false");
    }
    return value.asBool();
}

ApplicationStorage ReadStorage(const KORV::APIRequest& request) {
    ApplicationStorage row;
    row.applicationId = ReadId(request, "applicationId", 0);
    row.shareId = ReadId(request, "shareId", kNoShare);
    const Json::Value name = request.GetParam("name", Json::Value());
    if (!name.isString() || name.asString().empty() || name.asString().size() > kLongestName ||
        !IsPlainText(name.asString())) {
        throw BadParameter("name", "must be 1 to 255 bytes of UTF-8 without control characters");
    }
    row.name = name.asString();
    return row;
}

}  // namespace

Json::Value ListApplicationsMethod(const KORV::APIRequest& /*request*/) {
    const auto flags = ReadApplicationFlags();  // what can't be read is told, not guessed as the traits do
    const auto traits = ApplicationTraits();
    Json::Value list(Json::arrayValue);
    for (std::size_t i = 0; i < traits.size(); ++i) {
        const ApplicationFlags own = FlagsOf(flags, static_cast<int>(i));
        Json::Value element(Json::objectValue);
        element["id"] = static_cast<int>(i);
        element["name"] = PVJson::JsonConverter<MultilangString, void>::ToJson(traits[i].GetName());
        element["compatible"] = own.isCompatible;
        element["enabled"] = own.isEnabled;
        list.append(element);
    }
    Json::Value data(Json::objectValue);
    data["total"] = list.size();
    data["applications"] = list;
    return data;
}

Json::Value SetApplicationMethod(const KORV::APIRequest& request) {
    const int id = ReadId(request, "applicationId", 0);
    if (id >= static_cast<int>(kApplicationCount)) {
        throw BadParameter("applicationId", "must be the id of an application of the package");
    }
    const ApplicationChange change{ReadFlag(request, "compatible"), ReadFlag(request, "enabled")};
    if (!change.isCompatible.has_value() && !change.isEnabled.has_value()) {
        throw BadParameter("enabled", "must be given, or \"compatible\"");
    }
    WriteApplicationFlags(id, change);
    return Json::Value();
}

Json::Value ListApplicationStorageMethod(const KORV::APIRequest& request) {
    const PageRequest wanted = ReadPage(request);
    const ApplicationStoragePage page = ListApplicationStorage(wanted.offset, wanted.limit);
    Json::Value list(Json::arrayValue);
    for (const ApplicationStorage& row : page.rows) {
        Json::Value element(Json::objectValue);
        element["name"] = row.name;
        element["shareId"] = row.shareId;
        element["applicationId"] = row.applicationId;
        list.append(element);
    }
    Json::Value data(Json::objectValue);
    data["storage"] = list;
    data["total"] = page.total;
    return data;
}

Json::Value AddApplicationStorageMethod(const KORV::APIRequest& request) {
    const StorageAddition result = AddApplicationStorage(ReadStorage(request));
    if (result == StorageAddition::kNoSuchShare) {
        throw BadParameter("shareId", "must be the id of a recording share of this server, or -1");
    }
    Json::Value data(Json::objectValue);
    data["added"] = result == StorageAddition::kAdded;
    return data;
}

// Also of a share that was deleted meanwhile: its rows have to go all the same.
Json::Value RemoveApplicationStorageMethod(const KORV::APIRequest& request) {
    Json::Value data(Json::objectValue);
    data["removed"] = RemoveApplicationStorage(ReadStorage(request));
    return data;
}

}  // namespace pavane
