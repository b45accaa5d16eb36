#include "platform/pavane/archive.h"

#include <exception>

#include "pavane/log_line.h"
#include "pavane/recorder/archive_store.h"
#include "pavane/store/database.h"

namespace {

constexpr const char* kSource = "pavane/recorder/archive";

void Keep(const char* service, SHARE_OPERATION operation, const std::string& path, const std::string& newPath,
          bool isAfterwards) {
    try {
        pavane::AddServiceNotice({0, service, operation, path, newPath, isAfterwards, 0});
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Lost a notice to the %s service: %s\n", service,
                    pavane::DescribeFailure(failure).c_str());
    }
}

}  // namespace

Json::Value ArchPullApi::GetTasks(const std::string& server, ARCH_TASK_TYPE type) {
    Json::Value tasks(Json::arrayValue);
    for (const pavane::ArchiveTask& task : pavane::ListArchiveTasks(server, type)) {
        Json::Value element(Json::objectValue);
        element["id"] = task.id;
        element["name"] = task.name;
        element["type"] = task.type;
        element["storagePath"] = task.storagePath;
        tasks.append(element);
    }
    return tasks;
}

void ArchPullApi::NotifyShareUpdate(SHARE_OPERATION operation, const std::string& path,
                                    const std::string& newPath, bool afterwards) {
    Keep("archive", operation, path, newPath, afterwards);
}

void TimeLapseApi::NotifyShareUpdate(SHARE_OPERATION operation, const std::string& path,
                                     const std::string& newPath, bool afterwards) {
    Keep("timelapse", operation, path, newPath, afterwards);
}
