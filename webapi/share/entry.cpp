#include "webapi/share/entry.h"

#include "webapi/share/share_handler.h"

namespace {

constexpr const char* kApi = "KORV.Pavane.Share";
constexpr std::intptr_t kVersion = 1;

}  // namespace

// "ReconnetRemoteMount" is spelled as clients call it.
const KORV::APITableRow gTable[] = {
    {kApi, kVersion, "List", Process},
    {kApi, kVersion, "ListRecShare", Process},
    {kApi, kVersion, "CreateRecShare", ProcessRelay},
    {kApi, kVersion, "DelRecShare", ProcessRelay},
    {kApi, kVersion, "EditRecShare", ProcessRelay},
    {kApi, kVersion, "ListUsingCam", Process},
    {kApi, kVersion, "CheckStorageMigrating", Process},
    {kApi, kVersion, "ListMountedFolder", Process},
    {kApi, kVersion, "ReconnetRemoteMount", Process},
    {kApi, kVersion, "CreateRemoteRecShare", ProcessRelay},
    {kApi, kVersion, "DecryptByFile", Process},
    {kApi, kVersion, "ListShareUsage", Process},
    {nullptr, 0, nullptr, nullptr},
};

const KORV::APITableRow* GetAPITable() { return gTable; }

void Process(KORV::APIRequest* request, KORV::APIResponse* response) {
    ShareHandler handler(request, response);
    handler.HandleProcess();
}

void ProcessRelay(KORV::APIRequest* request, KORV::APIResponse* response) {
    ShareHandler handler(request, response);
    handler.HandleProcessRelay();
}
