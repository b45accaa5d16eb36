#include "korv/system/mount_table.h"

#include <filesystem>

#include <sys/mount.h>

#include "tests/unit/korv/private_machine.h"

namespace {

namespace fs = std::filesystem;

class MountTableTest : public MachineTest {
protected:
    void TearDown() override {
        for (const std::string& path : m_mounted) {
            umount2(path.c_str(), MNT_DETACH);
        }
        MachineTest::TearDown();
    }

    void MountAt(const std::string& path, const char* source) {
        fs::create_directories(path);
        ASSERT_EQ(mount(source, path.c_str(), "tmpfs", 0, "size=64k"), 0);
        m_mounted.insert(m_mounted.begin(), path);
    }

    static const korv::Mount* At(const std::string& path) {
        const auto along = korv::MountsAlong(path);
        return along.empty() ? nullptr : along.back();
    }

private:
    std::vector<std::string> m_mounted;
};

}  // namespace

TEST_F(MountTableTest, SeesEachMountAndUnmountAtOnce) {
    const std::string path = machine::Volume() + "/inner";
    EXPECT_EQ(At(path)->mountPoint, machine::Volume());
    MountAt(path, "first");
    ASSERT_NE(At(path), nullptr);
    EXPECT_EQ(At(path)->mountPoint, path);
    EXPECT_EQ(At(path)->source, "first");
    EXPECT_EQ(At(path)->fsType, "tmpfs");
    umount2(path.c_str(), MNT_DETACH);
    EXPECT_EQ(At(path)->mountPoint, machine::Volume());
}

TEST_F(MountTableTest, AChildSeesItsOwnChanges) {
    const std::string path = machine::Volume() + "/inner";
    ASSERT_NE(At(path)->mountPoint, path);
    const int status = machine::InChild([&] {
        const bool isSeen = (MountAt(path, "child"), At(path)->mountPoint == path);
        umount2(path.c_str(), MNT_DETACH);
        return isSeen && At(path)->mountPoint != path ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(At(path)->mountPoint, machine::Volume());
}

TEST_F(MountTableTest, ReadsNamesWithBlanksAndBackslashes) {
    const std::string path = machine::Volume() + "/a b\\c\td";
    MountAt(path, "a source");
    ASSERT_NE(At(path + "/file"), nullptr);
    EXPECT_EQ(At(path + "/file")->mountPoint, path);
    EXPECT_EQ(At(path + "/file")->source, "a source");
}

TEST_F(MountTableTest, OfTwoAtOnePlaceTheLaterIsInSight) {
    const std::string path = machine::Volume() + "/twice";
    MountAt(path, "lower");
    MountAt(path + "/below", "covered");
    MountAt(path, "upper");
    const auto along = korv::MountsAlong(path + "/below");
    ASSERT_FALSE(along.empty());
    EXPECT_EQ(along.back()->source, "upper");
    for (const korv::Mount* mount : along) {
        EXPECT_NE(mount->source, "covered");
        EXPECT_NE(mount->source, "lower");
    }
}

TEST_F(MountTableTest, ANameThatOnlyBeginsAlikeIsAnotherPlace) {
    const std::string path = machine::Volume() + "/rec";
    MountAt(path, "rec");
    EXPECT_EQ(At(path + "ord")->mountPoint, machine::Volume());
    EXPECT_EQ(korv::MountsAlong("/").back()->mountPoint, "/");
}
