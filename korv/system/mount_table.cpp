#include "korv/system/mount_table.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "korv/system/file_descriptor.h"

namespace korv {

namespace {

constexpr const char* kMountList = "/proc/self/mountinfo";

// The list of this process. A child has to open it anew: what is open tells of a change only once, to
// whichever process asks first.
struct MountList {
    FileDescriptor file;
    pid_t opener = 0;
    std::vector<Mount> mounts;
};

MountList& ProcessMountList() {
    static MountList list;
    return list;
}

// Blanks, tabs, line ends and backslashes stand as three octal digits.
std::string Unescape(const std::string& text) {
    constexpr std::size_t kDigits = 3;
    constexpr int kOctal = 8;
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + kDigits < text.size()) {
            result += static_cast<char>(std::stoi(text.substr(i + 1, kDigits), nullptr, kOctal));
            i += kDigits;
        } else {
            result += text[i];
        }
    }
    return result;
}

// The last of the options that Btrfs tells; there may be commas in it.
std::string SubvolumeOf(const std::string& options) {
    const std::string key = ",subvol=";
    const std::size_t begin = options.find(key);
    return begin == std::string::npos ? "" : Unescape(options.substr(begin + key.size()));
}

// id, parent, device, root, mount point, options, any number of tags, "-", type, source, the file system's
// options.
std::optional<Mount> ParseLine(const std::string& line) {
    std::istringstream fields(line);
    Mount mount;
    std::string skipped;
    std::string mountPoint;
    fields >> mount.id >> skipped >> mount.device >> mount.root >> mountPoint;
    while (fields >> skipped && skipped != "-") {
    }
    std::string superOptions;
    if (!(fields >> mount.fsType >> mount.source >> superOptions)) {
        return std::nullopt;
    }
    mount.mountPoint = Unescape(mountPoint);
    mount.source = Unescape(mount.source);
    mount.root = Unescape(mount.root);
    mount.subvolume = mount.fsType == "btrfs" ? SubvolumeOf(superOptions) : "";
    return mount;
}

std::vector<Mount> Parse(const std::string& text) {
    std::vector<Mount> mounts;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (auto mount = ParseLine(line)) {
            mounts.push_back(std::move(*mount));
        }
    }
    return mounts;
}

// Nothing when it can't be read to its end.
std::optional<std::string> ReadAll(int file) {
    constexpr std::size_t kBlock = 16384;
    std::array<char, kBlock> block{};
    std::string text;
    ssize_t length = lseek(file, 0, SEEK_SET);
    while (length >= 0) {
        length = read(file, block.data(), block.size());
        if (length > 0) {
            text.append(block.data(), static_cast<std::size_t>(length));
        } else if (length == 0) {
            return text;
        } else if (errno == EINTR) {
            length = 0;
        }
    }
    return std::nullopt;
}

bool HasChanged(int file) {
    pollfd waiting{file, POLLPRI, 0};
    return poll(&waiting, 1, 0) != 0;
}

}  // namespace

const std::vector<Mount>& ListMounts() {
    MountList& list = ProcessMountList();
    const bool isOurs = list.file && list.opener == getpid();
    if (!isOurs) {
        // Forgotten, not closed: a child may have closed what it inherited and use the number for something
        // else.
        new (&list.file) FileDescriptor();
        list.file = FileDescriptor(open(kMountList, O_RDONLY | O_CLOEXEC));
        list.opener = getpid();
    }
    if (!isOurs || HasChanged(list.file.Get())) {
        const auto text = ReadAll(list.file.Get());
        list.mounts = Parse(text.value_or(""));
        if (!text) {
            list.file = FileDescriptor();  // so that the next call doesn't take this for what there is
        }
    }
    return list.mounts;
}

bool IsFromAnybody(const Mount& mount) {
    return mount.fsType == "fuse" || mount.fsType.compare(0, 5, "fuse.") == 0;
}

bool IsAtOrBeneath(const std::string& path, const std::string& folder) {
    return folder == "/" || (path.compare(0, folder.size(), folder) == 0 &&
                             (path.size() == folder.size() || path[folder.size()] == '/'));
}

std::vector<const Mount*> MountsAlong(const std::string& path) {
    std::vector<const Mount*> along;
    for (const Mount& mount : ListMounts()) {
        if (!IsAtOrBeneath(path, mount.mountPoint)) {
            continue;
        }
        // A later mount covers what lies at its place and below.
        std::erase_if(along, [&mount](const Mount* covered) {
            return covered->mountPoint == mount.mountPoint ||
                   IsAtOrBeneath(covered->mountPoint, mount.mountPoint);
        });
        along.push_back(&mount);
    }
    return along;
}

std::vector<Mount> ReadMounts() {
    std::vector<Mount> mounts = ListMounts();
    if (mounts.empty()) {
        throw std::runtime_error("cannot read the table of mounts");
    }
    return mounts;
}

std::vector<Mount> ReadMountsOf(pid_t pid) {
    const FileDescriptor file(
        open(("/proc/" + std::to_string(pid) + "/mountinfo").c_str(), O_RDONLY | O_CLOEXEC));
    return Parse(file ? ReadAll(file.Get()).value_or("") : "");
}

std::vector<std::string> MountsAtOrBeneath(const std::vector<Mount>& mounts, const std::string& path) {
    std::vector<std::string> found;
    for (const Mount& mount : mounts) {
        if (IsAtOrBeneath(mount.mountPoint, path)) {
            found.push_back(mount.mountPoint);
        }
    }
    return found;
}

}  // namespace korv
