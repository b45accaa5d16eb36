// Shared folders, rights, volumes, quotas and accounts of the NAS.

#include "tests/fake/shared_folders.h"

#include <memory>
#include <set>

#include "platform/korv/share.h"
#include "platform/korv/volume.h"

#include "tests/fake/director.h"

using fake::Args;
using fake::Ask;

namespace {

struct Record : KORVSHARE {
    std::string nameText;
    std::string pathText;
};

std::set<KORVSHARE*>& OpenRecords() {
    static std::set<KORVSHARE*> records;
    return records;
}

}  // namespace

namespace fake {

std::size_t OpenShareRecordCount() { return OpenRecords().size(); }

void DropOpenShareRecords() {
    for (KORVSHARE* record : OpenRecords()) {
        const std::unique_ptr<Record> dropped(static_cast<Record*>(record));
    }
    OpenRecords().clear();
}

}  // namespace fake

int KORVShareGet(const char* name, KORVSHARE** share) {
    const Json::Value reply = Ask("KORVShareGet", Args(name));
    *share = nullptr;
    const int result = reply["result"].asInt();
    const std::string path = reply["path"].asString();
    if (result == 0 || !path.empty()) {
        auto record = std::make_unique<Record>();
        record->nameText = name;
        record->pathText = path;
        record->name = record->nameText.c_str();
        record->path = record->pathText.c_str();
        *share = record.release();
        OpenRecords().insert(*share);
    }
    return result;
}

void KORVShareFree(KORVSHARE* share) {
    if (share == nullptr) {
        return;
    }
    if (OpenRecords().erase(share) == 0) {
        fake::CurrentDirector()->Misuse("KORVShareFree: the record is not open");
        return;
    }
    const std::unique_ptr<Record> freed(static_cast<Record*>(share));
}

int KLIBShareUserRightGet(const char* user, const KORVSHARE* share) {
    return Ask("KLIBShareUserRightGet", Args(user, share->name)).asInt();
}

int GetLocalShareListByWebApi(Json::Value& list, bool withState) {
    const Json::Value reply = Ask("GetLocalShareListByWebApi", Args(withState));
    const int result = reply["result"].asInt();
    if (result == 0) {
        list = reply["list"];
    }
    return result;
}

int KORVMountVolInfoGet(const char* path, KORVVOLUME* volume) {
    const Json::Value reply = Ask("KORVMountVolInfoGet", Args(path));
    const int result = reply["result"].asInt();
    if (result == 0) {
        volume->totalBytes = reply["total"].asUInt64();
        volume->freeBytes = reply["free"].asUInt64();
    }
    return result;
}

int KORVQuotaGet(const char* user, const char* volume, KORVQUOTA* quota) {
    const Json::Value reply = Ask("KORVQuotaGet", Args(user, volume));
    const int result = reply["result"].asInt();
    if (result == 0) {
        quota->limitMB = reply["limitMB"].asFloat();
        quota->usedBytes = reply["used"].asUInt64();
    }
    return result;
}

int KORVUserGetUGID(const char* user, uid_t* uid, gid_t* gid) {
    const Json::Value reply = Ask("KORVUserGetUGID", Args(user, gid != nullptr));
    const int result = reply["result"].asInt();
    if (result == 0) {
        *uid = reply["uid"].asUInt();
    }
    return result;
}

bool SDKFuncData::IsBtrfs(const std::string& volume) {
    return Ask("SDKFuncData::IsBtrfs", Args(volume)).asBool();
}

std::int32_t SDKFuncData::GetBtrfsFreeMB(const std::string& path, uid_t uid) {
    return Ask("SDKFuncData::GetBtrfsFreeMB", Args(path, uid)).asInt();
}
