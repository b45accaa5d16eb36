#include "korv/system/mount_table.h"

#include <chrono>
#include <filesystem>

#include <sys/mount.h>

#include "korv/system/child_process.h"
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

TEST_F(MountTableTest, TellsASubvolumeOfBtrfsFromAFolderInOne) {
    if (!machine::MountBtrfs()) {
        GTEST_SKIP() << "this kernel has no Btrfs";
    }
    const std::string films = machine::BtrfsVolume() + "/films, old";
    ASSERT_EQ(
        korv::RunProgram("/usr/bin/btrfs", {"subvolume", "create", films}, std::chrono::seconds(20)).exitCode,
        0);
    fs::create_directory(films + "/inner");
    const auto bind = [this](const std::string& from) {
        const std::string to = machine::Volume() + "/bound";
        fs::create_directories(to);
        EXPECT_EQ(mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr), 0);
        m_mounted.insert(m_mounted.begin(), to);
        return *At(to);
    };
    const korv::Mount subvolume = bind(films);
    EXPECT_EQ(subvolume.root, "/films, old");
    EXPECT_EQ(subvolume.subvolume, "/films, old");
    const korv::Mount folder = bind(films + "/inner");
    EXPECT_EQ(folder.root, "/films, old/inner");
    EXPECT_EQ(folder.subvolume, "/films, old");
    EXPECT_EQ(At(machine::BtrfsVolume())->subvolume, "/");
    EXPECT_EQ(At(machine::Volume())->subvolume, "");
}
