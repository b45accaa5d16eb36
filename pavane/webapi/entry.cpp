// The application's own web APIs: which method serves what, and who may call it.

#include "platform/korv/api_table.h"
#include "platform/korv/host.h"

#include "pavane/cms/pairing.h"
#include "pavane/cms/server_state.h"
#include "pavane/recorder/log_config.h"
#include "pavane/recorder/mount_state.h"
#include "pavane/recorder/rotation_job.h"
#include "pavane/recorder/share_state.h"
#include "pavane/webapi/api_call.h"
#include "pavane/webapi/health.h"
#include "pavane/webapi/methods.h"

namespace {

using pavane::Access;

template <Access Needed, pavane::ApiMethod Method>
void Entry(KORV::APIRequest* request, KORV::APIResponse* response) {
    pavane::Serve(Needed, Method, *request, *response);
}

constexpr const char* kApplication = "KORV.Pavane.Application";
constexpr const char* kArchive = "KORV.Pavane.Archive";
constexpr const char* kCamera = "KORV.Pavane.Camera";
constexpr const char* kCms = pavane::kCmsApi;
constexpr const char* kEvent = "KORV.Pavane.Event";
constexpr const char* kLog = "KORV.Pavane.Log";
constexpr const char* kService = "KORV.Pavane.Service";
constexpr const char* kSnapshot = "KORV.Pavane.Snapshot";
constexpr std::intptr_t kVersion = 1;

const KORV::APITableRow kTable[] = {
    {kApplication, kVersion, "list", Entry<Access::kUse, pavane::ListApplicationsMethod>},
    {kApplication, kVersion, "set", Entry<Access::kChange, pavane::SetApplicationMethod>},
    {kApplication, kVersion, "list_storage", Entry<Access::kUse, pavane::ListApplicationStorageMethod>},
    {kApplication, kVersion, "add_storage", Entry<Access::kChange, pavane::AddApplicationStorageMethod>},
    {kApplication, kVersion, "remove_storage",
     Entry<Access::kChange, pavane::RemoveApplicationStorageMethod>},
    {kArchive, kVersion, "list", Entry<Access::kUse, pavane::ListArchiveTasksMethod>},
    {kArchive, kVersion, "set", Entry<Access::kChange, pavane::SetArchiveTaskMethod>},
    {kArchive, kVersion, "remove", Entry<Access::kChange, pavane::RemoveArchiveTaskMethod>},
    {kCamera, kVersion, "import", Entry<Access::kChange, pavane::ImportCamerasMethod>},
    {kCamera, kVersion, "list", Entry<Access::kUse, pavane::ListCamerasMethod>},
    {kCamera, kVersion, "migrate_start", Entry<Access::kChange, pavane::StartMigrationMethod>},
    {kCamera, kVersion, "migrate_stop", Entry<Access::kChange, pavane::StopMigrationMethod>},
    {kCms, kVersion, "status", Entry<Access::kUse, pavane::CmsStatusMethod>},
    {kCms, kVersion, "set_role", Entry<Access::kChange, pavane::CmsSetRoleMethod>},
    {kCms, kVersion, "fingerprint", Entry<Access::kChange, pavane::CmsFingerprintMethod>},
    {kCms, kVersion, "add", Entry<Access::kChange, pavane::CmsAddMethod>},
    {kCms, kVersion, "remove", Entry<Access::kChange, pavane::CmsRemoveMethod>},
    {kCms, kVersion, "list", Entry<Access::kUse, pavane::CmsListMethod>},
    {kCms, kVersion, "enable", Entry<Access::kChange, pavane::CmsEnableMethod>},
    {kCms, kVersion, "disable", Entry<Access::kChange, pavane::CmsDisableMethod>},
    {kCms, kVersion, "set_failover", Entry<Access::kChange, pavane::CmsSetFailoverMethod>},
    {kCms, kVersion, "check", Entry<Access::kUse, pavane::CmsCheckMethod>},
    {kCms, kVersion, "repair", Entry<Access::kChange, pavane::CmsRepairMethod>},
    {kCms, kVersion, "join", Entry<Access::kChange, pavane::CmsJoinMethod>},
    {kCms, kVersion, "leave", Entry<Access::kChange, pavane::CmsLeaveMethod>},
    {kCms, kVersion, "dismiss", Entry<Access::kPeer, pavane::CmsDismissMethod>},
    {kCms, kVersion, "ping", Entry<Access::kPeer, pavane::CmsPingMethod>},
    {kCms, kVersion, "list_records", Entry<Access::kPeer, pavane::CmsListRecordsMethod>},
    {kEvent, kVersion, "list", Entry<Access::kUse, pavane::ListEventsMethod>},
    {kLog, kVersion, "get_level", Entry<Access::kUse, pavane::GetLogLevelsMethod>},
    {kLog, kVersion, "set_level", Entry<Access::kChange, pavane::SetLogLevelMethod>},
    {kService, kVersion, "list_links", Entry<Access::kUse, pavane::ListServiceLinksMethod>},
    {kService, kVersion, "list_backup", Entry<Access::kUse, pavane::ListBackupFoldersMethod>},
    {kService, kVersion, "list_notices", Entry<Access::kUse, pavane::ListServiceNoticesMethod>},
    {kService, kVersion, "take_notice", Entry<Access::kChange, pavane::TakeServiceNoticeMethod>},
    {kSnapshot, kVersion, "get", Entry<Access::kUse, pavane::GetSnapshotShareMethod>},
    {kSnapshot, kVersion, "set", Entry<Access::kChange, pavane::SetSnapshotShareMethod>},
    {kSnapshot, kVersion, "clear", Entry<Access::kChange, pavane::ClearSnapshotShareMethod>},
    {nullptr, 0, nullptr, nullptr},
};

}  // namespace

extern "C" const KORV::APITableRow* GetAPITable() { return static_cast<const KORV::APITableRow*>(kTable); }

// A log configuration that can't be opened costs the control over levels, not the requests; it is logged.
extern "C" void OnModuleLoaded() {
    pavane::OpenLogConfig(pavane::LogConfigPath());
    KORV::RegisterHealthCheck("application database", pavane::CheckAppDatabase);
    KORV::RegisterPairCheck(pavane::AdmitPeer);
    KORV::RegisterMountObserver(pavane::NoteMountState);
    using KORV::JobLength;
    KORV::RegisterPeriodicJob("state of paired servers", pavane::kRefreshInterval_s, JobLength::kShort,
                              pavane::RefreshServerStates);
    KORV::RegisterPeriodicJob("state of shares", pavane::kShareStateInterval_s, JobLength::kShort,
                              pavane::RefreshShareStates);
    // It walks folders that may be large, on disks that may be slow.
    KORV::RegisterPeriodicJob("rotation", pavane::kRotationInterval_s, JobLength::kLong,
                              pavane::RotateDueShares);
}
