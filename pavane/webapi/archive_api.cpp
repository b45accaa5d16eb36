// "KORV.Pavane.Archive": tasks that archive recordings of, or into, a storage path.

#include <list>
#include <string>

#include "pavane/recorder/archive_store.h"
#include "pavane/webapi/api_call.h"
#include "pavane/webapi/methods.h"

namespace pavane {

namespace {

constexpr std::size_t kLongestName = 255;

// A name of at most 255 bytes; may be empty only where `isOptional`.
std::string ReadName(const KORV::APIRequest& request, const char* parameter, bool isOptional) {
    std::string name = request.GetParam(parameter, "").asString();
    if ((name.empty() && !isOptional) || name.size() > kLongestName || !IsPlainText(name)) {
        throw BadParameter(parameter, "must be at most 255 bytes of UTF-8 without control characters");
    }
    return name;
}

Json::Value ToElement(const ArchiveTask& task) {
    Json::Value element(Json::objectValue);
    element["id"] = task.id;
    element["name"] = task.name;
    element["server"] = task.server;
    element["type"] = task.type;
    element["storagePath"] = task.storagePath;
    return element;
}

}  // namespace

Json::Value ListArchiveTasksMethod(const KORV::APIRequest& request) {
    Json::Value list(Json::arrayValue);
    for (const ArchiveTask& task : ListArchiveTasks(ReadName(request, "server", true), 0)) {
        list.append(ToElement(task));
    }
    Json::Value data(Json::objectValue);
    data["total"] = list.size();
    data["tasks"] = list;
    return data;
}

Json::Value SetArchiveTaskMethod(const KORV::APIRequest& request) {
    ArchiveTask task;
    task.name = ReadName(request, "name", false);
    task.server = ReadName(request, "server", true);
    task.type = request.GetParam("type", task.type).asInt();
    task.storagePath = request.GetParam("storagePath", "").asString();
    if (task.type < 1) {
        throw BadParameter("type", "must be a number from 1 on");
    }
    if (!IsCleanPath(task.storagePath)) {
        throw BadParameter("storagePath", "must be an absolute path in its shortest form");
    }
    Json::Value data(Json::objectValue);
    data["id"] = SaveArchiveTask(task);
    return data;
}

Json::Value RemoveArchiveTaskMethod(const KORV::APIRequest& request) {
    if (!RemoveArchiveTask(request.GetParam("id", 0).asInt())) {
        throw BadParameter("id", "must be the id of an archive task");
    }
    return Json::Value();
}

}  // namespace pavane
