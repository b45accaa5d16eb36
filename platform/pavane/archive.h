#pragma once

#include <list>
#include <string>

#include <json/json.h>

// Services of the application that keep paths of shares of their own. Implemented in
// pavane/recorder/archive.cpp.

// Kinds of archive tasks.
enum ARCH_TASK_TYPE : int {
    ARCH_TASK_ALL = 0,
};

// What has happened to a shared folder.
enum SHARE_OPERATION : int {
    SHARE_OPERATION_REC_SHARE_REMOVED = 6,  // it stays, but is no recording share any more
};

class ArchPullApi {
public:
    // The archive tasks of the server named `server` (empty = this one): an array of objects with "id" (int),
    // "name", "type" (int) and "storagePath" (absolute path, no trailing slash). Throws std::exception when
    // they can't be read: whoever took that for none would delete a folder that a task stores into.
    static Json::Value GetTasks(const std::string& server, ARCH_TASK_TYPE type);

    // Tells the archive service of a change; kept until the service has taken it, also over a restart.
    //   path        the shared folder's path
    //   newPath     its new path, empty when it has none
    //   afterwards  true: tell it only once the request has been answered
    static void NotifyShareUpdate(SHARE_OPERATION operation, const std::string& path,
                                  const std::string& newPath, bool afterwards);
};

class TimeLapseApi {
public:
    // The same for the time-lapse service.
    static void NotifyShareUpdate(SHARE_OPERATION operation, const std::string& path,
                                  const std::string& newPath, bool afterwards);
};

// Implemented in pavane/recorder/rotation_job.cpp.
class PvRotateApi {
public:
    // Starts removing the oldest recordings of shares that are over their limit; doesn't wait for it.
    //   rvId  0 = this server's shares
    static void StartRotate(int rvId);
};
