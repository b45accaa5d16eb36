#include "korv/system/mount_place.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <string_view>
#include <system_error>

#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "platform/korv/configuration.h"

#include "include/trailing_slashes.h"
#include "korv/system/accounts.h"
#include "korv/system/acl.h"
#include "korv/system/immutable_folder.h"
#include "korv/system/share_folder.h"

namespace korv {

namespace {

constexpr std::size_t kLongestPart = 255;
constexpr std::size_t kLongestPath = 4095;
constexpr mode_t kNewFolderMode = 0755;
constexpr mode_t kModeBits = 07777;

// The parts between the slashes; none when one of them is not a plain name.
std::optional<std::vector<std::string>> PlainParts(const std::string& text) {
    const std::string path = WithoutTrailingSlashes(text);
    if (path.empty() || path.front() != '/' || path.size() > kLongestPath) {
        return std::nullopt;
    }
    std::vector<std::string> parts;
    std::size_t start = 1;
    while (start <= path.size()) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        const std::string part = path.substr(start, end - start);
        const bool isPlain = !part.empty() && part.size() <= kLongestPart && part != "." && part != ".." &&
                             std::none_of(part.begin(), part.end(), [](unsigned char letter) {
                                 return letter < ' ' || letter == 0x7f || letter == '\\';
                             });
        if (!isPlain) {
            return std::nullopt;
        }
        parts.push_back(part);
        start = end + 1;
    }
    return parts;
}

std::string Joined(const std::vector<std::string>& parts, std::size_t from) {
    std::string text;
    for (std::size_t i = from; i < parts.size(); ++i) {
        text += (text.empty() ? "" : "/") + parts[i];
    }
    return text;
}

std::string ParentOf(const std::string& below) {
    const auto slash = below.rfind('/');
    return slash == std::string::npos ? "." : below.substr(0, slash);
}

int TryOpen(int share, const std::string& below) {
    open_how how{};
    how.flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
    return static_cast<int>(syscall(SYS_openat2, share, below.c_str(), &how, sizeof how));
}

FileDescriptor OpenShare(const MountPlace& place) {
    return OpenShareFolder(OpenVolume(place.share.volPath).Get(), place.share.name);
}

MountFailure FailureOfOpen(int error) {
    switch (error) {
        case EXDEV:
            return MountFailure::kMountPointTaken;
        case ELOOP:
            return MountFailure::kBadMountPoint;
        case ENOENT:
        case ENOTDIR:
            return MountFailure::kNoFolder;
        default:
            return MountFailure::kFailed;
    }
}

bool MayWrite(int folder, const MountCaller& caller) {
    if (caller.isAdmin) {
        return true;
    }
    const auto account = FindUser(caller.name);
    if (!account) {
        return false;
    }
    const FolderRights rights = ReadFolderRights(folder);
    return Permits(rights.access, rights.owner, {false, account->uid, GroupsOf(*account)},
                   kAclWrite | kAclExecute);
}

bool IsEmpty(int folder) {
    const int copy = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(copy >= 0 ? fdopendir(copy) : nullptr, closedir);
    if (entries == nullptr) {
        return false;
    }
    while (const dirent* entry = readdir(entries.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            return false;
        }
    }
    return true;
}

// Where the file system knows no immutable folders, nobody gets a right on it: a mode of 0 is a mask of 0, so
// that the access list's entries count for nothing.
void Guard(int folder, MountFolderState& state) {
    if (state.guard != MountGuard::kNoRights && SetImmutable(folder, true)) {
        state.guard = MountGuard::kImmutable;
        return;
    }
    struct stat facts {};
    if (fstat(folder, &facts) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot read a mount point's mode");
    }
    if (state.guard == MountGuard::kNone) {
        state.guardMode = facts.st_mode & kModeBits;
    }
    state.guard = MountGuard::kNoRights;
    if (fchmod(folder, 0) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot guard a mount point");
    }
}

void Unguard(int folder, const MountFolderState& state) {
    MakeMutable(folder);
    struct stat facts {};
    if (fstat(folder, &facts) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot free a mount point");
    }
    if (state.guard == MountGuard::kNoRights && (facts.st_mode & kModeBits) == 0 &&
        fchmod(folder, state.guardMode) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot give a mount point its mode back");
    }
}

bool IsOfThisUser(int folder) {
    struct stat facts {};
    return fstat(folder, &facts) == 0 && facts.st_uid == geteuid();
}

// Opens the mount point, or makes it where only its last part is missing. What is made belongs to the caller,
// if there is such an account.
OpenedPlace OpenOrMake(int share, const MountPlace& place, const MountCaller& caller,
                       MountFolderState& state) {
    OpenedPlace opened;
    opened.folder = FileDescriptor(TryOpen(share, place.below));
    if (opened.folder) {
        return opened;
    }
    opened.failure = FailureOfOpen(errno);
    if (errno != ENOENT) {
        return opened;
    }
    const FileDescriptor above(TryOpen(share, ParentOf(place.below)));
    if (!above) {
        opened.failure = FailureOfOpen(errno);
        return opened;
    }
    if (!MayWrite(above.Get(), caller)) {
        opened.failure = MountFailure::kMayNotWrite;
        return opened;
    }
    const std::string name = LastPart(place.below);
    state.isMade = mkdirat(above.Get(), name.c_str(), kNewFolderMode) == 0;
    if (!state.isMade && errno != EEXIST) {
        dprintf(STDERR_FILENO, "the mount point could not be made: %s\n",
                std::generic_category().message(errno).c_str());
        opened.failure = MountFailure::kFailed;
        return opened;
    }
    opened.folder = FileDescriptor(TryOpen(above.Get(), name));
    opened.failure = opened.folder ? MountFailure::kNone : FailureOfOpen(errno);
    // Whoever may write into the folder above may have put a folder of theirs in its place meanwhile.
    state.isMade = state.isMade && (!opened.folder || IsOfThisUser(opened.folder.Get()));
    const auto account = FindUser(caller.name);
    if (state.isMade && opened.folder && account &&
        fchown(opened.folder.Get(), account->uid, account->primaryGid) != 0) {
        opened.failure = MountFailure::kFailed;
    }
    return opened;
}

}  // namespace

