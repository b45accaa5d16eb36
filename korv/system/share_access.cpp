#include "korv/system/share_access.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <system_error>

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

// A folder of the walk; none when there is no such folder. Links are not followed: the paths of shares hold
// none.
FileDescriptor OpenFolder(int parent, const std::string& name) {
    FileDescriptor folder(openat(parent, name.c_str(), kFolderOnly));
    if (!folder && errno != ENOENT && errno != ENOTDIR && errno != ELOOP) {
        throw std::system_error(errno, std::generic_category(), "cannot open a folder");
    }
    return folder;
}

bool Allows(const FolderRights& rights, const Identity& who, unsigned wanted) {
    return Permits(rights.access, rights.owner, {false, who.uid, who.groups}, wanted);
}

// Whether anybody can make entries in the folder: root neither can in a read-only mount or Btrfs subvolume or
// in an immutable folder. A server that admits nobody as root has said nothing about others.
bool IsWritable(int folder) {
    if (faccessat(folder, "", W_OK, AT_EACCESS | AT_EMPTY_PATH) == 0 || errno == EACCES) {
        return true;
    }
    if (errno != EROFS && errno != EPERM) {
        throw std::system_error(errno, std::generic_category(), "cannot tell whether a folder is read-only");
    }
    return false;
}

// Opens the folder at `path`; none when there is none or `who` may not pass through a folder above it.
FileDescriptor Walk(const std::string& path, const Identity& who) {
    FileDescriptor folder = OpenFolder(AT_FDCWD, "/");
    std::size_t begin = path.find_first_not_of('/');
    while (folder && begin != std::string::npos) {
        if (!Allows(ReadFolderRights(folder.Get()), who, kAclExecute)) {
            return FileDescriptor();
        }
        const std::size_t end = path.find('/', begin);
        folder = OpenFolder(folder.Get(), path.substr(begin, end - begin));
        begin = path.find_first_not_of('/', end);
    }
    return folder;
}

FolderAccess ReadAccess(const std::string& path, const Identity& who) {
    FolderAccess access;
    try {
        const FileDescriptor folder = Walk(path, who);
        if (!folder) {
            return access;
        }
        const FolderRights rights = ReadFolderRights(folder.Get());
        access.canList = Allows(rights, who, kAclRead) && Allows(rights, who, kAclExecute);
        access.canChange = Allows(rights, who, kAclWrite | kAclExecute) && IsWritable(folder.Get());
    } catch (const std::system_error& failure) {
        access.error = failure.code().value();
    }
    return access;
}

}  // namespace

FolderAccess AccessTo(const std::string& path, const Identity& who) {
    const auto answer = CallBounded("rights", path, [&] { return std::optional(ReadAccess(path, who)); });
    return answer ? *answer : FolderAccess{false, false, ETIMEDOUT};
}

}  // namespace korv

namespace {

constexpr int kAllRights = KORV_SHARE_RIGHT_READ | KORV_SHARE_RIGHT_WRITE;

// Every share admits the administrators, so that theirs are known also while a folder doesn't answer.
int RightsWithoutTheFolder(const std::string& user, const std::string& path) {
    return korv::IsSilent(path) && korv::IsAdministrator(user) ? kAllRights : -1;
}

bool IsMountPoint(const std::string& path) {
    const auto along = korv::MountsAlong(path);
    return !along.empty() && along.back()->mountPoint == path;
}

// One line for each look at a folder: where a whole volume is silent, whoever has rights is told so when the
// volume is asked for its size.
int RightsOnUnreadable(const std::string& user, const std::string& path, int error) {
    const int rights = RightsWithoutTheFolder(user, path);
    if (rights < 0 || IsMountPoint(path)) {
        korv::LogLine("the rights of " + user + " on " + path + " can't be told: " +
                      (error == ETIMEDOUT ? "it doesn't answer" : std::generic_category().message(error)));
    }
    return rights;
}

}  // namespace

int KLIBShareUserRightGet(const char* user, const KORVSHARE* share) {
    try {
        const auto& membership = korv::FindMembership(user);
        if (!membership) {
            return -1;
        }
        const auto access = korv::AccessTo(share->path, {membership->account.uid, membership->groups});
        if (access.error != 0) {
            return RightsOnUnreadable(user, share->path, access.error);
        }
        return (access.canChange ? KORV_SHARE_RIGHT_WRITE : 0) | (access.canList ? KORV_SHARE_RIGHT_READ : 0);
    } catch (const std::system_error& failure) {
        korv::LogLine(std::string("a user's groups can't be read: ") + failure.what());
        return -1;
    }
}
