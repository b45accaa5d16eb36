#pragma once

#include <json/json.h>

#include "platform/korv/api_request.h"

// The methods of the application's own web APIs; docs/ref/api.md describes their parameters and answers.
namespace pavane {

Json::Value ImportCamerasMethod(const KORV::APIRequest& request);
Json::Value ListCamerasMethod(const KORV::APIRequest& request);

Json::Value ListEventsMethod(const KORV::APIRequest& request);

Json::Value GetLogLevelsMethod(const KORV::APIRequest& request);
Json::Value SetLogLevelMethod(const KORV::APIRequest& request);

Json::Value ListServiceLinksMethod(const KORV::APIRequest& request);
Json::Value ListBackupFoldersMethod(const KORV::APIRequest& request);

}  // namespace pavane
