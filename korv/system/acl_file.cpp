// Reading and writing the lists of acl.h.

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <system_error>

#include <acl/libacl.h>
#include <sys/stat.h>

#include "korv/system/acl.h"

namespace korv {

namespace {

struct RightName {
    unsigned right;
    acl_perm_t name;
};
constexpr std::array<RightName, 3> kRightNames{
    {{kAclRead, ACL_READ}, {kAclWrite, ACL_WRITE}, {kAclExecute, ACL_EXECUTE}}};

using AclObject = std::unique_ptr<void, int (*)(void*)>;

[[noreturn]] void Fail(const char* what) { throw std::system_error(errno, std::generic_category(), what); }

void Check(int result, const char* what) {
    if (result != 0) {
        Fail(what);
    }
}

// Default ACLs can be reached by a path only; this one names the open folder itself, whatever its name is
// now.
std::string PathOf(int folder) { return "/proc/self/fd/" + std::to_string(folder); }

// The errors by which file systems say that they keep no ACLs.
bool IsWithoutAcls(int error) { return error == EOPNOTSUPP || error == ENOSYS; }

Acl AclOfMode(mode_t mode) {
    constexpr unsigned kOwnerShift = 6;
    constexpr unsigned kGroupShift = 3;
    return {{ACL_USER_OBJ, 0, mode >> kOwnerShift & kAclReadWrite},
            {ACL_GROUP_OBJ, 0, mode >> kGroupShift & kAclReadWrite},
            {ACL_OTHER, 0, mode & kAclReadWrite}};
}

AclEntry ReadEntry(acl_entry_t source) {
    AclEntry entry;
    Check(acl_get_tag_type(source, &entry.tag), "an ACL entry has no tag");
    if (entry.tag == ACL_USER || entry.tag == ACL_GROUP) {
        const AclObject id(acl_get_qualifier(source), acl_free);
        if (id == nullptr) {
            Fail("an ACL entry has no id");
        }
        entry.id = *static_cast<const id_t*>(id.get());
    }
    acl_permset_t rights = nullptr;
    Check(acl_get_permset(source, &rights), "an ACL entry has no rights");
    for (const RightName& each : kRightNames) {
        entry.rights |= acl_get_perm(rights, each.name) == 1 ? each.right : 0;
    }
    return entry;
}

void WriteEntry(acl_t& list, const AclEntry& entry) {
    acl_entry_t target = nullptr;
    Check(acl_create_entry(&list, &target), "cannot add an ACL entry");
    Check(acl_set_tag_type(target, entry.tag), "cannot set an ACL entry's tag");
    if (entry.tag == ACL_USER || entry.tag == ACL_GROUP) {
        Check(acl_set_qualifier(target, &entry.id), "cannot set an ACL entry's id");
    }
    acl_permset_t rights = nullptr;
    Check(acl_get_permset(target, &rights), "an ACL entry has no rights");
    for (const RightName& each : kRightNames) {
        if ((entry.rights & each.right) != 0) {
            Check(acl_add_perm(rights, each.name), "cannot set an ACL entry's rights");
        }
    }
}

}  // namespace

Acl ReadAcl(int folder, acl_type_t type) {
    const AclObject list(acl_get_file(PathOf(folder).c_str(), type), acl_free);
    if (list == nullptr) {
        Fail("cannot read an ACL");
    }
    Acl result;
    acl_entry_t entry = nullptr;
    int found = acl_get_entry(static_cast<acl_t>(list.get()), ACL_FIRST_ENTRY, &entry);
    while (found == 1) {
        result.push_back(ReadEntry(entry));
        found = acl_get_entry(static_cast<acl_t>(list.get()), ACL_NEXT_ENTRY, &entry);
    }
    return result;
}

void WriteAcl(int folder, acl_type_t type, const Acl& acl) {
    acl_t list = acl_init(static_cast<int>(acl.size()));
    // acl_create_entry may move the list, so what is freed is what `list` holds in the end.
    const auto free = [](acl_t* each) { acl_free(*each); };
    const std::unique_ptr<acl_t, decltype(free)> guard(&list, free);
    if (list == nullptr) {
        Fail("cannot make an ACL");
    }
    for (const AclEntry& entry : acl) {
        WriteEntry(list, entry);
    }
    Check(acl_set_file(PathOf(folder).c_str(), type, list), "cannot set an ACL");
}

FolderRights ReadFolderRights(int folder) {
    struct stat facts {};
    Check(fstat(folder, &facts), "cannot look at a folder");
    FolderRights rights{{}, {facts.st_uid, facts.st_gid}};
    try {
        rights.access = ReadAcl(folder, ACL_TYPE_ACCESS);
    } catch (const std::system_error& failure) {
        if (!IsWithoutAcls(failure.code().value())) {
            throw;
        }
        rights.access = AclOfMode(facts.st_mode);
    }
    return rights;
}

}  // namespace korv
