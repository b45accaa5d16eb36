// "KORV.Pavane.Service": what other services of this machine are told about the recording shares.

#include "pavane/recorder/archive_store.h"
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

Json::Value ListServiceNoticesMethod(const KORV::APIRequest& request) {
    const PageRequest wanted = ReadPage(request);
    const NoticePage page = ListServiceNotices(wanted.offset, wanted.limit);
    Json::Value list(Json::arrayValue);
    for (const ServiceNotice& notice : page.notices) {
        Json::Value element(Json::objectValue);
        element["id"] = notice.id;
        element["service"] = notice.service;
        element["operation"] = notice.operation;
        element["path"] = notice.path;
        element["newPath"] = notice.newPath;
        element["afterwards"] = notice.isAfterwards;
        element["time"] = Json::Int64{notice.time_s};
        list.append(element);
    }
    Json::Value data(Json::objectValue);
    data["notices"] = list;
    data["total"] = page.total;
    return data;
}

Json::Value TakeServiceNoticeMethod(const KORV::APIRequest& request) {
    if (!RemoveServiceNotice(request.GetParam("id", 0).asInt())) {
        throw BadParameter("id", "must be the id of a notice");
    }
    return Json::Value();
}

}  // namespace pavane
