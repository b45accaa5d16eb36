#include "korv/system/external_disk_register.h"

#include <fcntl.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <set>
#include <sstream>
#include <system_error>

#include <sys/file.h>

#include "platform/korv/configuration.h"

#include "korv/system/external_disk_state.h"

namespace korv {

namespace {

// With it every partition's share has a name that listings keep whole; more disks are hardly attached.
constexpr int kHighestUsual = 99;

struct Entry {
    int number = 0;
    std::string identity;
};

std::string RegisterFile() { return KORV::GetConfiguration().runDir + "/external-disks"; }

// The register itself is replaced with each change, so it can't be what is locked.
FileDescriptor LockRegister() {
    const std::string path = RegisterFile() + ".lock";
    FileDescriptor lock(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    int result = lock ? 0 : -1;
    while (lock && (result = flock(lock.Get(), LOCK_EX)) != 0 && errno == EINTR) {
    }
    if (result != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot lock the register of external disks");
    }
    return lock;
}

Entry ParseEntry(const std::string& text) {
    Entry entry;
    std::istringstream(text) >> entry.number >> entry.identity;
    return entry;
}

std::string EntryText(const ExternalDisk& disk) {
    return std::to_string(disk.number) + (disk.identity.empty() ? "" : " " + disk.identity);
}

// What people expect: "sdb" is 2, "sdaa" 27, "loop0" 1, "nvme2n1" 3.
int UsualNumber(const std::string& name) {
    constexpr int kLetters = 26;
    constexpr int kDecimal = 10;
    const std::size_t digits = name.find_first_of("0123456789");
    if (digits != std::string::npos) {
        const long first = strtol(name.c_str() + digits, nullptr, kDecimal);
        return static_cast<int>(std::min<long>(first, kHighestUsual)) + 1;
    }
    int number = 0;
    for (std::size_t i = 2; i < name.size() && number <= kHighestUsual; ++i) {
        number = number * kLetters + (std::tolower(name[i]) - 'a' + 1);
    }
    return number;
}

int FreeNumber(const std::string& name, const std::set<int>& taken) {
    const int usual = UsualNumber(name);
    if (usual >= 1 && usual <= kHighestUsual && taken.count(usual) == 0) {
        return usual;
    }
    int number = 1;
    while (taken.count(number) != 0) {
        ++number;
    }
    return number;
}

// A disk keeps the number of whatever disk had its name before.
void GiveNumbers(std::vector<ExternalDisk>& disks, const KeyValues& known) {
    std::set<int> taken;
    for (ExternalDisk& disk : disks) {
        const auto entry = known.find(disk.name);
        const int number = entry != known.end() ? ParseEntry(entry->second).number : 0;
        disk.number = number >= 1 && taken.insert(number).second ? number : 0;
    }
    for (ExternalDisk& disk : disks) {
        if (disk.number == 0) {
            disk.number = FreeNumber(disk.name, taken);
            taken.insert(disk.number);
        }
    }
}

// The names whose disk isn't the one of the last look.
std::vector<std::string> NamesThatChanged(const std::vector<ExternalDisk>& disks, const KeyValues& known) {
    std::vector<std::string> names;
    for (const auto& [name, text] : known) {
        const Entry entry = ParseEntry(text);
        const bool isSame =
            std::any_of(disks.begin(), disks.end(), [&name = name, &entry](const ExternalDisk& disk) {
                return disk.name == name && disk.identity == entry.identity;
            });
        if (!isSame) {
            names.push_back(name);
        }
    }
    return names;
}

}  // namespace

ExternalDiskRegister::ExternalDiskRegister()
    : m_lock(LockRegister()), m_known(ReadKeyValues(RegisterFile()).value_or(KeyValues{})) {}

std::vector<ExternalDisk> ExternalDiskRegister::List() {
    std::vector<ExternalDisk> disks = AttachedDisks();
    GiveNumbers(disks, m_known);
    KeyValues now;
    for (const ExternalDisk& disk : disks) {
        now[disk.name] = EntryText(disk);
    }
    if (now != m_known) {
        // First, so that it is done again should this process die in between.
        const std::vector<std::string> changed = NamesThatChanged(disks, m_known);
        if (!ForgetDiskStates(changed)) {
            // The next look tries again.
            for (const std::string& name : changed) {
                now[name] = m_known[name];
            }
        }
        WriteKeyValues(RegisterFile(), now);
        m_known = std::move(now);
    }
    return disks;
}

std::optional<ExternalDisk> ExternalDiskRegister::Find(const std::string& name) {
    auto disk = AttachedDisk(name);
    if (!disk) {
        return disk;
    }
    const auto entry = m_known.find(name);
    disk->number = entry != m_known.end() ? ParseEntry(entry->second).number : 0;
    if (disk->number >= 1 && entry->second == EntryText(*disk)) {
        return disk;
    }
    const std::vector<ExternalDisk> disks = List();
    const auto found = std::find_if(disks.begin(), disks.end(),
                                    [&name](const ExternalDisk& each) { return each.name == name; });
    return found != disks.end() ? std::optional(*found) : std::nullopt;
}

std::vector<ExternalDisk> ListExternalDisks() { return ExternalDiskRegister().List(); }

std::optional<ExternalDisk> FindExternalDisk(const std::string& name) {
    return ExternalDiskRegister().Find(name);
}

}  // namespace korv
