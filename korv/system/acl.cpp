#include "korv/system/acl.h"

#include <algorithm>
#include <optional>

namespace korv {

namespace {

const AclEntry* Find(const Acl& acl, acl_tag_t tag, id_t id = 0) {
    const auto found = std::find_if(acl.begin(), acl.end(), [tag, id](const AclEntry& entry) {
        return entry.tag == tag && entry.id == id;
    });
    return found == acl.end() ? nullptr : &*found;
}

unsigned RightsOf(const Acl& acl, acl_tag_t tag) {
    const AclEntry* entry = Find(acl, tag);
    return entry != nullptr ? entry->rights : 0;
}

unsigned MaskOf(const Acl& acl) {
    const AclEntry* mask = Find(acl, ACL_MASK);
    return mask != nullptr ? mask->rights : kAclReadWrite;
}

bool IsMasked(const AclEntry& entry) {
    return entry.tag == ACL_USER || entry.tag == ACL_GROUP || entry.tag == ACL_GROUP_OBJ;
}

bool Contains(const std::vector<gid_t>& groups, gid_t gid) {
    return std::find(groups.begin(), groups.end(), gid) != groups.end();
}

// What the groups of `user` give; nothing at all when no entry speaks of any of them.
std::optional<unsigned> GroupRights(const Acl& acl, std::optional<gid_t> owningGroup,
                                    const AclPrincipal& user) {
    std::optional<unsigned> rights;
    for (const AclEntry& entry : acl) {
        const bool matches =
            (entry.tag == ACL_GROUP && Contains(user.groups, entry.id)) ||
            (entry.tag == ACL_GROUP_OBJ && owningGroup && Contains(user.groups, *owningGroup));
        if (matches) {
            rights = rights.value_or(0) | (entry.rights & MaskOf(acl));
        }
    }
    return rights;
}

// What `principal` has before it gets an entry of its own. Default ACLs belong to no owning group yet.
unsigned RightsWithoutEntry(const Acl& acl, std::optional<gid_t> owningGroup, const AclPrincipal& principal) {
    const unsigned others = RightsOf(acl, ACL_OTHER);
    if (!principal.isGroup) {
        return GroupRights(acl, owningGroup, principal).value_or(others);
    }
    const bool ownsFolder = owningGroup && *owningGroup == principal.id;
    return ownsFolder ? RightsOf(acl, ACL_GROUP_OBJ) & MaskOf(acl) : others;
}

AclEntry& EntryOf(Acl& acl, acl_tag_t tag, id_t id) {
    for (AclEntry& entry : acl) {
        if (entry.tag == tag && entry.id == id) {
            return entry;
        }
    }
    return acl.emplace_back(AclEntry{tag, id, 0});
}

Acl Granted(const Acl& acl, std::optional<gid_t> owningGroup, const AclPrincipal& grantee, unsigned rights) {
    const acl_tag_t tag = grantee.isGroup ? ACL_GROUP : ACL_USER;
    const bool hadMask = Find(acl, ACL_MASK) != nullptr;
    const unsigned oldMask = hadMask ? MaskOf(acl) : RightsOf(acl, ACL_GROUP_OBJ);
    const AclEntry* own = Find(acl, tag, grantee.id);
    const unsigned before =
        own != nullptr ? own->rights & MaskOf(acl) : RightsWithoutEntry(acl, owningGroup, grantee);

    Acl result = acl;
    const unsigned newMask = oldMask | before | rights;
    if (hadMask) {
        const unsigned uncovered = newMask & ~oldMask;
        for (AclEntry& entry : result) {
            entry.rights &= IsMasked(entry) ? ~uncovered : ~0U;
        }
    }
    EntryOf(result, tag, grantee.id).rights |= before | rights;
    EntryOf(result, ACL_MASK, 0).rights = newMask;
    return result;
}

// Effective rights of an access ACL as a first default ACL.
Acl SeededDefault(const Acl& access) {
    Acl defaults;
    for (AclEntry entry : access) {
        if (IsMasked(entry)) {
            entry.rights &= MaskOf(access);
        } else if (entry.tag == ACL_USER_OBJ) {
            entry.rights = kAclReadWrite;
        } else if (entry.tag == ACL_OTHER) {
            entry.rights &= ~kAclWrite;
        }
        defaults.push_back(entry);
    }
    return defaults;
}

}  // namespace

bool Permits(const Acl& acl, const FolderOwner& owner, const AclPrincipal& user, unsigned wanted) {
    const auto covers = [wanted](unsigned rights) { return (rights & wanted) == wanted; };
    if (user.id == 0) {
        return true;
    }
    if (user.id == owner.uid) {
        return covers(RightsOf(acl, ACL_USER_OBJ));
    }
    if (Find(acl, ACL_MASK) != nullptr && MaskOf(acl) == 0) {
        return covers(Contains(user.groups, owner.gid) ? 0 : RightsOf(acl, ACL_OTHER));
    }
    if (const AclEntry* own = Find(acl, ACL_USER, user.id); own != nullptr) {
        return covers(own->rights & MaskOf(acl));
    }
    bool isMember = false;
    for (const AclEntry& entry : acl) {
        const bool matches = (entry.tag == ACL_GROUP && Contains(user.groups, entry.id)) ||
                             (entry.tag == ACL_GROUP_OBJ && Contains(user.groups, owner.gid));
        if (matches && covers(entry.rights & MaskOf(acl))) {
            return true;
        }
        isMember = isMember || matches;
    }
    return !isMember && covers(RightsOf(acl, ACL_OTHER));
}

Acl GrantedAccess(const Acl& access, const FolderOwner& owner, const AclPrincipal& grantee, unsigned rights) {
    Acl result = Granted(access, owner.gid, grantee, rights);
    // For the folder's owner only the owner's entry counts.
    if (!grantee.isGroup && grantee.id == owner.uid) {
        EntryOf(result, ACL_USER_OBJ, 0).rights |= rights;
    }
    return result;
}

Acl GrantedDefault(const Acl& defaults, const Acl& access, const AclPrincipal& grantee, unsigned rights) {
    return Granted(defaults.empty() ? SeededDefault(access) : defaults, std::nullopt, grantee, rights);
}

}  // namespace korv
