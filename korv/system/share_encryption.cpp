#include "korv/system/share_encryption.h"

#include <btrfsutil.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <sys/xattr.h>

#include "include/folder_stream.h"
#include "korv/system/extended_attributes.h"
#include "korv/system/immutable_folder.h"
#include "korv/system/open_files.h"
#include "korv/system/share_folder.h"
#include "korv/system/tree_remove.h"

namespace korv {

namespace {

constexpr const char* kHidden = ".korv";
constexpr const char* kTokenAttribute = "trusted.korv.share";
constexpr const char* kSambasServer = "smbd";
constexpr mode_t kPrivateMode = S_IRWXU;
constexpr std::chrono::seconds kBusyPatience(3);

void Check(bool isRight, const char* what) {
    if (!isRight) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

FileDescriptor OpenFolder(const std::string& path) {
    FileDescriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
    Check(static_cast<bool>(folder), "cannot open a folder");
    return folder;
}

void MakeFolder(int above, const std::string& name) {
    Check(mkdirat(above, name.c_str(), kPrivateMode) == 0 || errno == EEXIST, "cannot make a folder");
}

// A subvolume is made in its parent, which wants a bare name.
void MakeForFiles(int volume, const std::string& path) {
    struct statfs facts {};
    Check(fstatfs(volume, &facts) == 0, "cannot ask for the file system");
    if (facts.f_type != BTRFS_SUPER_MAGIC) {
        Check(mkdirat(volume, path.c_str(), kPrivateMode) == 0, "cannot make a folder");
        return;
    }
    const std::size_t slash = path.rfind('/');
    const FileDescriptor above(OpenBeneath(volume, path.substr(0, slash).c_str(), O_RDONLY | O_DIRECTORY));
    Check(static_cast<bool>(above), "cannot open a folder");
    Check(btrfs_util_create_subvolume_fd(above.Get(), path.substr(slash + 1).c_str(), 0, nullptr, nullptr) ==
              BTRFS_UTIL_OK,
          "cannot make a subvolume");
}

// So that a share whose encrypted files are locked is still known by its folder.
void CopyToken(int from, int to) {
    constexpr std::size_t kLongest = 64;
    std::array<char, kLongest> token{};
    const ssize_t length = fgetxattr(from, kTokenAttribute, token.data(), token.size());
    Check(length >= 0 || errno == ENODATA, "cannot read a folder's token");
    Check(
        length < 0 || fsetxattr(to, kTokenAttribute, token.data(), static_cast<std::size_t>(length), 0) == 0,
        "cannot mark a folder");
}

// None when something is mounted there.
FileDescriptor OpenAt(int volume, const std::string& path) {
    FileDescriptor folder(OpenBeneath(volume, path.c_str(), O_RDONLY | O_DIRECTORY));
    Check(folder || errno == EXDEV, "cannot open a folder");
    return folder;
}

void Unmark(const FileDescriptor& folder) {
    Check(!folder || fremovexattr(folder.Get(), kMoveMark) == 0 || errno == ENODATA,
          "cannot unmark a folder");
}

// Takes the guard away from a folder that may be there.
void Free(int volume, const std::string& path) {
    const FileDescriptor folder(OpenBeneath(volume, path.c_str(), O_RDONLY | O_DIRECTORY));
    if (folder) {
        MakeMutable(folder.Get());
    }
}

[[noreturn]] void FailLocked() { throw MoveFailure{MoveEnd::kLocked, "the encrypted files are locked"}; }

}  // namespace

EncryptionPlaces::EncryptionPlaces(std::string volume, std::string name, const std::string& token)
    : m_volume(std::move(volume)),
      m_name(std::move(name)),
      m_cipher(CipherFolder::PathFor(m_volume, token).substr(m_volume.size() + 1)),
      m_aside(std::string(kHidden) + "/move/" + token),
      m_view(std::string(kHidden) + "/view/" + token),
      m_atShare(m_volume + "/" + m_cipher, SharePath()),
      m_atView(m_volume + "/" + m_cipher, m_volume + "/" + m_view) {}

std::uint64_t EncryptionPlaces::FreeBytes() {
    struct statvfs facts {};
    Check(fstatvfs(OpenVolume(m_volume).Get(), &facts) == 0, "cannot ask for free space");
    return facts.f_bavail * facts.f_frsize;
}

bool EncryptionPlaces::HasSwitched() {
    const FileDescriptor volume = OpenVolume(m_volume);
    const FileDescriptor aside(OpenBeneath(volume.Get(), m_aside.c_str(), O_RDONLY | O_DIRECTORY));
    if (!aside) {
        Check(errno == ENOENT, "cannot open a folder");
        return false;
    }
    const bool isMarked = fgetxattr(aside.Get(), kMoveMark, nullptr, 0) >= 0;
    Check(isMarked || errno == ENODATA, "cannot read a folder's mark");
    return !isMarked;
}

// The folder appears under its name with its mark on it.
void EncryptionPlaces::PrepareAside(bool isForFiles) {
    const FileDescriptor volume = OpenVolume(m_volume);
    MakeFolder(volume.Get(), kHidden);
    MakeFolder(volume.Get(), std::string(kHidden) + "/move");
    MakeFolder(volume.Get(), std::string(kHidden) + "/view");
    MakeFolder(volume.Get(), m_view);
    struct stat status {};
    if (fstatat(volume.Get(), m_aside.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        return;
    }
    const std::string staged = m_aside + ".new";
    RemoveHidden(staged);
    isForFiles ? MakeForFiles(volume.Get(), staged) : MakeFolder(volume.Get(), staged);
    const FileDescriptor folder = OpenHidden(staged);
    CopyToken(OpenSource().Get(), folder.Get());
    Check(fsetxattr(folder.Get(), kMoveMark, "1", 1, 0) == 0, "cannot mark a folder");
    Check(fsync(folder.Get()) == 0, "cannot write a folder to the disk");
    Check(renameat2(volume.Get(), staged.c_str(), volume.Get(), m_aside.c_str(), RENAME_NOREPLACE) == 0,
          "cannot name a folder");
    Check(syncfs(volume.Get()) == 0, "cannot write to the disk");
}

void EncryptionPlaces::Exchange(bool isGuarded) {
    const FileDescriptor volume = OpenVolume(m_volume);
    if (!HasSwitched()) {
        Unmark(OpenAt(volume.Get(), m_name));  // a mark that was left there would undo the next exchange
        Free(volume.Get(), m_aside);           // a power failure may have taken back an exchange alone
        // The names must not reach the disk before what they stand for.
        Check(syncfs(volume.Get()) == 0, "cannot write to the disk");
        Check(renameat2(volume.Get(), m_name.c_str(), volume.Get(), m_aside.c_str(), RENAME_EXCHANGE) == 0,
              "cannot exchange two folders");
    }
    const FileDescriptor share = OpenAt(volume.Get(), m_name);
    if (isGuarded && share) {
        SetImmutable(share.Get(), true);  // where it is possible
    }
    Check(syncfs(volume.Get()) == 0, "cannot write to the disk");
    if (!isGuarded) {
        Unmark(share);
        Check(syncfs(volume.Get()) == 0, "cannot write to the disk");
    }
}

// In a copy of the volume's mount nothing is mounted.
void EncryptionPlaces::Unguard() const {
    const FileDescriptor volume = OpenVolume(m_volume);
    const FileDescriptor bare(
        open_tree(volume.Get(), "", AT_EMPTY_PATH | OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC));
    Check(static_cast<bool>(bare), "cannot look below a mount");
    Free(bare.Get(), m_name);
    Unmark(OpenAt(bare.Get(), m_name));
    Check(syncfs(volume.Get()) == 0, "cannot write to the disk");
}

// A cipher's own file system has nothing to write: its files are the volume's.
void EncryptionPlaces::Flush() {
    Check(syncfs(OpenTarget().Get()) == 0 && syncfs(OpenVolume(m_volume).Get()) == 0,
          "cannot write to the disk");
}

void EncryptionPlaces::ShowView(const std::string& from, const std::string& at) {
    Check(mount(from.c_str(), at.c_str(), nullptr, MS_BIND, nullptr) == 0, "cannot mount a folder");
}

// A process that was killed while it mounted may have left one mount upon another.
void EncryptionPlaces::HideView() {
    constexpr int kMostMounts = 8;
    CipherEnd end = CipherEnd::kDone;
    for (int i = 0; i < kMostMounts && end == CipherEnd::kDone; ++i) {
        end = m_atView.Unmount(kBusyPatience, true);
    }
    if (end != CipherEnd::kNotMounted) {
        throw MoveFailure{MoveEnd::kBlocked, "cannot unmount the encrypted files"};
    }
}

bool EncryptionPlaces::RemoveHidden(const std::string& path) {
    // Where no volume is mounted nothing is found, yet nothing is gone.
    return RemoveTree(OpenVolume(m_volume).Get(), path).isGone;
}

FileDescriptor EncryptionPlaces::OpenHidden(const std::string& path) {
    FileDescriptor folder(OpenBeneath(OpenVolume(m_volume).Get(), path.c_str(), O_RDONLY | O_DIRECTORY));
    Check(static_cast<bool>(folder), "cannot open a folder");
    return folder;
}

FileDescriptor EncryptionPlaces::OpenMounted(const CipherFolder& folder) {
    if (folder.State() != CipherState::kUnlocked) {
        FailLocked();
    }
    return OpenFolder(folder.MountPath());
}

EncryptPlaces::EncryptPlaces(std::string volume, std::string name, const std::string& token,
                             std::string password)
    : EncryptionPlaces(std::move(volume), std::move(name), token), m_password(std::move(password)) {}

FileDescriptor EncryptPlaces::OpenSource() { return OpenHidden(HasSwitched() ? m_aside : m_name); }

FileDescriptor EncryptPlaces::OpenTarget() {
    const bool isShown =
        m_atView.State() != CipherState::kUnlocked && m_atShare.State() == CipherState::kUnlocked;
    if (isShown) {
        return OpenMounted(m_atShare);
    }
    MountView();
    return OpenMounted(m_atView);
}

void EncryptPlaces::PrepareTarget() {
    PrepareAside(false);
    if (m_atView.State() == CipherState::kAbsent || !m_atView.IsComplete()) {
        RemoveHidden(m_cipher);  // half made
        const CipherEnd end = m_atView.Init(m_password);
        if (end != CipherEnd::kDone) {
            throw MoveFailure{end == CipherEnd::kNoSpace ? MoveEnd::kNoSpace : MoveEnd::kFailed,
                              "cannot make an encrypted folder"};
        }
    }
    MountView();
}

void EncryptPlaces::MountView() {
    CipherState state = m_atView.State();
    if (state == CipherState::kBroken) {
        HideView();
        state = CipherState::kLocked;
    }
    if (state == CipherState::kUnlocked) {
        return;
    }
    const CipherEnd end = m_atView.Mount(m_password);
    if (end != CipherEnd::kDone && end != CipherEnd::kMounted) {
        FailLocked();
    }
}

void EncryptPlaces::Switch() { Exchange(true); }

// Not when it was unlocked by hand meanwhile: what people have made there since must stay.
// Once the view is mounted nobody can unlock it elsewhere.
bool EncryptPlaces::HasToSettle() {
    if (m_atShare.State() == CipherState::kUnlocked) {
        return false;
    }
    MountView();
    return true;
}

bool EncryptPlaces::Show() {
    Exchange(true);  // a crash may have left its last part undone
    if (m_atShare.State() == CipherState::kBroken) {
        m_atShare.Unmount(kBusyPatience, true);
    }
    const bool isHidden =
        m_atView.State() == CipherState::kUnlocked && m_atShare.State() != CipherState::kUnlocked;
    if (isHidden) {
        ShowView(m_atView.MountPath(), SharePath());
    }
    HideView();
    if (m_atShare.State() != CipherState::kUnlocked) {
        FailLocked();
    }
    Unguard();
    return isHidden;
}

bool EncryptPlaces::IsSourceHeld() { return IsFolderHeld(m_volume, m_aside); }

bool EncryptPlaces::RemoveSource() {
    RemoveHidden(m_view);
    return RemoveHidden(m_aside);
}

bool EncryptPlaces::RemoveTarget() {
    HideView();
    Free(OpenVolume(m_volume).Get(), m_aside);
    const bool isGone = RemoveHidden(m_cipher) && RemoveHidden(m_aside + ".new") && RemoveHidden(m_view);
    return RemoveHidden(m_aside) && isGone;
}

// After the switch and a restart only the old mount point is left to look at; nobody can have written there.
FileDescriptor DecryptPlaces::OpenSource() {
    if (m_atView.State() == CipherState::kUnlocked) {
        return OpenFolder(m_atView.MountPath());
    }
    return HasSwitched() ? OpenHidden(m_aside) : OpenMounted(m_atShare);
}

FileDescriptor DecryptPlaces::OpenTarget() { return OpenHidden(HasSwitched() ? m_name : m_aside); }

void DecryptPlaces::PrepareTarget() { PrepareAside(true); }

void DecryptPlaces::Detach() {
    if (m_atShare.State() != CipherState::kUnlocked) {
        return;
    }
    if (m_atView.State() != CipherState::kUnlocked) {
        HideView();
        ShowView(SharePath(), m_atView.MountPath());
    }
    if (m_atShare.Unmount(kBusyPatience, false) != CipherEnd::kDone) {
        throw MoveFailure{MoveEnd::kSourceBusy, "files of the share are in use"};
    }
}

bool DecryptPlaces::IsUsedLocally() { return IsUsedByOthersThan(kSambasServer, SharePath()); }

void DecryptPlaces::Switch() { Exchange(false); }

// Once the view is gone, those who held something of it have nothing left that could be carried over.
bool DecryptPlaces::IsSourceHeld() {
    return m_atView.State() == CipherState::kUnlocked && IsFolderHeld(m_volume, m_view);
}

bool DecryptPlaces::RemoveSource() {
    HideView();
    const bool isGone = RemoveHidden(m_view) && RemoveHidden(m_cipher);
    // The old mount point: what is in it was put there by root while nothing was mounted.
    const FileDescriptor volume = OpenVolume(m_volume);
    return isGone && (unlinkat(volume.Get(), m_aside.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT);
}

bool DecryptPlaces::RemoveTarget() {
    if (m_atView.State() == CipherState::kUnlocked && m_atShare.State() == CipherState::kLocked) {
        ShowView(m_atView.MountPath(), SharePath());
    }
    HideView();
    const bool isGone = RemoveHidden(m_aside + ".new") && RemoveHidden(m_view);
    return RemoveHidden(m_aside) && isGone;
}

}  // namespace korv
