#include "korv/system/acl.h"

#include <algorithm>

#include <gtest/gtest.h>

namespace {

using korv::Acl;
using korv::AclPrincipal;

constexpr unsigned kRwx = korv::kAclReadWrite;
constexpr unsigned kRx = korv::kAclReadOnly;
constexpr uid_t kOwner = 1, kAlice = 10, kBob = 11;
constexpr gid_t kOwningGroup = 100, kStaff = 101, kGuests = 102;
constexpr korv::FolderOwner kFolder{kOwner, kOwningGroup};

const AclPrincipal kAliceAlone{false, kAlice, {200}};
const AclPrincipal kAliceOfStaff{false, kAlice, {kStaff, 200}};
const AclPrincipal kBobAlone{false, kBob, {201}};
const AclPrincipal kStaffGroup{true, kStaff, {}};

// What chmod alone makes.
Acl Plain(unsigned owner, unsigned group, unsigned others) {
    return {{ACL_USER_OBJ, 0, owner}, {ACL_GROUP_OBJ, 0, group}, {ACL_OTHER, 0, others}};
}

Acl With(Acl acl, std::initializer_list<korv::AclEntry> more) {
    acl.insert(acl.end(), more);
    return acl;
}

unsigned RightsOf(const Acl& acl, acl_tag_t tag, id_t id = 0) {
    const auto found = std::find_if(acl.begin(), acl.end(),
                                    [&](const auto& entry) { return entry.tag == tag && entry.id == id; });
    EXPECT_NE(found, acl.end());
    return found == acl.end() ? 99 : found->rights;
}

// What `user` is permitted, each right by itself.
unsigned Permitted(const Acl& acl, const AclPrincipal& user) {
    unsigned rights = 0;
    for (const unsigned right : {korv::kAclRead, korv::kAclWrite, korv::kAclExecute}) {
        rights |= Permits(acl, kFolder, user, right) ? right : 0;
    }
    return rights;
}

TEST(Permits, GoesByTheFirstThatSpeaksOfTheUser) {
    const Acl acl =
        With(Plain(kRx, kRx, 0), {{ACL_USER, kAlice, 0}, {ACL_GROUP, kStaff, kRwx}, {ACL_MASK, 0, kRwx}});
    EXPECT_EQ(Permitted(acl, {false, kOwner, {kStaff}}), kRx);
    EXPECT_EQ(Permitted(acl, kAliceOfStaff), 0U);
    EXPECT_EQ(Permitted(acl, {false, kBob, {kStaff}}), kRwx);
    EXPECT_EQ(Permitted(acl, {false, kBob, {kOwningGroup}}), kRx);
    EXPECT_EQ(Permitted(acl, kBobAlone), 0U);
    EXPECT_EQ(Permitted(acl, {false, 0, {}}), kRwx);
}

TEST(Permits, WhatOneOfSeveralGroupsGivesAndHidesOthers) {
    const Acl acl =
        With(Plain(kRwx, 0, kRwx),
             {{ACL_GROUP, kStaff, kRx}, {ACL_GROUP, kGuests, korv::kAclWrite}, {ACL_MASK, 0, kRwx}});
    const AclPrincipal bobOfBoth{false, kBob, {kStaff, kGuests}};
    EXPECT_EQ(Permitted(acl, bobOfBoth), kRwx);
    EXPECT_TRUE(Permits(acl, kFolder, bobOfBoth, kRx));
    EXPECT_FALSE(Permits(acl, kFolder, bobOfBoth, korv::kAclWrite | korv::kAclExecute))
        << "halves of two groups are no whole";
    EXPECT_EQ(Permitted(acl, {false, kBob, {kStaff}}), kRx);
}

TEST(Permits, WhatTheMaskLeavesExceptForOwnerAndOthers) {
    const Acl acl = With(Plain(kRwx, kRwx, kRwx), {{ACL_USER, kAlice, kRwx}, {ACL_MASK, 0, 4}});
    EXPECT_EQ(Permitted(acl, {false, kOwner, {}}), kRwx);
    EXPECT_EQ(Permitted(acl, kAliceAlone), 4U);
    EXPECT_EQ(Permitted(acl, {false, kBob, {kOwningGroup}}), 4U);
    EXPECT_EQ(Permitted(acl, kBobAlone), kRwx);
}

TEST(Permits, AnEmptyMaskMakesOthersOfThoseWhomTheListNames) {
    const Acl acl = With(Plain(kRwx, kRwx, kRx), {{ACL_USER, kAlice, kRwx}, {ACL_MASK, 0, 0}});
    EXPECT_EQ(Permitted(acl, kAliceAlone), kRx);
    EXPECT_EQ(Permitted(acl, {false, kBob, {kOwningGroup}}), 0U);
}

TEST(GrantedAccess, GivesTheRightAndNobodyElseOne) {
    const Acl acl = GrantedAccess(Plain(kRwx, kRx, 0), kFolder, kAliceAlone, kRwx);
    EXPECT_EQ(Permitted(acl, kAliceAlone), kRwx);
    EXPECT_EQ(Permitted(acl, {false, kBob, {kOwningGroup}}), kRx);
    EXPECT_EQ(Permitted(acl, kBobAlone), 0U);
    EXPECT_EQ(RightsOf(acl, ACL_MASK), kRwx);
}

TEST(GrantedAccess, TwiceIsOnce) {
    const Acl once = GrantedAccess(Plain(kRwx, kRx, 0), kFolder, kAliceAlone, kRwx);
    EXPECT_EQ(GrantedAccess(once, kFolder, kAliceAlone, kRwx), once);
}

TEST(GrantedAccess, KeepsWhatTheGranteeHasAlready) {
    const Acl own = With(Plain(kRwx, 0, 0), {{ACL_USER, kAlice, kRwx}, {ACL_MASK, 0, kRwx}});
    EXPECT_EQ(Permitted(GrantedAccess(own, kFolder, kAliceAlone, kRx), kAliceAlone), kRwx);
}

TEST(GrantedAccess, AnEntryOfOnesOwnDoesNotTakeAwayWhatGroupsOrOthersGave) {
    const Acl byGroup = With(Plain(kRwx, 0, 0), {{ACL_GROUP, kStaff, kRwx}, {ACL_MASK, 0, kRwx}});
    EXPECT_EQ(Permitted(GrantedAccess(byGroup, kFolder, kAliceOfStaff, kRx), kAliceOfStaff), kRwx);
    const Acl byOthers = Plain(kRwx, 0, kRwx);
    EXPECT_EQ(Permitted(GrantedAccess(byOthers, kFolder, kAliceAlone, kRx), kAliceAlone), kRwx);
    const Acl ofGroup = GrantedAccess(byOthers, kFolder, kStaffGroup, kRx);
    EXPECT_EQ(Permitted(ofGroup, kAliceOfStaff), kRwx);
}

TEST(GrantedAccess, WidensAMaskForTheGranteeOnly) {
    const Acl narrowed =
        With(Plain(kRwx, kRwx, 0), {{ACL_USER, kAlice, kRwx}, {ACL_USER, kBob, kRwx}, {ACL_MASK, 0, kRx}});
    const Acl acl = GrantedAccess(narrowed, kFolder, kAliceAlone, kRwx);
    EXPECT_EQ(Permitted(acl, kAliceAlone), kRwx);
    EXPECT_EQ(Permitted(acl, kBobAlone), kRx);
    EXPECT_EQ(Permitted(acl, {false, 12, {kOwningGroup}}), kRx);
}

TEST(GrantedAccess, LeavesHiddenBitsOfOthersWhenTheMaskNeedsNoChange) {
    const Acl narrowed = With(Plain(kRwx, 0, 0), {{ACL_USER, kBob, kRwx}, {ACL_MASK, 0, kRx}});
    const Acl acl = GrantedAccess(narrowed, kFolder, kAliceAlone, kRx);
    EXPECT_EQ(RightsOf(acl, ACL_USER, kBob), kRwx);
    EXPECT_EQ(RightsOf(acl, ACL_MASK), kRx);
}

TEST(GrantedAccess, ToTheOwnerReachesTheOwnersEntry) {
    const Acl acl = GrantedAccess(Plain(kRx, 0, 0), kFolder, {false, kOwner, {}}, kRwx);
    EXPECT_EQ(Permitted(acl, {false, kOwner, {}}), kRwx);
}

TEST(GrantedDefault, StartsFromEffectiveRightsAndNotFromTheMode) {
    // The mode's group bits are the mask: rwx here, while the group itself may only read.
    const Acl access = With(Plain(kRx, kRx, kRwx), {{ACL_USER, kBob, kRwx}, {ACL_MASK, 0, kRwx}});
    const Acl defaults = korv::GrantedDefault({}, access, kAliceAlone, kRwx);
    EXPECT_EQ(RightsOf(defaults, ACL_USER_OBJ), kRwx);
    EXPECT_EQ(RightsOf(defaults, ACL_GROUP_OBJ), kRx);
    EXPECT_EQ(RightsOf(defaults, ACL_OTHER), kRx);
    EXPECT_EQ(RightsOf(defaults, ACL_USER, kBob), kRwx);
    EXPECT_EQ(RightsOf(defaults, ACL_USER, kAlice), kRwx);
    EXPECT_EQ(RightsOf(defaults, ACL_MASK), kRwx);
}

TEST(GrantedDefault, AddsToTheOneThatIsThere) {
    const Acl before = With(Plain(kRwx, 0, 0), {{ACL_GROUP, kStaff, kRwx}, {ACL_MASK, 0, kRwx}});
    const Acl after = korv::GrantedDefault(before, Plain(0, 0, 0), kBobAlone, kRx);
    EXPECT_EQ(RightsOf(after, ACL_GROUP, kStaff), kRwx);
    EXPECT_EQ(RightsOf(after, ACL_USER, kBob), kRx);
    EXPECT_EQ(RightsOf(after, ACL_OTHER), 0U);
}

}  // namespace
