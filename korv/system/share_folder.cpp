#include "korv/system/share_folder.h"

#include <btrfsutil.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include <linux/fs.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <sys/xattr.h>

#include "include/run_as_scope.h"
#include "korv/system/accounts.h"

namespace korv {

namespace {

constexpr const char* kStagedPrefix = ".korv-new-";
constexpr const char* kRemovedPrefix = ".korv-gone-";
// Only root can read or set attributes of this kind, so a token can't be copied to another folder.
constexpr const char* kTokenAttribute = "trusted.korv.share";
constexpr std::size_t kLongestToken = 64;
constexpr mode_t kPrivateMode = S_IRWXU;

[[noreturn]] void Fail(int error, const char* what) {
    throw std::system_error(error, std::generic_category(), what);
}

void Check(int result, const char* what) {
    if (result != 0) {
        Fail(errno, what);
    }
}

// Root for one scope, or an exception.
class RootScope {
public:
    RootScope() {
        if (!m_scope) {
            Fail(EPERM, "cannot become root");
        }
    }

private:
    RunAsScope m_scope = IF_RUN_AS;
};

int TryOpenBeneath(int volume, const std::string& name) {
    open_how how{};
    how.flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
    return static_cast<int>(syscall(SYS_openat2, volume, name.c_str(), &how, sizeof how));
}

FileDescriptor OpenBeneath(int volume, const std::string& name) {
    FileDescriptor folder(TryOpenBeneath(volume, name));
    if (!folder) {
        Fail(errno, "cannot open a folder");
    }
    return folder;
}

std::string StagedName(const std::string& token) { return kStagedPrefix + token; }

bool IsBtrfs(int folder) {
    struct statfs facts {};
    Check(fstatfs(folder, &facts), "cannot ask for the file system");
    return facts.f_type == BTRFS_SUPER_MAGIC;
}

void MakeFolder(int volume, const std::string& name) {
    if (!IsBtrfs(volume)) {
        Check(mkdirat(volume, name.c_str(), kPrivateMode), "cannot make a folder");
        return;
    }
    const btrfs_util_error made = btrfs_util_create_subvolume_fd(volume, name.c_str(), 0, nullptr, nullptr);
    if (made != BTRFS_UTIL_OK) {
        Fail(errno, "cannot make a subvolume");
    }
}

void WriteInPlace(int folder) {
    if (!IsBtrfs(folder)) {
        return;
    }
    int flags = 0;
    Check(ioctl(folder, FS_IOC_GETFLAGS, &flags), "cannot read a folder's flags");
    flags |= FS_NOCOW_FL;
    Check(ioctl(folder, FS_IOC_SETFLAGS, &flags), "cannot set a folder's flags");
}

// The mode is set before the lists: a later chmod would rewrite the mask. What the folder has inherited from
// the volume is replaced.
void Secure(int folder) {
    Check(fchown(folder, 0, 0), "cannot set a folder's owner");
    Check(fchmod(folder, kPrivateMode), "cannot set a folder's mode");
    Acl acl{{ACL_USER_OBJ, 0, kAclReadWrite}, {ACL_GROUP_OBJ, 0, 0}, {ACL_OTHER, 0, 0}};
    if (const auto administrators = FindGroup(kAdministratorsGroup)) {
        acl.push_back({ACL_GROUP, administrators->gid, kAclReadWrite});
        acl.push_back({ACL_MASK, 0, kAclReadWrite});
    }
    WriteAcl(folder, ACL_TYPE_DEFAULT, acl);
    WriteAcl(folder, ACL_TYPE_ACCESS, acl);
}

void Mark(int folder, const std::string& token) {
    Check(fsetxattr(folder, kTokenAttribute, token.data(), token.size(), 0), "cannot mark a folder");
    Check(fsync(folder), "cannot write a folder to the disk");
}

}  // namespace

FileDescriptor OpenVolume(const std::string& path) {
    const RootScope root;
    FileDescriptor volume(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
    if (!volume) {
        Fail(errno, "cannot open a volume");
    }
    struct statx status {};
    Check(statx(volume.Get(), "", AT_EMPTY_PATH, STATX_TYPE, &status), "cannot look at a volume");
    if ((status.stx_attributes & STATX_ATTR_MOUNT_ROOT) == 0) {
        Fail(ENODEV, "nothing is mounted at a volume's path");
    }
    return volume;
}

FileDescriptor OpenShareFolder(int volume, const std::string& name) {
    const RootScope root;
    return OpenBeneath(volume, name);
}

void MakeStagedFolder(int volume, const std::string& token, bool isCow,
                      const std::function<void(FolderStep)>& done) {
    const RootScope root;
    MakeFolder(volume, StagedName(token));
    done(FolderStep::kMade);
    const FileDescriptor folder = OpenBeneath(volume, StagedName(token));
    if (!isCow) {
        WriteInPlace(folder.Get());
    }
    Secure(folder.Get());
    done(FolderStep::kSecured);
    Mark(folder.Get(), token);
    done(FolderStep::kMarked);
}

bool PublishStagedFolder(int volume, const std::string& token, const std::string& name) {
    const RootScope root;
    if (renameat2(volume, StagedName(token).c_str(), volume, name.c_str(), RENAME_NOREPLACE) != 0) {
        if (errno == EEXIST) {
            return false;
        }
        Fail(errno, "cannot name a folder");
    }
    Check(fsync(volume), "cannot write a volume's root to the disk");
    return true;
}

void RemoveStagedFolder(int volume, const std::string& token) {
    const RootScope root;
    const std::string name = StagedName(token);
    struct stat status {};
    // Asked first, since a volume that can't be written refuses to remove what isn't there.
    if (fstatat(volume, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT) {
        return;
    }
    // An empty subvolume is removed like a folder.
    Check(unlinkat(volume, name.c_str(), AT_REMOVEDIR), "cannot remove a folder");
}

void RemoveShareFolder(int volume, const std::string& name) {
    const RootScope root;
    Check(unlinkat(volume, name.c_str(), AT_REMOVEDIR), "cannot remove a folder");
}

bool IsFolderOfToken(int volume, const std::string& name, const std::string& token) {
    const RootScope root;
    const FileDescriptor folder(TryOpenBeneath(volume, name));
    if (!folder) {
        if (errno == ENOENT || errno == ENOTDIR || errno == ELOOP || errno == EXDEV) {
            return false;
        }
        Fail(errno, "cannot open a folder");
    }
    std::array<char, kLongestToken> found{};
    const ssize_t length = fgetxattr(folder.Get(), kTokenAttribute, found.data(), found.size());
    return length >= 0 && token == std::string(found.data(), static_cast<std::size_t>(length));
}

bool RenameShareFolder(int volume, const std::string& name, const std::string& newName) {
    const RootScope root;
    if (renameat2(volume, name.c_str(), volume, newName.c_str(), RENAME_NOREPLACE) != 0) {
        if (errno == EEXIST) {
            return false;
        }
        Fail(errno, "cannot rename a folder");
    }
    Check(fsync(volume), "cannot write a volume's root to the disk");
    return true;
}

std::string RemovedFolderName(const std::string& token) { return kRemovedPrefix + token; }

void HideShareFolder(int volume, const std::string& name, const std::string& token) {
    if (IsFolderOfToken(volume, name, token) && !RenameShareFolder(volume, name, RemovedFolderName(token))) {
        Fail(EEXIST, "cannot hide a folder");
    }
}

void SecureShareFolder(int folder, const std::string& token) {
    const RootScope root;
    Secure(folder);
    Mark(folder, token);
}

void CloseStagedFolder(int volume, const std::string& token) {
    const RootScope root;
    const FileDescriptor folder = OpenBeneath(volume, StagedName(token));
    const Acl closed{{ACL_USER_OBJ, 0, kAclReadWrite}, {ACL_GROUP_OBJ, 0, 0}, {ACL_OTHER, 0, 0}};
    WriteAcl(folder.Get(), ACL_TYPE_DEFAULT, closed);
    WriteAcl(folder.Get(), ACL_TYPE_ACCESS, closed);
}

// The access list comes last: whoever gets in finds everything else in place.
void GrantOnFolder(int folder, const AclPrincipal& grantee, unsigned rights) {
    const RootScope root;
    struct stat status {};
    Check(fstat(folder, &status), "cannot look at a folder");
    const Acl access = ReadAcl(folder, ACL_TYPE_ACCESS);
    const Acl defaults = ReadAcl(folder, ACL_TYPE_DEFAULT);
    WriteAcl(folder, ACL_TYPE_DEFAULT, GrantedDefault(defaults, access, grantee, rights));
    WriteAcl(folder, ACL_TYPE_ACCESS, GrantedAccess(access, {status.st_uid, status.st_gid}, grantee, rights));
}

}  // namespace korv
