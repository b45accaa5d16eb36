#include "korv/system/share_access.h"

#include <fcntl.h>

#include <system_error>

#include <sys/stat.h>

#include "platform/korv/share.h"

#include "korv/framework/log.h"
#include "korv/system/accounts.h"
#include "korv/system/acl.h"
#include "korv/system/bounded_call.h"
#include "korv/system/file_descriptor.h"
#include "korv/system/mount_table.h"

namespace korv {

namespace {

constexpr int kFolderOnly = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// A folder of the walk. Links are not followed: the paths of shares hold none.
FileDescriptor OpenFolder(int parent, const std::string& name) {
    return FileDescriptor(openat(parent, name.c_str(), kFolderOnly));
}

// Who may do what with a folder.
struct FolderRights {
    Acl acl;
    FolderOwner owner;

    bool Allow(const Identity& who, unsigned wanted) const {
        return Permits(acl, owner, {false, who.uid, who.groups}, wanted);
    }
};

FolderRights ReadRights(int folder) {
    struct stat status {};
    if (fstat(folder, &status) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot look at a folder");
    }
    return {ReadAcl(folder, ACL_TYPE_ACCESS), {status.st_uid, status.st_gid}};
}

// From the list of mounts, since a file system that has stopped answering for its size may still serve files.
bool IsReadOnly(const std::string& path) {
    const auto along = MountsAlong(path);
    return along.empty() || along.back()->isReadOnly;
}

// Opens the folder at `path`; none when `who` may not pass through a folder above it.
FileDescriptor Walk(const std::string& path, const Identity& who) {
    FileDescriptor folder = OpenFolder(AT_FDCWD, "/");
    std::size_t begin = path.find_first_not_of('/');
    while (folder && begin != std::string::npos) {
        if (!ReadRights(folder.Get()).Allow(who, kAclExecute)) {
            return FileDescriptor();
        }
        const std::size_t end = path.find('/', begin);
        folder = OpenFolder(folder.Get(), path.substr(begin, end - begin));
        begin = path.find_first_not_of('/', end);
    }
    return folder;
}

std::optional<FolderAccess> ReadAccess(const std::string& path, const Identity& who) {
    try {
        const FileDescriptor folder = Walk(path, who);
        if (!folder) {
            return FolderAccess{};
        }
        const FolderRights rights = ReadRights(folder.Get());
        FolderAccess access;
        access.canList = rights.Allow(who, kAclRead) && rights.Allow(who, kAclExecute);
        access.canChange = rights.Allow(who, kAclWrite | kAclExecute) && !IsReadOnly(path);
        return access;
    } catch (const std::system_error& failure) {
        LogLine("the rights on " + path + " can't be read: " + failure.what());
        return std::nullopt;
    }
}

}  // namespace

std::optional<FolderAccess> AccessTo(const std::string& path, const Identity& who) {
    return CallBounded("rights", path, [&] { return ReadAccess(path, who); });
}

}  // namespace korv

namespace {

constexpr int kAllRights = KORV_SHARE_RIGHT_READ | KORV_SHARE_RIGHT_WRITE;

// Every share admits the administrators, so that theirs are known also while a folder doesn't answer.
bool IsToldWithoutTheFolder(const std::string& user, const std::string& path) {
    return korv::IsSilent(path) && korv::IsAdministrator(user);
}

}  // namespace

int KLIBShareUserRightGet(const char* user, const KORVSHARE* share) {
    try {
        const auto& membership = korv::FindMembership(user);
        if (!membership) {
            return -1;
        }
        const auto access = korv::AccessTo(share->path, {membership->account.uid, membership->groups});
        if (!access) {
            return IsToldWithoutTheFolder(user, share->path) ? kAllRights : -1;
        }
        return (access->canChange ? KORV_SHARE_RIGHT_WRITE : 0) |
               (access->canList ? KORV_SHARE_RIGHT_READ : 0);
    } catch (const std::system_error& failure) {
        korv::LogLine(std::string("a user's groups can't be read: ") + failure.what());
        return -1;
    }
}
