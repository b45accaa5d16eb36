#include "korv/system/app_privilege.h"

#include "platform/korv/app_privilege.h"

#include "korv/system/address_range.h"
#include "tests/unit/korv/private_machine.h"

namespace {

constexpr const char* kApp = "KORV.KRX.Pavane";

bool IsIn(const std::string& range, const std::string& address) {
    const auto parsedRange = korv::ParseAddressRange(range);
    const auto parsedAddress = korv::ParseAddress(address);
    EXPECT_TRUE(parsedRange) << range;
    EXPECT_TRUE(parsedAddress) << address;
    return parsedRange && parsedAddress && korv::Contains(*parsedRange, *parsedAddress);
}

TEST(AddressRange, HoldsAddressesThatShareThePrefix) {
    struct Case {
        const char* range;
        const char* address;
        bool isIn;
    };
    for (const Case& each : {
             Case{"192.0.2.7", "192.0.2.7", true},
             Case{"192.0.2.7", "192.0.2.8", false},
             Case{"192.0.2.0/24", "192.0.2.255", true},
             Case{"192.0.2.0/24", "192.0.3.0", false},
             Case{"192.0.2.99/25", "192.0.2.127", true},
             Case{"192.0.2.99/25", "192.0.2.128", false},
             Case{"10.0.0.0/9", "10.127.255.255", true},
             Case{"10.0.0.0/9", "10.128.0.0", false},
             Case{"0.0.0.0/0", "203.0.113.1", true},
             Case{"0.0.0.0/0", "2001:db8::1", false},
             Case{"::/0", "2001:db8::1", true},
             Case{"::/0", "192.0.2.1", false},
             Case{"2001:db8::/32", "2001:db8:ffff::1", true},
             Case{"2001:db8::/32", "2001:db9::1", false},
             Case{"2001:db8::/127", "2001:db8::1", true},
             Case{"2001:db8::/127", "2001:db8::2", false},
             Case{"192.0.2.0/24", "::ffff:192.0.2.9", true},
             Case{"::ffff:192.0.2.0/120", "192.0.2.9", true},
             Case{"::ffff:192.0.2.0/120", "192.0.3.9", false},
         }) {
        EXPECT_EQ(IsIn(each.range, each.address), each.isIn) << each.range << " and " << each.address;
    }
}

TEST(AddressRange, RefusesWhatIsNoRange) {
    for (const std::string& text :
         {std::string("192.0.2.0/33"), std::string("2001:db8::/129"), std::string("192.0.2.0/"),
          std::string("192.0.2.0/-1"), std::string("192.0.2.0/24x"), std::string("192.0.2.0/ 24"),
          std::string("192.0.2.0/24/24"), std::string("/24"), std::string("192.0.2"), std::string("host"),
          std::string("192.0.2.1:80"), std::string("fe80::1%eth0"), std::string(" 192.0.2.1"),
          std::string("192.0.2.1\0x", 11), std::string("192.0.2.0/99999999999")}) {
        EXPECT_FALSE(korv::ParseAddressRange(text)) << testing::PrintToString(text);
    }
}

TEST(AddressRange, HasOneText) {
    EXPECT_EQ(korv::AddressRangeText(*korv::ParseAddressRange("192.0.2.99/24")), "192.0.2.0/24");
    EXPECT_EQ(korv::AddressRangeText(*korv::ParseAddressRange("192.0.2.7")), "192.0.2.7/32");
    EXPECT_EQ(korv::AddressRangeText(*korv::ParseAddressRange("2001:DB8:0::1/64")), "2001:db8::/64");
    EXPECT_EQ(korv::AddressRangeText(*korv::ParseAddressRange("::ffff:192.0.2.0/120")), "192.0.2.0/24");
}

class AppPrivilegeTest : public MachineTest {};

TEST_F(AppPrivilegeTest, NobodyMayWithoutAGrant) {
    EXPECT_FALSE(SDKUser::AppPrivUserHas("alice", kApp, "192.0.2.7"));
    EXPECT_FALSE(korv::HasAppPrivilege("alice", kApp));
}

TEST_F(AppPrivilegeTest, AGrantFromAnywhereHoldsForItsAccountAndApplicationOnly) {
    korv::GrantAppPrivilege({"alice", kApp, ""});
    EXPECT_TRUE(korv::HasAppPrivilege("alice", kApp));
    EXPECT_TRUE(SDKUser::AppPrivUserHas("alice", kApp, "192.0.2.7"));
    EXPECT_TRUE(SDKUser::AppPrivUserHas("alice", kApp, "2001:db8::7"));
    EXPECT_TRUE(SDKUser::AppPrivUserHas("alice", kApp, ""));
    EXPECT_FALSE(SDKUser::AppPrivUserHas("alice", kApp, "nonsense"));
    EXPECT_FALSE(korv::HasAppPrivilege("carol", kApp));
    EXPECT_FALSE(korv::HasAppPrivilege("Alice", kApp));
    EXPECT_FALSE(korv::HasAppPrivilege("alice", "KORV.KRX.Other"));
    EXPECT_FALSE(korv::HasAppPrivilege("", kApp));
    EXPECT_FALSE(korv::HasAppPrivilege("alice", ""));
}

TEST_F(AppPrivilegeTest, AGrantFromARangeHoldsThereOnly) {
    korv::GrantAppPrivilege({"alice", kApp, "192.0.2.0/24"});
    korv::GrantAppPrivilege({"alice", kApp, "2001:db8::/32"});
    EXPECT_TRUE(SDKUser::AppPrivUserHas("alice", kApp, "192.0.2.7"));
    EXPECT_TRUE(SDKUser::AppPrivUserHas("alice", kApp, "2001:db8::7"));
    EXPECT_FALSE(SDKUser::AppPrivUserHas("alice", kApp, "198.51.100.1"));
    EXPECT_FALSE(SDKUser::AppPrivUserHas("alice", kApp, ""));
    EXPECT_FALSE(korv::HasAppPrivilege("alice", kApp));
}

TEST_F(AppPrivilegeTest, AnAccountThatIsGoneMayNothing) {
    korv::GrantAppPrivilege({"gone", kApp, ""});
    EXPECT_FALSE(korv::HasAppPrivilege("gone", kApp));
}

TEST_F(AppPrivilegeTest, GrantsAreKeptOnceListedInOrderAndRevoked) {
    korv::GrantAppPrivilege({"carol", kApp, ""});
    korv::GrantAppPrivilege({"alice", kApp, "192.0.2.0/24"});
    korv::GrantAppPrivilege({"alice", kApp, "192.0.2.0/24"});
    ASSERT_EQ(korv::ListAppPrivileges("", "").size(), 2U);
    EXPECT_EQ(korv::ListAppPrivileges("", "").front().account, "alice");
    EXPECT_EQ(korv::ListAppPrivileges("carol", "").size(), 1U);
    EXPECT_EQ(korv::ListAppPrivileges("", "KORV.KRX.Other").size(), 0U);
    EXPECT_FALSE(korv::RevokeAppPrivilege({"alice", kApp, ""}));
    EXPECT_TRUE(korv::RevokeAppPrivilege({"alice", kApp, "192.0.2.0/24"}));
    EXPECT_FALSE(SDKUser::AppPrivUserHas("alice", kApp, "192.0.2.7"));
    EXPECT_TRUE(korv::HasAppPrivilege("carol", kApp));
}

}  // namespace
