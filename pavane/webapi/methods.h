#pragma once

#include <json/json.h>

#include "platform/korv/api_request.h"

// The methods of the application's own web APIs; docs/ref/api.md describes their parameters and answers.
namespace pavane {

Json::Value ListApplicationsMethod(const KORV::APIRequest& request);
Json::Value SetApplicationMethod(const KORV::APIRequest& request);
Json::Value ListApplicationStorageMethod(const KORV::APIRequest& request);
Json::Value AddApplicationStorageMethod(const KORV::APIRequest& request);
Json::Value RemoveApplicationStorageMethod(const KORV::APIRequest& request);

Json::Value ListArchiveTasksMethod(const KORV::APIRequest& request);
Json::Value SetArchiveTaskMethod(const KORV::APIRequest& request);
Json::Value RemoveArchiveTaskMethod(const KORV::APIRequest& request);

Json::Value ImportCamerasMethod(const KORV::APIRequest& request);
Json::Value ListCamerasMethod(const KORV::APIRequest& request);
Json::Value StartMigrationMethod(const KORV::APIRequest& request);
Json::Value StopMigrationMethod(const KORV::APIRequest& request);

Json::Value CmsStatusMethod(const KORV::APIRequest& request);
Json::Value CmsSetRoleMethod(const KORV::APIRequest& request);
Json::Value CmsFingerprintMethod(const KORV::APIRequest& request);
Json::Value CmsAddMethod(const KORV::APIRequest& request);
Json::Value CmsRemoveMethod(const KORV::APIRequest& request);
Json::Value CmsListMethod(const KORV::APIRequest& request);
Json::Value CmsEnableMethod(const KORV::APIRequest& request);
Json::Value CmsDisableMethod(const KORV::APIRequest& request);
Json::Value CmsSetFailoverMethod(const KORV::APIRequest& request);
Json::Value CmsCheckMethod(const KORV::APIRequest& request);
Json::Value CmsRepairMethod(const KORV::APIRequest& request);
Json::Value CmsJoinMethod(const KORV::APIRequest& request);
Json::Value CmsLeaveMethod(const KORV::APIRequest& request);
Json::Value CmsDismissMethod(const KORV::APIRequest& request);
Json::Value CmsPingMethod(const KORV::APIRequest& request);
Json::Value CmsListRecordsMethod(const KORV::APIRequest& request);

Json::Value ListEventsMethod(const KORV::APIRequest& request);

Json::Value GetLogLevelsMethod(const KORV::APIRequest& request);
Json::Value SetLogLevelMethod(const KORV::APIRequest& request);

Json::Value ListServiceLinksMethod(const KORV::APIRequest& request);
Json::Value ListBackupFoldersMethod(const KORV::APIRequest& request);
Json::Value ListServiceNoticesMethod(const KORV::APIRequest& request);
Json::Value TakeServiceNoticeMethod(const KORV::APIRequest& request);

Json::Value GetSnapshotShareMethod(const KORV::APIRequest& request);
Json::Value SetSnapshotShareMethod(const KORV::APIRequest& request);
Json::Value ClearSnapshotShareMethod(const KORV::APIRequest& request);

}  // namespace pavane
