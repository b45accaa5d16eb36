#include "pavane/recorder/rotation.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>

#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace {

namespace fs = std::filesystem;

using pavane::RotationEnd;
using pavane::RotationOptions;
using pavane::RotationResult;

constexpr std::uint64_t kFile_bytes = std::uint64_t{64} * 1024;
constexpr std::int64_t kStart_s = 1'700'000'000;

class Rotation : public testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "rotation-test-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        m_root = pattern;
        m_share = m_root / "rec";
        fs::create_directory(m_share);
    }

    void TearDown() override { fs::remove_all(m_root); }

    // A recording that was modified `age` seconds after the first one.
    void Record(const std::string& path, int age, std::uint64_t bytes = kFile_bytes) {
        fs::create_directories((m_share / path).parent_path());
        std::ofstream(m_share / path) << std::string(bytes, 'r');
        SetAge(path, age);
    }

    void SetAge(const std::string& path, int age) {
        const timespec times[2] = {{kStart_s + age, 0}, {kStart_s + age, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, (m_share / path).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    }

    RotationResult Rotate(std::uint64_t files, const RotationOptions& options = {}) const {
        return pavane::RotateShare(m_share, files * kFile_bytes, options);
    }

    std::set<std::string> Left() const {
        std::set<std::string> names;
        for (const auto& entry : fs::recursive_directory_iterator(m_share)) {
            names.insert(fs::relative(entry.path(), m_share));
        }
        return names;
    }

    fs::path m_root;
    fs::path m_share;
};

TEST_F(Rotation, RemovesTheOldestUntilTheLimitHolds) {
    Record("cam1/a", 5);
    Record("cam2/b", 1);
    Record("cam1/c", 3);
    Record("cam2/d", 2);
    Record("e", 4);

    const RotationResult result = Rotate(2);

    EXPECT_EQ(result.end, RotationEnd::kWithinLimit);
    EXPECT_EQ(result.usage_bytes, 2 * kFile_bytes);
    EXPECT_EQ(result.removedFiles, 3U);
    EXPECT_EQ(result.removed_bytes, 3 * kFile_bytes);
    EXPECT_EQ(result.oldest_s, kStart_s + 1);
    EXPECT_EQ(result.newest_s, kStart_s + 3);
    EXPECT_EQ(Left(), (std::set<std::string>{"cam1", "cam1/a", "cam2", "e"}));
}

TEST_F(Rotation, LeavesAShareWithinItsLimitAlone) {
    Record("cam1/a", 1);
    Record("cam1/b", 2);
    const RotationResult result = Rotate(2);
    EXPECT_EQ(result.end, RotationEnd::kWithinLimit);
    EXPECT_EQ(result.removedFiles, 0U);
    EXPECT_EQ(Left().size(), 3U);
}

TEST_F(Rotation, RemovesEmptiedFoldersBelowTheCamerasOnly) {
    Record("cam1/2024/01/a", 1);
    Record("cam1/2024/02/b", 3);
    Record("cam2/2024/01/c", 2);
    fs::create_directories(m_share / "cam2/empty before");

    const RotationResult result = Rotate(1);

    EXPECT_EQ(result.removedFolders, 3U);
    EXPECT_EQ(Left(), (std::set<std::string>{"cam1", "cam1/2024", "cam1/2024/02", "cam1/2024/02/b", "cam2",
                                             "cam2/empty before"}));
}

TEST_F(Rotation, NeverFollowsALinkOutOfTheShare) {
    fs::create_directories(m_root / "other/cam");
    std::ofstream(m_root / "other/cam/kept") << std::string(kFile_bytes * 4, 'k');
    std::ofstream(m_root / "other/file") << std::string(kFile_bytes * 4, 'k');
    fs::create_directory_symlink(m_root / "other", m_share / "link");
    fs::create_directories(m_share / "cam1");
    fs::create_directory_symlink("../../other", m_share / "cam1/link");
    fs::create_symlink(m_root / "other/file", m_share / "cam1/file");
    Record("cam1/a", 1);

    const RotationResult result = Rotate(0);

    EXPECT_EQ(result.end, RotationEnd::kWithinLimit);
    EXPECT_EQ(result.removedFiles, 1U);
    EXPECT_TRUE(fs::exists(m_root / "other/cam/kept"));
    EXPECT_TRUE(fs::exists(m_root / "other/file"));
    EXPECT_TRUE(fs::is_symlink(m_share / "cam1/file"));
}

TEST_F(Rotation, LeavesWhatIsMountedInACamerasFolderAlone) {
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    fs::create_directories(m_share / "cam1/nas");
    ASSERT_EQ(mount("tmpfs", (m_share / "cam1/nas").c_str(), "tmpfs", 0, ""), 0);
    Record("cam1/nas/kept", 1);
    Record("cam1/nas/deeper/kept", 2);
    Record("cam1/a", 3);

    const RotationResult result = Rotate(0);

    EXPECT_EQ(result.end, RotationEnd::kWithinLimit);
    EXPECT_EQ(result.usage_bytes, 0U);
    EXPECT_EQ(result.removedFiles, 1U);
    EXPECT_EQ(Left(), (std::set<std::string>{"cam1", "cam1/nas", "cam1/nas/deeper", "cam1/nas/deeper/kept",
                                             "cam1/nas/kept"}));
    EXPECT_EQ(umount2((m_share / "cam1/nas").c_str(), 0), 0);
}

TEST_F(Rotation, AShareThatIsALinkIsNotRotated) {
    Record("cam1/a", 1);
    fs::create_directory_symlink(m_share, m_root / "link");
    EXPECT_EQ(pavane::RotateShare(m_root / "link", 0).end, RotationEnd::kNoFolder);
    EXPECT_EQ(pavane::RotateShare(m_root / "none", 0).end, RotationEnd::kNoFolder);
    EXPECT_EQ(pavane::RotateShare("/", 0).end, RotationEnd::kNoFolder);
    EXPECT_EQ(pavane::RotateShare("rec", 0).end, RotationEnd::kNoFolder);
    EXPECT_EQ(Left().size(), 2U);
}

TEST_F(Rotation, TheSystemsOwnFilesAreNoRecordings) {
    Record(".korv/state", 1);
    Record(".hidden", 1);
    Record("cam1/.part", 2);
    const RotationResult result = Rotate(0);
    EXPECT_EQ(result.removedFiles, 1U);
    EXPECT_EQ(Left(), (std::set<std::string>{".hidden", ".korv", ".korv/state", "cam1"}));
}

TEST_F(Rotation, LeavesARecordingThatIsBeingWritten) {
    Record("cam1/a", 1);
    Record("cam1/b", 2);
    const int writer = open((m_share / "cam1/a").c_str(), O_WRONLY | O_CLOEXEC);
    const int reader = open((m_share / "cam1/b").c_str(), O_RDONLY | O_CLOEXEC);

    const RotationResult result = Rotate(0);

    EXPECT_EQ(result.end, RotationEnd::kNothingLeft);
    EXPECT_EQ(result.inUse, 1U);
    EXPECT_EQ(result.removedFiles, 1U);
    EXPECT_EQ(Left(), (std::set<std::string>{"cam1", "cam1/a"}));
    close(writer);
    close(reader);
    EXPECT_EQ(Rotate(0).end, RotationEnd::kWithinLimit);
}

TEST_F(Rotation, WalksAgainWhenOneWalkRemembersTooFew) {
    for (int i = 0; i < 100; ++i) {
        Record("cam" + std::to_string(i % 3) + "/day" + std::to_string(i % 7) + "/" + std::to_string(i), i);
    }
    RotationOptions options;
    options.mostCandidates = 8;
    const RotationResult result = Rotate(10, options);
    EXPECT_EQ(result.end, RotationEnd::kWithinLimit);
    EXPECT_EQ(result.removedFiles, 90U);
    EXPECT_EQ(result.newest_s, kStart_s + 89);
    for (int i = 90; i < 100; ++i) {
        EXPECT_TRUE(fs::exists(m_share / ("cam" + std::to_string(i % 3)) / ("day" + std::to_string(i % 7)) /
                               std::to_string(i)));
    }
}

TEST_F(Rotation, CountsAFileWithTwoNamesOnce) {
    Record("cam1/a", 1);
    Record("cam1/b", 3);
    Record("cam1/c", 4);
    fs::create_directories(m_share / "cam2");
    fs::create_hard_link(m_share / "cam1/a", m_share / "cam2/a");
    EXPECT_EQ(Rotate(3).removedFiles, 0U);
    const RotationResult result = Rotate(2);
    EXPECT_EQ(result.end, RotationEnd::kWithinLimit);
    EXPECT_EQ(result.usage_bytes, 2 * kFile_bytes);
    EXPECT_EQ(Left(), (std::set<std::string>{"cam1", "cam1/b", "cam1/c", "cam2"}));
}

TEST_F(Rotation, ALockThatSomebodyHoldsOnTheFolderDoesNotKeepItFromWorking) {
    Record("cam1/a", 1);
    const int other = open(m_share.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(other, LOCK_EX), 0);
    EXPECT_EQ(Rotate(0).end, RotationEnd::kWithinLimit);
    EXPECT_EQ(Left(), (std::set<std::string>{"cam1"}));
    close(other);
}

TEST_F(Rotation, OthersMayDeleteAndRecordMeanwhile) {
    for (int i = 0; i < 300; ++i) {
        Record("cam1/day" + std::to_string(i / 10) + "/" + std::to_string(i), i, 4096);
    }
    int removals = 0;
    RotationOptions options;
    options.shouldStop = [&] {
        ++removals;
        if (removals == 5) {
            fs::remove_all(m_share / "cam1/day1");
        }
        if (removals == 7) {
            SetAge("cam1/day2/25", 1000);
            fs::remove(m_share / "cam1/day2/26");
        }
        return false;
    };
    const RotationResult result = pavane::RotateShare(m_share, std::uint64_t{100} * 4096, options);
    EXPECT_EQ(result.end, RotationEnd::kWithinLimit);
    EXPECT_EQ(result.failed, 0U);
    EXPECT_TRUE(fs::exists(m_share / "cam1/day2/25"));
    EXPECT_TRUE(fs::exists(m_share / "cam1/day29/299"));
    EXPECT_FALSE(fs::exists(m_share / "cam1/day0"));
}

TEST_F(Rotation, CanBeStoppedAndGoesOnLater) {
    for (int i = 0; i < 20; ++i) {
        Record("cam1/" + std::to_string(i), i);
    }
    int asked = 0;
    RotationOptions options;
    options.shouldStop = [&asked] { return ++asked > 4; };
    EXPECT_EQ(Rotate(5, options).end, RotationEnd::kStopped);
    EXPECT_EQ(Left().size(), 17U);
    EXPECT_EQ(Rotate(5).removedFiles, 11U);
}

}  // namespace
