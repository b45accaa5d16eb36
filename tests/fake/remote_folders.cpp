// Remote mounts and the exported keys of encrypted shared folders.

#include <algorithm>
#include <cstring>

#include "platform/korv/mount.h"
#include "platform/korv/share_key.h"

#include "tests/fake/director.h"

using fake::Args;
using fake::Ask;

int GetLocalMountedFolderByWebApi(Json::Value& mounts, bool withState) {
    const Json::Value reply = Ask("GetLocalMountedFolderByWebApi", Args(withState));
    const int result = reply["result"].asInt();
    if (result == 0) {
        mounts = reply["mounts"];
    }
    return result;
}

int GetMntPointFSInfo(const std::string& mountPoint, _tag_FSTYPE& fsType, std::uint64_t& sizeMB) {
    const Json::Value reply = Ask("GetMntPointFSInfo", Args(mountPoint));
    const int result = reply["result"].asInt();
    if (result == 0) {
        fsType = static_cast<_tag_FSTYPE>(reply["fsType"].asInt());
        sizeMB = reply["sizeMB"].asUInt64();
    }
    return result;
}

int GetRemoteMountStatus(const std::string& path) { return Ask("GetRemoteMountStatus", Args(path)).asInt(); }

const char* KORVShareEncExportKeySaltGet() {
    static std::string salt;
    salt = Ask("KORVShareEncExportKeySaltGet", Args()).asString();
    return salt.c_str();
}

int KORVShareEncKeyFileRead(const char* path, const char* salt, char* buffer, std::size_t size) {
    const Json::Value reply = Ask("KORVShareEncKeyFileRead", Args(path, salt, Json::UInt64{size}));
    const std::string key = reply["key"].asString();
    if (size > 0) {
        const std::size_t length = std::min(key.size(), size - 1);
        std::memcpy(buffer, key.data(), length);
        buffer[length] = '\0';
    }
    return reply["result"].asInt();
}

int KLIBCErrGet() { return Ask("KLIBCErrGet", Args()).asInt(); }
