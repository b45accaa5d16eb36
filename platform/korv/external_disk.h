#pragma once

#include <cstddef>

// External disks: USB and eSATA. Implemented in korv/system/external_disk_platform.cpp.

enum KORV_EXT_DEVICE_TYPE : int {
    KORV_EXT_DEVICE_USB = 2,
    KORV_EXT_DEVICE_ESATA = 16,
};

enum KORV_EXT_PARTITION_STATE : int {
    KORV_EXT_PARTITION_READY = 0,
    KORV_EXT_PARTITION_UNUSABLE = 1,
    KORV_EXT_PARTITION_HIDDEN = 2,
};

// One partition. Texts are NUL-terminated.
struct KORVEXTPARTITION {
    int state;            // KORV_EXT_PARTITION_STATE
    char fsName[32];      // "ext4", "ntfs", ...; empty = none known
    char text[64];        // its label
    char shareName[64];   // the external share on it; empty = none
    char mountPath[256];  // at most 127 characters; empty when the platform gives none
};

// One disk and its partitions.
struct KORVEXTDEVICE {
    static constexpr int kMaxPartitions = 32;

    char description[128];  // ends in a blank and the disk's number
    int partitionCount;
    KORVEXTPARTITION partitions[kMaxPartitions];
};

// Enumerates the attached disks of one kind. Needs root.
//   names     array that receives one reference per disk to its device name ("sdb"), or null to ask for the
//             size. The names stand in the same buffer, behind the references
//   capacity  bytes at `names`; disks that find no room in it, since they came later, are left out
//   size      in/out: the bytes that are needed
// The number of disks, negative on failure. Also brings /tmp/usbdiskapplying up to date, where each attached
// disk's state stands under its device name: "init", "formatting", "fsck", "fail", anything else = ready.
int KORVUSBDevEnum(int type, char** names, std::size_t capacity, std::size_t* size);

// Reads the disk `device` and its partitions into `record`. Negative on failure. A disk that has gone since
// it was enumerated has no partitions; that is no failure. A partition that doesn't answer within the
// platform's deadline is hidden, mounted or not, and so is one that is mounted at a path of 128 characters or
// more, which listings would cut; the platform's log says so.
int KORVExtStgPartsVolInfoGet(const char* device, KORVEXTDEVICE* record, bool isUsb);
