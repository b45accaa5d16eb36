// "KORV.Pavane.Service": what other services of this machine are told about the recording shares.

#include "pavane/recorder/backup_folders.h"
#include "pavane/recorder/service_links.h"
#include "pavane/webapi/api_call.h"
#include "pavane/webapi/methods.h"

namespace pavane {

Json::Value ListServiceLinksMethod(const KORV::APIRequest& /*request*/) {
    Json::Value list(Json::arrayValue);
    for (const ServiceLink& link : ListServiceLinks()) {
        Json::Value element(Json::objectValue);
        element["name"] = link.name;
        element["path"] = link.path;
        element["inPlace"] = link.inPlace;
        list.append(element);
    }
    Json::Value data(Json::objectValue);
    data["total"] = list.size();
    data["links"] = list;
    return data;
}

Json::Value ListBackupFoldersMethod(const KORV::APIRequest& /*request*/) {
    Json::Value list(Json::arrayValue);
    for (const BackupFolder& folder : ListBackupFolders()) {
        Json::Value element(Json::objectValue);
        element["name"] = folder.name;
        element["addedTime"] = Json::Int64{folder.added_s};
        list.append(element);
    }
    Json::Value data(Json::objectValue);
    data["total"] = list.size();
    data["folders"] = list;
    return data;
}

}  // namespace pavane
