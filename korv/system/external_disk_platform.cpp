// What platform/korv/external_disk.h declares.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <string>

#include "platform/korv/external_disk.h"

#include "include/run_as_scope.h"
#include "korv/framework/log.h"
#include "korv/system/external_disk.h"
#include "korv/system/external_disk_register.h"
#include "korv/system/external_disk_state.h"

namespace {

using korv::ExternalDisk;
using korv::ExternalDiskKind;

std::optional<ExternalDiskKind> KindOf(int type) {
    switch (type) {
        case KORV_EXT_DEVICE_USB:
            return ExternalDiskKind::kUsb;
        case KORV_EXT_DEVICE_ESATA:
            return ExternalDiskKind::kEsata;
        default:
            return std::nullopt;
    }
}

// The disks of `kind`; notes the state of all that are attached.
std::vector<ExternalDisk> ListAndNoteDisks(ExternalDiskKind kind) {
    korv::ExternalDiskRegister known;
    std::vector<ExternalDisk> disks = known.List();
    korv::UpdateDiskStates(disks);
    std::erase_if(disks, [kind](const ExternalDisk& disk) { return disk.kind != kind; });
    return disks;
}

std::size_t SizeOf(const ExternalDisk& disk) { return sizeof(char*) + disk.name.size() + 1; }

// The first disks that find room; a disk may have come since the size was asked for.
int WriteNames(const std::vector<ExternalDisk>& disks, char** names, std::size_t capacity) {
    std::size_t count = 0;
    std::size_t used = 0;
    while (count < disks.size() && used + SizeOf(disks[count]) <= capacity) {
        used += SizeOf(disks[count++]);
    }
    char* text = reinterpret_cast<char*>(names + count);
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t length = disks[i].name.size() + 1;
        std::memcpy(text, disks[i].name.c_str(), length);
        names[i] = text;
        text += length;
    }
    return static_cast<int>(count);
}

template <std::size_t Size>
void Copy(char (&to)[Size], const std::string& from) {
    snprintf(to, Size, "%s", from.c_str());
}

void FillPartition(const korv::ExternalPartition& from, KORVEXTPARTITION& to) {
    to.state = static_cast<int>(from.state);
    Copy(to.fsName, from.fsType);
    Copy(to.text, from.label);
    Copy(to.shareName, from.shareName);
    // A path that was cut would name another place.
    const bool isWhole = from.mountPath.size() <= korv::kLongestExternalSharePath;
    Copy(to.mountPath, isWhole ? from.mountPath : "");
}

void LogWhatIsLeftOut(const ExternalDisk& disk) {
    bool isDiskSilent = false;
    for (const korv::ExternalPartition& partition : disk.partitions) {
        if (partition.isSilent && !partition.mountPath.empty()) {
            korv::LogLine("external disk " + partition.device + ": " + partition.mountPath +
                          " doesn't answer");
        } else if (partition.mountPath.size() > korv::kLongestExternalSharePath) {
            korv::LogLine("external disk " + partition.device + ": " + partition.mountPath +
                          " is too long a path");
        }
        isDiskSilent = isDiskSilent || (partition.isSilent && partition.mountPath.empty());
    }
    if (isDiskSilent) {
        korv::LogLine("external disk " + disk.device + " doesn't answer");
    }
}

std::optional<ExternalDisk> FindDisk(const std::string& name, ExternalDiskKind kind) {
    auto disk = korv::FindExternalDisk(name);
    if (!disk || disk->kind != kind) {
        return std::nullopt;
    }
    korv::ReadPartitions(*disk);
    LogWhatIsLeftOut(*disk);
    return disk;
}

}  // namespace

int KORVUSBDevEnum(int type, char** names, std::size_t capacity, std::size_t* size) {
    const auto kind = KindOf(type);
    if (!kind) {
        return -1;
    }
    try {
        const std::vector<ExternalDisk> disks = ListAndNoteDisks(*kind);
        *size = 0;
        for (const ExternalDisk& disk : disks) {
            *size += SizeOf(disk);
        }
        return names != nullptr ? WriteNames(disks, names, capacity) : static_cast<int>(disks.size());
    } catch (const std::exception& failure) {
        korv::LogLine(std::string("external disks: ") + failure.what());
        return -1;
    }
}

int KORVExtStgPartsVolInfoGet(const char* device, KORVEXTDEVICE* record, bool isUsb) {
    const RunAsScope root = IF_RUN_AS;
    if (!root) {
        return -1;
    }
    const ExternalDiskKind kind = isUsb ? ExternalDiskKind::kUsb : ExternalDiskKind::kEsata;
    *record = KORVEXTDEVICE{};
    try {
        const auto disk = FindDisk(device, kind);
        if (!disk) {
            return 0;  // pulled since it was enumerated: no reason to leave the others out
        }
        Copy(record->description, (isUsb ? "USB Disk " : "eSATA Disk ") + std::to_string(disk->number));
        const std::size_t count =
            std::min<std::size_t>(disk->partitions.size(), KORVEXTDEVICE::kMaxPartitions);
        for (std::size_t i = 0; i < count; ++i) {
            FillPartition(disk->partitions[i], record->partitions[i]);
        }
        record->partitionCount = static_cast<int>(count);
        return 0;
    } catch (const std::exception& failure) {
        korv::LogLine(std::string("external disk ") + device + ": " + failure.what());
        return -1;
    }
}
