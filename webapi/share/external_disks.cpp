#include "webapi/share/external_disks.h"

#include <array>
#include <cstdint>
#include <cstdio>

#include <sys/vfs.h>

#include "platform/korv/external_disk.h"

#include "webapi/share/external_devices.h"
#include "webapi/share/share_handler.h"
#include "webapi/share/share_privilege.h"

namespace {

struct PartitionSize {
    std::int64_t totalMB;
    std::int64_t usedMB;
};

// Figures that no disk has wrap, as signed ones; adding and multiplying signed ones would be undefined then.
std::int64_t RoundUpToMB(std::uint64_t blockSize, std::uint64_t blocks) {
    constexpr std::int64_t kBytesPerMB = std::int64_t{1} << 20;
    return static_cast<std::int64_t>(blockSize * blocks + kBytesPerMB - 1) / kBytesPerMB;
}

// What is used counts from the blocks that unprivileged users may have. Nothing at all when it cannot be
// read.
PartitionSize ReadSize(const char* mountPath) {
    struct statfs64 fs {};
    if (statfs64(mountPath, &fs) != 0) {
        return {0, 0};
    }
    const auto blockSize = static_cast<std::uint64_t>(fs.f_bsize);
    const std::int64_t totalMB = RoundUpToMB(blockSize, fs.f_blocks);
    const std::int64_t availableMB = RoundUpToMB(blockSize, fs.f_bavail);
    return {totalMB, totalMB - availableMB};
}

double ToGB(std::int64_t sizeMB) {
    constexpr double kGBPerMB = 0.0009765625;
    return static_cast<double>(static_cast<float>(sizeMB)) * kGBPerMB;
}

std::string DisplayText(const char* shareName, const PartitionSize& size) {
    constexpr std::int64_t kLargestInMB = 1024;
    std::array<char, 556> text{};
    if (size.totalMB <= kLargestInMB) {
        snprintf(text.data(), text.size(), "%s(%d/%d MB)", shareName, static_cast<int>(size.usedMB),
                 static_cast<int>(size.totalMB));
    } else {
        snprintf(text.data(), text.size(), "%s(%.2f/%.2f GB)", shareName, ToGB(size.usedMB),
                 ToGB(size.totalMB));
    }
    return text.data();
}

}  // namespace

// A partition that cannot be used comes this far only to be logged: that is intended, operators look for the
// line.
int ExtShareListEnum(Json::Value& result, const std::string& user, int deviceType, unsigned int mask) {
    if (deviceType != KORV_EXT_DEVICE_USB && deviceType != KORV_EXT_DEVICE_ESATA) {
        return -1;
    }
    ExtPartitionTable partitions;
    GetExtDevInfo(deviceType, partitions);
    for (const ExtPartition* partition : partitions) {
        const int status = partition->status;
        if (status != EXT_PARTITION_UNUSABLE && status != EXT_PARTITION_NORMAL) {
            continue;
        }
        const PartitionSize size = ReadSize(partition->mountPath);
        const char* shareName = partition->shareName;
        if (shareName[0] == '\0' || status == EXT_PARTITION_UNUSABLE) {
            PV_LOG_SHARE_ERR("ExtShareListEnum", "Unable to get share name of external device\n");
            continue;
        }
        if (CheckSharePrivilege(shareName, user, mask) != 0) {
            continue;
        }
        Json::Value element(Json::objectValue);
        element["value"] = shareName;
        element["freesize"] = static_cast<Json::UInt>(size.totalMB - size.usedMB);
        element["display"] = DisplayText(shareName, size);
        result["sharelist"].append(element);
    }
    return 0;
}
