#include "webapi/share/external_devices.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/korv/external_disk.h"
#include "platform/korv/key_value_file.h"
#include "platform/pavane/key_value_file.h"

#include "include/run_as_scope.h"
#include "webapi/share/share_handler.h"

// Memory comes from calloc here, since there can be any number of disks: a machine without that much memory
// lists no disks and goes on.

bool ExtPartitionTable::Reserve(int capacity) {
    m_rows = static_cast<ExtPartition**>(calloc(static_cast<std::size_t>(capacity), sizeof(void*)));
    return m_rows != nullptr;
}

ExtPartition* ExtPartitionTable::Add() {
    auto* row = static_cast<ExtPartition*>(calloc(1, sizeof(ExtPartition)));
    if (row != nullptr) {
        m_rows[m_count++] = row;
    }
    return row;
}

void ExtPartitionTable::Clear() {
    for (int i = 0; i < m_count; ++i) {
        free(m_rows[i]);
    }
    free(m_rows);
    m_rows = nullptr;
    m_count = 0;
}

namespace {

constexpr const char* kFunction = "GetExtDevInfo";
constexpr const char* kConfigurationFile = "/etc/korvinfo.conf";
constexpr const char* kApplyingFile = "/tmp/usbdiskapplying";

struct Freed {
    void operator()(void* memory) const { free(memory); }
};
using DeviceNames = std::unique_ptr<char*[], Freed>;
using Devices = std::unique_ptr<KORVEXTDEVICE[], Freed>;

// The attached disks of one kind, by device name.
struct Disks {
    DeviceNames names;
    Devices devices;
    int count = 0;
    int partitionCount = 0;
};

int EnumAsRoot(int deviceType, char** names, std::size_t capacity, std::size_t& size) {
    const RunAsScope root = IF_RUN_AS;
    if (!root) {
        PV_LOG_SHARE_ERR(kFunction, "Failed to run as root.\n");
        return -1;
    }
    return KORVUSBDevEnum(deviceType, names, capacity, &size);
}

bool EnumDisks(int deviceType, Disks& disks) {
    std::size_t size = 0;
    const int expected = EnumAsRoot(deviceType, nullptr, 0, size);
    if (expected < 0) {
        PV_LOG_SHARE_ERR(kFunction, "KORVUSBDevEnum() failed to enum device.\n");
        return false;
    }
    disks.names.reset(static_cast<char**>(calloc(1, size)));
    if (disks.names == nullptr) {
        PV_LOG_SHARE_ERR(kFunction, "Out of memory!\n");
        return false;
    }
    const int found = EnumAsRoot(deviceType, disks.names.get(), size, size);
    if (found < 0) {
        PV_LOG_SHARE_ERR(kFunction, "KORVUSBDevEnum() failed to enum USB device.\n");
        return false;
    }
    disks.count = std::min(found, expected);
    return true;
}

bool ReadDisks(int deviceType, Disks& disks) {
    disks.devices.reset(
        static_cast<KORVEXTDEVICE*>(calloc(static_cast<std::size_t>(disks.count), sizeof(KORVEXTDEVICE))));
    if (disks.devices == nullptr) {
        PV_LOG_SHARE_ERR(kFunction, "Failed to calloc()\n");
        return false;
    }
    for (int i = 0; i < disks.count; ++i) {
        KORVEXTDEVICE& device = disks.devices[static_cast<std::size_t>(i)];
        const bool isUsb = deviceType == KORV_EXT_DEVICE_USB;
        if (KORVExtStgPartsVolInfoGet(disks.names[static_cast<std::size_t>(i)], &device, isUsb) < 0) {
            PV_LOG_SHARE_ERR(kFunction,
                             "KORVExtStgPartsVolInfoGet() failed to get USB partition volume info.\n");
            return false;
        }
        disks.partitionCount += device.partitionCount;
    }
    return true;
}

bool IsConfigured(const char* key) { return KLIBCFileCheckKeyValue(kConfigurationFile, key, "yes", 0) != 0; }

// File systems that this machine may not be able to write are kept only where the configuration says it can.
bool IsUsable(const KORVEXTPARTITION& partition) {
    if (partition.state == KORV_EXT_PARTITION_HIDDEN) {
        return false;
    }
    if (strcasecmp(partition.fsName, "ntfs") == 0) {
        return IsConfigured("supportntfswrite");
    }
    if (strcasecmp(partition.fsName, "hfsplus") == 0) {
        return IsConfigured("supporthfsplus");
    }
    return true;
}

int ExternalDevStatusGet(const char* device) {
    constexpr const char* kStatusFunction = "ExternalDevStatusGet";
    if (device == nullptr) {
        PV_LOG_SHARE_ERR(kStatusFunction, "Bad parameter!!\n");
        return EXT_PARTITION_UNKNOWN;
    }
    std::string state;
    if (PVFileGetVal(kApplyingFile, device, state) < 1) {
        PV_LOG_SHARE_ERR(kStatusFunction, "Failed to get usb disk [%s] status\n", device);
        return EXT_PARTITION_UNKNOWN;
    }
    if (state == "fail") {
        return EXT_PARTITION_FAILED;
    }
    if (state == "fsck") {
        return EXT_PARTITION_CHECKED;
    }
    if (state == "formatting") {
        return EXT_PARTITION_FORMATTED;
    }
    return state == "init" ? EXT_PARTITION_INITIALISED : EXT_PARTITION_NORMAL;
}

// A partition without a mount path is mounted by the number at the end of its disk's description.
void FillMountPath(const KORVEXTPARTITION& partition, const KORVEXTDEVICE& device, int deviceType,
                   ExtPartition& row) {
    if (partition.mountPath[0] != '\0') {
        snprintf(row.mountPath, sizeof(row.mountPath), "%s", partition.mountPath);
        return;
    }
    const char* blank = strrchr(device.description, ' ');
    if (blank == nullptr) {
        return;
    }
    const char* number = blank + 1;
    if (deviceType == KORV_EXT_DEVICE_USB) {
        snprintf(row.mountPath, sizeof(row.mountPath), "/volumeUSB%s", number);
    } else {
        snprintf(row.mountPath, sizeof(row.mountPath), "/volumeSATA%s", number);
    }
}

bool AddUsable(const Disks& disks, std::size_t disk, int deviceType, ExtPartitionTable& table) {
    const KORVEXTDEVICE& device = disks.devices[disk];
    for (int i = 0; i < device.partitionCount; ++i) {
        const KORVEXTPARTITION& partition = device.partitions[i];
        if (!IsUsable(partition)) {
            continue;
        }
        ExtPartition* row = table.Add();
        if (row == nullptr) {
            PV_LOG_SHARE_ERR(kFunction, "out of memory!!\n");
            return false;
        }
        row->status = partition.state == KORV_EXT_PARTITION_UNUSABLE
                          ? EXT_PARTITION_UNUSABLE
                          : ExternalDevStatusGet(disks.names[disk]);
        snprintf(row->text, sizeof(row->text), "%s", partition.text);
        snprintf(row->shareName, sizeof(row->shareName), "%s", partition.shareName);
        FillMountPath(partition, device, deviceType, *row);
    }
    return true;
}

}  // namespace

void GetExtDevInfo(int deviceType, ExtPartitionTable& table) {
    Disks disks;
    if (!EnumDisks(deviceType, disks) || !ReadDisks(deviceType, disks)) {
        return;
    }
    if (!table.Reserve(disks.partitionCount)) {
        PV_LOG_SHARE_ERR(kFunction, "out of memory!!\n");
        return;
    }
    for (int disk = 0; disk < disks.count; ++disk) {
        if (!AddUsable(disks, static_cast<std::size_t>(disk), deviceType, table)) {
            table.Clear();
            return;
        }
    }
}