std::vector<MountPlace> FindMountPlaces(const std::string& path, MountFailure& failure) {
    constexpr std::size_t kPartsWithVolume = 3;
    constexpr std::size_t kPartsWithoutVolume = 2;
    std::vector<MountPlace> places;
    const auto parts = PlainParts(path);
    failure = parts ? MountFailure::kNotInShare : MountFailure::kBadMountPoint;
    if (!parts) {
        return places;
    }
    const auto add = [&places, &parts](const std::optional<ShareRow>& share, std::size_t from) {
        if (share) {
            places.push_back({*share, Joined(*parts, from)});
        }
    };
    if (parts->size() >= kPartsWithVolume) {
        const auto share = FindShare((*parts)[1]);
        const bool isThere = share && share->volPath == "/" + parts->front();
        add(isThere ? share : std::nullopt, kPartsWithVolume - 1);
    }
    // Volumes of more than one part, which only a configuration of one's own has.
    for (const std::string& volume : KORV::GetConfiguration().volumes) {
        const auto depth = static_cast<std::size_t>(std::count(volume.begin(), volume.end(), '/'));
        if (depth > 1 && path.rfind(volume + "/", 0) == 0 && parts->size() > depth + 1) {
            const auto share = FindShare((*parts)[depth]);
            add(share && share->volPath == volume ? share : std::nullopt, depth + 1);
        }
    }
    if (parts->size() >= kPartsWithoutVolume) {
        add(FindShare(parts->front()), 1);
    }
    if (!places.empty()) {
        failure = MountFailure::kNone;
    }
    return places;
}

MountFolderState ForeseeFolderState(const MountPlace& place) {
    const FileDescriptor share = OpenShare(place);
    const FileDescriptor folder(TryOpen(share.Get(), place.below));
    MountFolderState state;
    state.isMade = !folder && errno == ENOENT;
    struct stat facts {};
    const bool isKnown = folder && fstat(folder.Get(), &facts) == 0;
    state.guardMode = isKnown ? facts.st_mode & kModeBits : kNewFolderMode;
    return state;
}

OpenedPlace PrepareMountFolder(const MountPlace& place, const MountCaller& caller, MountFolderState& state) {
    const FileDescriptor share = OpenShare(place);
    if (!MayWrite(share.Get(), caller)) {
        return {FileDescriptor(), MountFailure::kMayNotWrite};
    }
    OpenedPlace opened = OpenOrMake(share.Get(), place, caller, state);
    if (opened.failure != MountFailure::kNone) {
        return opened;
    }
    if (!state.isMade && !MayWrite(opened.folder.Get(), caller)) {
        opened.failure = MountFailure::kMayNotWrite;
        return opened;
    }
    if (!IsEmpty(opened.folder.Get())) {
        opened.failure = MountFailure::kNotEmpty;
        return opened;
    }
    // Looked at once more behind the guard: what was written in between must not be covered.
    Guard(opened.folder.Get(), state);
    if (!IsEmpty(opened.folder.Get())) {
        Unguard(opened.folder.Get(), state);
        state.guard = MountGuard::kNone;
        opened.failure = MountFailure::kNotEmpty;
    }
    return opened;
}

OpenedPlace ReopenMountFolder(const MountPlace& place, MountFolderState& state) {
    const FileDescriptor share = OpenShare(place);
    OpenedPlace opened;
    opened.folder = FileDescriptor(TryOpen(share.Get(), place.below));
    if (!opened.folder) {
        opened.failure = FailureOfOpen(errno);
        return opened;
    }
    Guard(opened.folder.Get(), state);
    if (!IsEmpty(opened.folder.Get())) {
        opened.failure = MountFailure::kNotEmpty;
    }
    return opened;
}

void ReleaseMountFolder(const MountPlace& place, const MountFolderState& state) {
    const FileDescriptor share = OpenShare(place);
    const FileDescriptor folder(TryOpen(share.Get(), place.below));
    if (!folder && errno != ENOENT && errno != ENOTDIR && errno != ELOOP) {
        throw std::system_error(errno, std::generic_category(), "cannot open a mount point");
    }
    if (!folder) {
        return;  // somebody has taken it away
    }
    Unguard(folder.Get(), state);
    const FileDescriptor above(TryOpen(share.Get(), ParentOf(place.below)));
    if (state.isMade && above) {
        unlinkat(above.Get(), LastPart(place.below).c_str(), AT_REMOVEDIR);
    }
}

FileDescriptor OpenAbove(const MountPlace& place) {
    const FileDescriptor share = OpenShare(place);
    return FileDescriptor(TryOpen(share.Get(), ParentOf(place.below)));
}

std::string LastPart(const std::string& path) { return path.substr(path.rfind('/') + 1); }

}  // namespace korv
