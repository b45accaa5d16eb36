#include "korv/services/mount_list.h"

#include <algorithm>
#include <exception>
#include <string>
#include <vector>

#include "platform/korv/api_runner.h"
#include "platform/korv/mount.h"

#include "include/trailing_slashes.h"
#include "korv/framework/log.h"
#include "korv/system/bounded_call.h"
#include "korv/system/mount_probe.h"
#include "korv/system/mount_record.h"
#include "korv/system/mount_table.h"
#include "korv/system/share_store.h"

namespace korv {

namespace {

Json::Value Element(const MountRow& row) {
    Json::Value element(Json::objectValue);
    element["mount_point"] = row.mountPoint;
    element["share"] = row.share;
    element["type"] = TextOf(row.type);
    element["source"] = row.source;
    element["auto_mount"] = row.isAutomatic ? "yes" : "no";
    element["managed"] = true;
    element["mounted"] = IsMounted(row.mountPoint);
    element["status"] = row.isNormal ? 0 : 1;
    element["last_error"] = row.lastError;
    return element;
}

struct ForeignMount {
    Mount mount;
    std::string share;
};

// Mounts inside shares that this service has not made.
std::vector<ForeignMount> ForeignMounts(const std::vector<MountRow>& known) {
    std::vector<ForeignMount> foreign;
    const std::vector<ShareRow> shares = ListShares();
    for (const Mount& mount : ListMounts()) {
        const bool isKnown = std::any_of(known.begin(), known.end(), [&mount](const MountRow& row) {
            return row.mountPoint == mount.mountPoint;
        });
        const auto share = std::find_if(shares.begin(), shares.end(), [&mount](const ShareRow& each) {
            return mount.mountPoint.rfind(each.Path() + "/", 0) == 0;
        });
        if (!isKnown && share != shares.end()) {
            foreign.push_back({mount, share->name});
        }
    }
    return foreign;
}

// Those that come from other machines, as far as their type tells.
std::vector<MountRow> ForeignRemoteMounts(const std::vector<MountRow>& known) {
    std::vector<MountRow> remote;
    for (const auto& [mount, share] : ForeignMounts(known)) {
        const bool isNfs = mount.fsType == "nfs" || mount.fsType == "nfs4";
        if (isNfs || mount.fsType == "cifs" || mount.fsType == "smb3") {
            MountRow row;
            row.mountPoint = mount.mountPoint;
            row.share = share;
            row.type = isNfs ? RemoteType::kNfs : RemoteType::kCifs;
            row.source = mount.source;
            row.isNormal = true;
            remote.push_back(row);
        }
    }
    return remote;
}

void AddState(Json::Value& elements) {
    std::vector<std::string> paths;
    for (const Json::Value& element : elements) {
        paths.push_back(element["mount_point"].asString());
    }
    const std::vector<MountFacts> facts = LookAtMounts(paths);
    for (Json::ArrayIndex i = 0; i < elements.size(); ++i) {
        elements[i]["alive"] = facts[i].sight == MountSight::kAlive;
    }
}

_tag_FSTYPE TypeAt(const std::string& mountPoint, const MountFacts& facts) {
    if (facts.type != FileSystemType::kOther) {
        return static_cast<_tag_FSTYPE>(facts.type);
    }
    // Mounted through a program; what it speaks stands in the row.
    const auto row = FindMountRow(WithoutTrailingSlashes(mountPoint));
    if (!row) {
        return FSTYPE_OTHER;
    }
    return row->type == RemoteType::kCifs ? FSTYPE_CIFS : FSTYPE_NFS;
}

}  // namespace

std::map<std::string, bool> LookAtForeignMounts() {
    std::vector<std::string> paths;
    std::map<std::string, bool> areAlive;
    for (const auto& [mount, share] : ForeignMounts(ListMountRows())) {
        // Each look costs a process, and containers may have many folders of a share mounted.
        if (IsPathPrompt(mount.mountPoint)) {
            areAlive[mount.mountPoint] = true;
        } else {
            paths.push_back(mount.mountPoint);
        }
    }
    const std::vector<MountFacts> facts = LookAtMounts(paths);
    for (std::size_t i = 0; i < paths.size(); ++i) {
        areAlive[paths[i]] = facts[i].sight == MountSight::kAlive;
    }
    return areAlive;
}

Json::Value MountList(const MountCaller& caller, bool withState) {
    const std::vector<MountRow> known = ListMountRows();
    Json::Value elements(Json::arrayValue);
    for (const MountRow& row : known) {
        if (row.state == MountState::kKept && (caller.isAdmin || row.owner == caller.name)) {
            elements.append(Element(row));
        }
    }
    if (caller.isAdmin) {
        for (const MountRow& row : ForeignRemoteMounts(known)) {
            Json::Value element = Element(row);
            element["managed"] = false;
            elements.append(element);
        }
    }
    if (withState) {
        AddState(elements);
    }
    Json::Value list(Json::objectValue);
    list["total"] = elements.size();
    list["mounts"] = std::move(elements);
    return list;
}

}  // namespace korv

int GetLocalMountedFolderByWebApi(Json::Value& mounts, bool withState) {
    Json::Value wanted(Json::objectValue);
    wanted["with_state"] = withState;
    Json::Value reply;
    KORV::APIRunner::Exec(reply, "KORV.Tarsel.Mount.List", 1, "list", wanted, "admin");
    const Json::Value& answer = reply;
    if (!answer["success"].asBool()) {
        return -1;
    }
    Json::Value mounted(Json::arrayValue);
    for (const Json::Value& each : answer["data"]["mounts"]) {
        if (!each["mounted"].asBool()) {
            continue;
        }
        Json::Value element(Json::objectValue);
        for (const char* key : {"mount_point", "type", "auto_mount", "source", "alive"}) {
            if (each.isMember(key)) {
                element[key] = each[key];
            }
        }
        mounted.append(element);
    }
    mounts = std::move(mounted);
    return 0;
}

int GetMntPointFSInfo(const std::string& mountPoint, _tag_FSTYPE& fsType, std::uint64_t& sizeMB) {
    try {
        const korv::MountFacts facts = korv::LookAtMount(mountPoint);
        if (facts.sight != korv::MountSight::kAlive) {
            return -1;
        }
        fsType = korv::TypeAt(mountPoint, facts);
        sizeMB = facts.sizeMb;
        return 0;
    } catch (const std::exception& error) {
        korv::LogLine(std::string("cannot look at a mount: ") + error.what());
        return -1;
    }
}

bool IsMountPoint(const std::string& path) {
    try {
        return korv::IsMounted(path);
    } catch (const std::exception& error) {
        korv::LogLine(error.what());
        return true;
    }
}

int GetRemoteMountStatus(const std::string& path) {
    try {
        return static_cast<int>(korv::LookAtMount(path).sight);
    } catch (const std::exception& error) {
        korv::LogLine(std::string("cannot look at a mount: ") + error.what());
        return -1;
    }
}
