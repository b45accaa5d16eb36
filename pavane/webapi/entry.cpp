// The application's own web APIs: which method serves what, and who may call it.

#include "platform/korv/api_table.h"
#include "platform/korv/host.h"

#include "pavane/cms/pairing.h"
#include "pavane/recorder/log_config.h"
#include "pavane/recorder/mount_state.h"
#include "pavane/webapi/api_call.h"
#include "pavane/webapi/health.h"
#include "pavane/webapi/methods.h"

namespace {

using pavane::Access;

template <Access Needed, pavane::ApiMethod Method>
void Entry(KORV::APIRequest* request, KORV::APIResponse* response) {
    pavane::Serve(Needed, Method, *request, *response);
}

constexpr const char* kCamera = "KORV.Pavane.Camera";
constexpr const char* kEvent = "KORV.Pavane.Event";
constexpr const char* kLog = "KORV.Pavane.Log";
constexpr const char* kService = "KORV.Pavane.Service";
constexpr std::intptr_t kVersion = 1;

const KORV::APITableRow kTable[] = {
    {kCamera, kVersion, "import", Entry<Access::kChange, pavane::ImportCamerasMethod>},
    {kCamera, kVersion, "list", Entry<Access::kUse, pavane::ListCamerasMethod>},
    {kEvent, kVersion, "list", Entry<Access::kUse, pavane::ListEventsMethod>},
    {kLog, kVersion, "get_level", Entry<Access::kUse, pavane::GetLogLevelsMethod>},
    {kLog, kVersion, "set_level", Entry<Access::kChange, pavane::SetLogLevelMethod>},
    {kService, kVersion, "list_links", Entry<Access::kUse, pavane::ListServiceLinksMethod>},
    {kService, kVersion, "list_backup", Entry<Access::kUse, pavane::ListBackupFoldersMethod>},
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
}
