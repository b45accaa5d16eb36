#pragma once

#include <list>
#include <string>

#include <json/json.h>

// The rest of the application and of the NAS that follows a change of shares. Implemented in
// pavane/recorder/.

// True when the recorder application runs (is installed, started and not being updated).
bool IsPVRunning();

// Tells the NAS's backup configuration which shared folders the application has started and stopped using.
// Folder names, not paths. Failures are logged.
void UpdateBackupInfo(const std::list<std::string>& added, const std::list<std::string>& removed);

// What the NAS knows about the local shared folder `name`: 0 on success, -1 otherwise (`info` is unchanged).
//   info  out: object with "fs_type" (int, _tag_FSTYPE), "vol_size_mb" (unsigned 64-bit, size of its volume),
//         "is_share_moving" (bool) and "encryption" (int, SHARE_ENC_TYPE)
int GetLocalShareExtraInfo(const std::string& name, Json::Value& info);

// Keeps the application's service links in step with the shared folder `name` (a folder name, not a path).
// Failures are logged.
void CheckToUpdatePVServiceLink(const std::string& name);
void CheckToUpdatePVServiceLink(const std::list<std::string>& names);

// Finds the job that is moving the data of the shared folder `name`.
//   taskId  out: the job's id
// 0 when there is one; otherwise non-zero and `taskId` is unchanged.
int GetShareMovingTaskId(const std::string& name, std::string& taskId);

// The path of the shared folder that keeps snapshots; empty when there is none.
//   create  true: choose one when there is none
std::string GetSnapshotSharePath(bool create);

// Makes the application forget its snapshot share, which has been deleted. 0 on success.
int HandleSnapshotShareDelete();

// The error code of a web API's answer, 0 when it says success.
int GetAPIErrCode(const Json::Value& reply);

// True when the answer of a web API says success.
bool IsSuccess(const Json::Value& reply);
