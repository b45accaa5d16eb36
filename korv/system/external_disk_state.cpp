#include "korv/system/external_disk_state.h"

#include <cctype>
#include <filesystem>
#include <fstream>

#include "korv/system/key_value_file.h"

namespace korv {

namespace {

namespace fs = std::filesystem;

bool BeginsWith(const std::string& text, const std::string& begin) {
    return text.compare(0, begin.size(), begin) == 0;
}

std::string KindOf(const std::string& program) {
    if (BeginsWith(program, "mkfs") || program == "mke2fs" || program == "mkntfs" || program == "mkdosfs") {
        return kDiskFormatted;
    }
    const bool isCheck = BeginsWith(program, "fsck") || program == "e2fsck" || program == "xfs_repair" ||
                         program == "dosfsck" || program == "ntfsfix";
    return isCheck ? kDiskChecked : "";
}

// "/dev/sdb" names the disk, and "/dev/sdb1" or "/dev/mmcblk0p1" a partition of it.
bool IsOnDisk(const std::string& argument, const std::string& device) {
    if (!BeginsWith(argument, device)) {
        return false;
    }
    std::string rest = argument.substr(device.size());
    if (!rest.empty() && rest.front() == 'p') {
        rest.erase(0, 1);
    }
    return rest.find_first_not_of("0123456789") == std::string::npos;
}

// What the process does to `device`; its arguments stand one after another, each with a NUL behind it.
std::string WorkOfProcess(const fs::path& process, const std::string& device) {
    std::ifstream file(process / "cmdline");
    std::string program;
    if (!std::getline(file, program, '\0')) {
        return "";
    }
    std::string kind = KindOf(fs::path(program).filename());
    for (std::string argument; !kind.empty() && std::getline(file, argument, '\0');) {
        if (IsOnDisk(argument, device)) {
            return kind;
        }
    }
    return "";
}

std::string StateOf(const ExternalDisk& disk, const KeyValues& before) {
    const auto known = before.find(disk.name);
    if (known != before.end() && known->second == kDiskFailed) {
        return kDiskFailed;
    }
    if (!disk.isSettled) {
        return kDiskStarting;
    }
    const std::string work = WorkOn(disk.device);
    return work.empty() ? kDiskReady : work;
}

}  // namespace

std::string WorkOn(const std::string& device) {
    std::error_code ignored;  // processes end while they are looked at
    for (const auto& process : fs::directory_iterator("/proc", ignored)) {
        const std::string id = process.path().filename();
        if (id.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        if (std::string work = WorkOfProcess(process.path(), device); !work.empty()) {
            return work;
        }
    }
    return "";
}

void ForgetDiskStates(const std::vector<std::string>& names) {
    const auto before = ReadKeyValues(kDiskStateFile);
    if (!before) {
        return;
    }
    KeyValues now = *before;
    for (const std::string& name : names) {
        now.erase(name);
    }
    if (now != *before) {
        WriteKeyValues(kDiskStateFile, now);
    }
}

void UpdateDiskStates(const std::vector<ExternalDisk>& attached) {
    const auto before = ReadKeyValues(kDiskStateFile);
    KeyValues now;
    for (const ExternalDisk& disk : attached) {
        now[disk.name] = StateOf(disk, before.value_or(KeyValues{}));
    }
    if (before != now && (before || !now.empty())) {
        WriteKeyValues(kDiskStateFile, now);
    }
}

}  // namespace korv
