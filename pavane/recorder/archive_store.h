#pragma once

#include <list>
#include <string>

namespace pavane {

// A task that copies recordings to or from another place. Functions throw (pavane/store/database.h).
struct ArchiveTask {
    int id = 0;
    std::string server{};  // empty = this one
    std::string name{};    // unique per server
    int type = 1;          // from 1 on; 0 asks for all
    std::string storagePath{};
};

// Of one server, by id; `type` 0 gives those of every type.
std::list<ArchiveTask> ListArchiveTasks(const std::string& server, int type);

// Adds the task, or changes the one of that server and name; its id.
int SaveArchiveTask(const ArchiveTask& task);

// False when there was none.
bool RemoveArchiveTask(int id);

// What another service of the application has not taken yet.
struct ServiceNotice {
    int id = 0;
    std::string service{};  // "archive" or "timelapse"
    int operation = 0;      // SHARE_OPERATION
    std::string path{};
    std::string newPath{};
    bool isAfterwards = false;
    long long time_s = 0;
};

// Keeps a notice; id and time are set here.
void AddServiceNotice(const ServiceNotice& notice);

struct NoticePage {
    std::list<ServiceNotice> notices;
    int total = 0;
};

// The oldest first: at most `limit`, after skipping `offset`; `total` counts all.
NoticePage ListServiceNotices(int offset, int limit);

// The service has taken the notice. False when there was none.
bool RemoveServiceNotice(int id);

}  // namespace pavane
