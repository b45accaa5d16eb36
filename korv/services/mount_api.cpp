// The web APIs "KORV.Tarsel.Mount" and "KORV.Tarsel.Mount.List": remote folders mounted inside shares.

#include <string>

#include "platform/korv/api_table.h"

#include "korv/framework/builtin_tables.h"
#include "korv/framework/error_code.h"
#include "korv/framework/host.h"
#include "korv/framework/log.h"
#include "korv/services/mount_list.h"
#include "korv/services/request_values.h"
#include "korv/system/remote_mounts.h"

namespace {

constexpr const char* kMountApi = "KORV.Tarsel.Mount";
constexpr const char* kListApi = "KORV.Tarsel.Mount.List";

bool Admit(const KORV::APIRequest& request, KORV::APIResponse& response) {
    if (request.IsAuthorized()) {
        return true;
    }
    response.SetError(korv::kErrorNotAllowed, Json::Value());
    return false;
}

korv::MountCaller CallerOf(const KORV::APIRequest& request) {
    return {request.GetLoginUserName(), request.IsAdmin()};
}

void Answer(KORV::APIResponse& response, const korv::MountEnd& end, const std::string& what) {
    if (end.failure == korv::MountFailure::kNone) {
        response.SetSuccess(Json::Value());
        return;
    }
    const int code = static_cast<int>(end.failure);
    korv::LogLine(what + " failed with " + std::to_string(code) +
                  (end.output.empty() ? "" : ": " + end.output));
    response.SetError(code, Json::Value());
}

void MountFolder(KORV::APIRequest* request, KORV::APIResponse* response) {
    if (!Admit(*request, *response)) {
        return;
    }
    const Json::Value params = korv::ParamsOf(*request);
    const std::string type = korv::StringOf(params, "mount_type", "");
    if (type != "CIFS" && type != "NFS") {
        response->SetError(korv::kErrorBadParameter, Json::Value());
        return;
    }
    korv::NewMount wanted;
    wanted.type = type == "CIFS" ? korv::RemoteType::kCifs : korv::RemoteType::kNfs;
    wanted.account = {korv::StringOf(params, "account", ""), korv::StringOf(params, "passwd", "")};
    wanted.nfsVersion = korv::StringOf(params, "nfs_version", "");
    wanted.protocol = korv::StringOf(params, "protocol", "");
    wanted.isOwned = korv::BoolOf(params, "user_set", true);
    wanted.source = korv::StringOf(params, "server_ip", "");
    wanted.mountPoint = korv::StringOf(params, "mount_point", "");
    wanted.isAutomatic = korv::BoolOf(params, "auto_mount", false);
    wanted.options = korv::StringOf(params, "adv_opt", "");
    Answer(*response, korv::AddMount(wanted, CallerOf(*request)), "mounting at " + wanted.mountPoint);
}

// Who looks after mounts no longer knows of it, so whatever stands on it is told here.
void TellOfUnmounted(const std::string& path) {
    korv::MountFailure ignored = korv::MountFailure::kNone;
    for (const korv::MountPlace& place : korv::FindMountPlaces(path, ignored)) {
        if (!korv::IsMounted(place.Path())) {
            korv::AnnounceMountState(place.Path(), false);
        }
    }
}

// "is_mount_point" says that the path is the mount point itself; a path somewhere below one is not taken for
// it.
void Unmount(KORV::APIRequest* request, KORV::APIResponse* response) {
    if (!Admit(*request, *response)) {
        return;
    }
    const Json::Value params = korv::ParamsOf(*request);
    const std::string path = korv::StringOf(params, "mount_point", "");
    if (korv::StringOf(params, "mount_type", "remote") != "remote" ||
        !korv::BoolOf(params, "is_mount_point", true)) {
        response->SetError(korv::kErrorBadParameter, Json::Value());
        return;
    }
    const korv::MountEnd end = korv::RemoveMount(path, CallerOf(*request));
    if (end.failure == korv::MountFailure::kNone) {
        TellOfUnmounted(path);
    }
    Answer(*response, end, "unmounting " + path);
}

void Reconnect(KORV::APIRequest* request, KORV::APIResponse* response) {
    if (!Admit(*request, *response)) {
        return;
    }
    korv::MountEnd failed{korv::MountFailure::kNone, ""};
    std::string what;
    for (const Json::Value& path : korv::ArrayOf(korv::ParamsOf(*request), "mount_point")) {
        if (!path.isString()) {
            Json::throwLogicError("mount_point holds something that is no text");
        }
        const korv::MountEnd end = korv::ReconnectMount(path.asString(), CallerOf(*request));
        if (failed.failure == korv::MountFailure::kNone) {
            failed = end;
            what = "reconnecting " + path.asString();
        }
    }
    Answer(*response, failed, what);
}

void List(KORV::APIRequest* request, KORV::APIResponse* response) {
    if (!Admit(*request, *response)) {
        return;
    }
    const bool withState = korv::BoolOf(korv::ParamsOf(*request), "with_state", false);
    response->SetSuccess(korv::MountList(CallerOf(*request), withState));
}

}  // namespace

const KORV::APITableRow* korv::MountTable() {
    static constexpr KORV::APITableRow kTable[] = {
        {kMountApi, 1, "mount_remote", MountFolder},
        {kMountApi, 1, "unmount", Unmount},
        {kListApi, 1, "list", List},
        {kListApi, 1, "reconnect", Reconnect},
        {nullptr, 0, nullptr, nullptr},
    };
    return kTable;
}
