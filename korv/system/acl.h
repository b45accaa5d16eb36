#pragma once

#include <string>
#include <vector>

#include <sys/acl.h>
#include <sys/types.h>

// POSIX access control lists as plain values, and what granting a right does to them.
namespace korv {

// Rights bits, as in an ACL entry.
inline constexpr unsigned kAclRead = 4;
inline constexpr unsigned kAclWrite = 2;
inline constexpr unsigned kAclExecute = 1;
inline constexpr unsigned kAclReadOnly = kAclRead | kAclExecute;
inline constexpr unsigned kAclReadWrite = kAclRead | kAclWrite | kAclExecute;

struct AclEntry {
    acl_tag_t tag = ACL_UNDEFINED_TAG;
    id_t id = 0;  // for ACL_USER and ACL_GROUP
    unsigned rights = 0;

    bool operator==(const AclEntry&) const = default;
};

// At most one entry of each tag and id. Empty = there is none (a folder without a default ACL).
using Acl = std::vector<AclEntry>;

// Who gets a right. A user's groups count, since an entry of its own takes the place of theirs.
struct AclPrincipal {
    bool isGroup = false;
    id_t id = 0;
    std::vector<gid_t> groups;  // of a user, the primary one included
};

struct FolderOwner {
    uid_t uid = 0;
    gid_t gid = 0;
};

// Whether the kernel would allow `user` all of `wanted` at once, oddities included: two groups that give one
// half each don't add up, a mask without any right takes the named entries out of the list, so that those
// whom they name count as others, and root may do anything with a folder.
bool Permits(const Acl& acl, const FolderOwner& owner, const AclPrincipal& user, unsigned wanted);

// The folder's access ACL after granting `rights`. Nobody loses an effective right, and nobody but the
// grantee wins one: a mask that a chmod has narrowed is widened for the grantee, and the bits that it hid in
// other entries are dropped from them.
Acl GrantedAccess(const Acl& access, const FolderOwner& owner, const AclPrincipal& grantee, unsigned rights);

// The folder's default ACL, which new files and folders inherit, after the same grant. Without one yet it
// starts from the effective rights of `access`, since files that had been made under an umask would lose
// their readers otherwise; others are not given the right to write, which an umask would have taken away.
Acl GrantedDefault(const Acl& defaults, const Acl& access, const AclPrincipal& grantee, unsigned rights);

// Reads or replaces an ACL of the folder open as `folder`. Throw std::system_error, EOPNOTSUPP where the file
// system keeps no ACLs.
Acl ReadAcl(int folder, acl_type_t type);
void WriteAcl(int folder, acl_type_t type, const Acl& acl);

// Who may do what with a folder.
struct FolderRights {
    Acl access;
    FolderOwner owner;
};

// Of the folder open as `folder`, O_PATH suffices. Where its file system keeps no ACLs (FAT, HFS+, NFS 4),
// the list is what the mode says, as the kernel judges there. Throws std::system_error.
FolderRights ReadFolderRights(int folder);

}  // namespace korv
