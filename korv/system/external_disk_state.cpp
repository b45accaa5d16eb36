#include "korv/system/external_disk_state.h"

#include <cctype>
#include <filesystem>
#include <fstream>
#include <system_error>

#include <sys/stat.h>

#include "korv/framework/log.h"
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

// "/dev/sdb" names the disk, and "/dev/sdb1" a partition of it; "/dev/mmcblk0p1" has a "p", since
// "/dev/mmcblk01" would be another disk.
bool IsOnDisk(const std::string& argument, const std::string& device) {
    if (!BeginsWith(argument, device) || argument.size() == device.size()) {
        return argument == device;
    }
    const std::string stem =
        std::isdigit(static_cast<unsigned char>(device.back())) != 0 ? device + "p" : device;
    return BeginsWith(argument, stem) && argument.size() > stem.size() &&
           argument.find_first_not_of("0123456789", stem.size()) == std::string::npos;
}

// Anybody can call a process of their own what they like, and also a program that gives them root's rights:
// those wait for passwords.
bool IsRoots(const fs::path& process) {
    std::ifstream file(process / "status");
    std::string word;
    while (file >> word && word != "Uid:") {
    }
    uid_t real = 1;
    struct stat program {};
    return file >> real && real == 0 && stat((process / "exe").c_str(), &program) == 0 &&
           (program.st_mode & S_ISUID) == 0;
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
            return IsRoots(process) ? kind : "";
        }
    }
    return "";
}

// Makes the file say `states`. What hinders that hinders it at each look: it is logged once.
bool Write(const KeyValues& states) {
    static std::string lastFailure;
    try {
        WriteKeyValues(kDiskStateFile, states);
        lastFailure.clear();
        return true;
    } catch (const std::system_error& failure) {
        if (lastFailure != failure.what()) {
            lastFailure = failure.what();
            LogLine("the states of external disks can't be noted: " + lastFailure);
        }
        return false;
    }
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

bool ForgetDiskStates(const std::vector<std::string>& names) {
    const auto before = ReadKeyValues(kDiskStateFile);
    KeyValues now = before.value_or(KeyValues{});
    for (const std::string& name : names) {
        now.erase(name);
    }
    return !before || now == *before || Write(now);
}

void UpdateDiskStates(const std::vector<ExternalDisk>& attached) {
    const auto before = ReadKeyValues(kDiskStateFile);
    KeyValues now;
    for (const ExternalDisk& disk : attached) {
        now[disk.name] = StateOf(disk, before.value_or(KeyValues{}));
    }
    if (before != now && (before || !now.empty())) {
        Write(now);
    }
}

}  // namespace korv
