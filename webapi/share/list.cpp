// "ListRecShare": the recording shares that the application knows.

#include <list>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include <json/json.h>

#include "platform/pavane/camera.h"
#include "platform/pavane/rec_share.h"

#include "webapi/share/share_handler.h"

namespace {

// Owning server, then storage folder, compared bytewise.
using FolderKey = std::pair<int, std::string>;
using FolderView = std::pair<int, std::string_view>;

// Finds a folder by a view of its path, without a copy: most cameras record into a folder that is known
// already.
struct FolderLess {
    using is_transparent = void;

    static FolderView View(const FolderKey& key) { return key; }
    static FolderView View(const FolderView& view) { return view; }

    template <class Left, class Right>
    bool operator()(const Left& left, const Right& right) const {
        return View(left) < View(right);
    }
};

using CameraCounts = std::map<FolderKey, int, FolderLess>;

struct ListFilter {
    bool withMigrating;
    bool withEncUnmounted;
    bool withRemoteAbnormal;
};

// The folder above a camera's own; a path without a slash stays as it is.
std::string_view FolderAbove(std::string_view path) { return path.substr(0, path.rfind('/')); }

int& CountOf(CameraCounts& counts, const FolderView& folder) {
    const auto known = counts.find(folder);
    return known != counts.end() ? known->second : counts[FolderKey(folder)];
}

CameraCounts CountCamerasByFolder() {
    CamFilterRule filter;
    filter.ownerRvId = IsCmsHost() ? CamFilterRule::kAnyRv : 0;
    int count = 0;
    CameraCounts counts;
    for (const Camera& camera : CamGetList(filter, count, false)) {
        const std::string_view folder = FolderAbove(camera.GetStoragePath());
        if (!folder.empty()) {
            ++CountOf(counts, FolderView(camera.GetOwnerRvId(), folder));
        }
    }
    return counts;
}

bool IsListed(const RecShare& share, const ListFilter& filter) {
    const int owner = share.GetOwnerRvId();
    if (!filter.withMigrating && share.GetMigrating()) {
        return false;
    }
    if (!filter.withEncUnmounted && share.GetEncType() == SHARE_ENC_LOCKED) {
        return false;
    }
    if (!filter.withRemoteAbnormal && share.GetMountStatus() != SHARE_MOUNT_NORMAL) {
        return false;
    }
    return owner == 0 || (IsRvOnline(owner) && !IsRunTimeFailoverRv(owner));
}

// Single precision on purpose: clients compare the figure with others that are computed so.
double ToGB(std::uint64_t sizeMB) {
    constexpr float kGBPerMB = 0.0009765625F;
    return static_cast<float>(sizeMB) * kGBPerMB;
}

// Static keys: a list of thousands of shares would copy each of them thousands of times.
Json::Value ToElement(const RecShare& share, CameraCounts& counts) {
    using Key = Json::StaticString;
    Json::Value element(Json::objectValue);
    element[Key("shareName")] = share.GetName();
    element[Key("shareId")] = share.GetId();
    element[Key("shareIdOnRec")] = share.GetIdOnRec();
    element[Key("shareVolume")] = share.GetVolume();
    element[Key("sharePath")] = share.GetPath();
    element[Key("shareRvId")] = share.GetOwnerRvId();
    element[Key("displayName")] = share.GetVolume() + " / " + share.GetName();
    element[Key("blHidden")] = share.GetHidden();
    element[Key("description")] = share.GetDescription();
    element[Key("mountSource")] = share.GetMountSource();
    element[Key("mountType")] = static_cast<int>(share.GetMountType());
    element[Key("blAutoMount")] = share.GetAutoMount();
    element[Key("quota")] = ToGB(share.GetTotalSizeMB());
    element[Key("volumeFormat")] = static_cast<int>(share.GetFsType());
    element[Key("mountStatus")] = static_cast<int>(share.GetMountStatus());
    element[Key("blMigrating")] = share.GetMigrating();
    element[Key("encType")] = static_cast<int>(share.GetEncType());
    element[Key("enableRecLimit")] = share.IsEnableRecLimit();
    element[Key("recLimitGB")] = share.GetRecLimitGB();
    element[Key("camCnt")] = CountOf(counts, FolderView(share.GetOwnerRvId(), share.GetPath()));
    return element;
}

}  // namespace

void ShareHandler::HandleListRecShare() {
    ListFilter filter{};
    filter.withMigrating = request->GetParam("blIncldMigrating", false).asBool();
    filter.withEncUnmounted = request->GetParam("blIncldEncUnmount", false).asBool();
    filter.withRemoteAbnormal = request->GetParam("blIncldRemoteAbnormal", false).asBool();
    const int rvId = request->GetParam("rvId", 0).asInt();

    Json::Value list(Json::arrayValue);
    const std::list<RecShare> shares = LoadRecShareFromDB(rvId);
    if (shares.empty()) {
        PV_LOG_SHARE_ERR("HandleListRecShare", "RecShare of RV %d is empty\n", rvId);
    } else {
        CameraCounts counts = CountCamerasByFolder();
        for (const RecShare& share : shares) {
            if (IsListed(share, filter)) {
                list.append(ToElement(share, counts));
            }
        }
    }
    Json::Value data(Json::objectValue);
    data["total"] = list.size();
    data["sharelist"] = std::move(list);
    AnswerUnlessFailed(data);
}
