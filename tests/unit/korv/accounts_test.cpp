#include "korv/system/accounts.h"

#include <algorithm>

#include "platform/korv/filesystem.h"

#include "korv/system/volume.h"
#include "tests/unit/korv/private_machine.h"

namespace {

class AccountsTest : public MachineTest {};

TEST_F(AccountsTest, AreFoundByTheirExactNameOnly) {
    const auto alice = korv::FindUser("alice");
    ASSERT_TRUE(alice);
    EXPECT_EQ(alice->uid, machine::kAliceUid);
    EXPECT_FALSE(korv::FindUser("nobody-here"));
    EXPECT_FALSE(korv::FindUser(""));
    EXPECT_FALSE(korv::FindUser(std::string("alice\0x", 7)));
    EXPECT_FALSE(korv::FindGroup(std::string("administrators\0", 15)));
    EXPECT_EQ(korv::FindGroup("administrators")->gid, machine::kAdministratorsGid);
}

TEST_F(AccountsTest, AdministratorsAreMembersByListOrByPrimaryGroup) {
    EXPECT_TRUE(korv::IsAdministrator("boss"));
    EXPECT_TRUE(korv::IsAdministrator("chief"));
    EXPECT_FALSE(korv::IsAdministrator("alice"));
    EXPECT_FALSE(korv::IsAdministrator("carol"));
    EXPECT_FALSE(korv::IsAdministrator("root"));
    EXPECT_FALSE(korv::IsAdministrator("nobody-here"));
}

TEST_F(AccountsTest, GroupsHoldThePrimaryOneToo) {
    const std::vector<gid_t> groups = korv::GroupsOf(*korv::FindUser("carol"));
    EXPECT_EQ(std::count(groups.begin(), groups.end(), machine::kNobodysGid), 1);
    EXPECT_EQ(std::count(groups.begin(), groups.end(), machine::kStaffGid), 1);
    EXPECT_EQ(groups.size(), 2U);
}

TEST_F(AccountsTest, VolumesCountWhileTheyAreMounted) {
    const korv::Volume usable = korv::ProbeVolume(machine::Volume());
    EXPECT_TRUE(usable.isMounted);
    EXPECT_TRUE(usable.isWritable);
    EXPECT_GT(usable.sizeMb, 0U);
    EXPECT_GE(usable.sizeMb, usable.freeMb);
    EXPECT_NE(usable.type, korv::FileSystemType::kUnknown);

    EXPECT_TRUE(korv::ProbeVolume(machine::ReadOnlyVolume()).isMounted);
    EXPECT_FALSE(korv::ProbeVolume(machine::ReadOnlyVolume()).isWritable);

    const korv::Volume absent = korv::ProbeVolume(machine::AbsentVolume());
    EXPECT_FALSE(absent.isMounted);
    EXPECT_FALSE(absent.isWritable);
    EXPECT_EQ(absent.type, korv::FileSystemType::kUnknown);
    EXPECT_EQ(absent.sizeMb, 0U);
    EXPECT_FALSE(korv::ProbeVolume("/no/such/path").isMounted);
}

TEST_F(AccountsTest, FoldersAreToldFromOtherThings) {
    EXPECT_TRUE(IsExistDir(machine::Volume()));
    EXPECT_FALSE(IsExistDir(machine::Volume() + "/nothing"));
    EXPECT_FALSE(IsExistDir("/etc/passwd"));
    EXPECT_FALSE(IsExistDir(""));
    EXPECT_FALSE(IsExistDir(std::string("/tmp\0x", 6)));
}

TEST(DirPath, IsThePathWithoutItsLastComponent) {
    EXPECT_EQ(GetDirPath("/volume1/rec"), "/volume1");
    EXPECT_EQ(GetDirPath("/volume1/a/b"), "/volume1/a");
    EXPECT_EQ(GetDirPath("/volume1//rec"), "/volume1");
    EXPECT_EQ(GetDirPath("/rec"), "");
    EXPECT_EQ(GetDirPath("rec"), "");
    EXPECT_EQ(GetDirPath(""), "");
    EXPECT_EQ(GetDirPath("/"), "");
}

TEST(BaseName, IsTheLastComponentWhateverSlashesFollow) {
    EXPECT_EQ(GetBaseName("/volume1/rec"), "rec");
    EXPECT_EQ(GetBaseName("/volume1/rec/"), "rec");
    EXPECT_EQ(GetBaseName("/volume1/rec///"), "rec");
    EXPECT_EQ(GetBaseName("rec"), "rec");
    EXPECT_EQ(GetBaseName("rec/"), "rec");
    EXPECT_EQ(GetBaseName("/"), "");
    EXPECT_EQ(GetBaseName(""), "");
}

}  // namespace
