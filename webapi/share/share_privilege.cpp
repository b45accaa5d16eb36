#include "webapi/share/share_privilege.h"

#include <memory>

#include "platform/korv/filesystem.h"
#include "platform/korv/share.h"

#include "include/run_as_scope.h"
#include "webapi/share/share_handler.h"

namespace {

using ShareRecord = std::unique_ptr<KORVSHARE, decltype(&KORVShareFree)>;

// The record, whatever the platform made of it, is released also when it can't be used.
ShareRecord FindShare(const std::string& name, bool& isFound) {
    KORVSHARE* share = nullptr;
    isFound = KORVShareGet(name.c_str(), &share) == 0 && share != nullptr;
    return {share, KORVShareFree};
}

}  // namespace

int CheckSharePrivilege(const std::string& name, const std::string& user, unsigned int mask) {
    constexpr int kUnknown = -1;
    bool isFound = false;
    const ShareRecord share = FindShare(name, isFound);
    if (!isFound) {
        return -1;
    }
    const std::string path = share->path != nullptr ? share->path : "";
    if (path.empty() || !IsExistDir(path)) {
        return -1;
    }
    const RunAsScope root = IF_RUN_AS;
    if (!root) {
        PV_LOG_SHARE_ERR("CheckSharePrivilege", "Failed to run as root.\n");
        return -1;
    }
    const int rights = KLIBShareUserRightGet(user.c_str(), share.get());
    if (rights == kUnknown) {
        return -1;
    }
    return (static_cast<unsigned int>(rights) & mask) != 0 ? 0 : -1;
}
