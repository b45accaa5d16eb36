#include "korv/system/tree_remove.h"

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "korv/system/child_process.h"
#include "korv/system/file_descriptor.h"
#include "tests/unit/korv/private_machine.h"

#ifdef __SANITIZE_ADDRESS__
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();  // the checker's own; its header is apart
#endif

namespace {

namespace fs = std::filesystem;

using korv::FileDescriptor;
using korv::RemoveObstacle;
using korv::TreeRemoval;

constexpr int kDeep = 20000;

FileDescriptor Open(const std::string& path) {
    return FileDescriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

TreeRemoval Remove(const std::string& name, const std::string& volume = machine::Volume()) {
    return korv::RemoveTree(Open(volume).Get(), name);
}

void Write(const fs::path& path, const std::string& text = "x") { std::ofstream(path) << text; }

// A chain of `depth` folders named "d" with a file in each.
void MakeDeep(const std::string& root, int depth) {
    fs::create_directory(root);
    FileDescriptor folder = Open(root);
    for (int i = 0; i < depth; ++i) {
        ASSERT_EQ(mkdirat(folder.Get(), "d", 0700), 0);
        const FileDescriptor file(openat(folder.Get(), "f", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        FileDescriptor next(openat(folder.Get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        ASSERT_TRUE(file && next);
        folder = std::move(next);
    }
}

void MakeFiles(const std::string& folder, int count) {
    fs::create_directories(folder);
    const FileDescriptor opened = Open(folder);
    for (int i = 0; i < count; ++i) {
        const FileDescriptor file(
            openat(opened.Get(), std::to_string(i).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        ASSERT_TRUE(file);
    }
}

// What this process has allocated and not freed; freed memory that a checker keeps back doesn't count.
std::size_t UsedHeap_bytes() {
#ifdef __SANITIZE_ADDRESS__
    return __sanitizer_get_current_allocated_bytes();
#else
    return mallinfo2().uordblks;
#endif
}

void SetImmutable(const std::string& path, bool isImmutable) {
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    int flags = 0;
    ASSERT_EQ(ioctl(file.Get(), FS_IOC_GETFLAGS, &flags), 0);
    flags = isImmutable ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
    ASSERT_EQ(ioctl(file.Get(), FS_IOC_SETFLAGS, &flags), 0);
}

class TreeRemove : public MachineTest {
protected:
    const std::string m_volume = machine::Volume();
};

TEST_F(TreeRemove, RemovesEverythingAndCountsIt) {
    fs::create_directories(m_volume + "/rec/cam1/day1");
    fs::create_directories(m_volume + "/rec/cam 2");
    Write(m_volume + "/rec/cam1/day1/a.mp4");
    Write(m_volume + "/rec/cam 2/\xff\n.mp4");
    ASSERT_EQ(mkfifo((m_volume + "/rec/pipe").c_str(), 0600), 0);

    const TreeRemoval result = Remove("rec");

    EXPECT_TRUE(result.isGone);
    EXPECT_EQ(result.files, 3U);
    EXPECT_EQ(result.folders, 4U);
    EXPECT_EQ(result.problemCount, 0U);
    EXPECT_TRUE(machine::Entries(m_volume).empty());
}

TEST_F(TreeRemove, WhatIsNotThereIsGone) {
    Write(m_volume + "/file");
    EXPECT_TRUE(Remove("file/below").isGone);
    EXPECT_TRUE(Remove("rec").isGone);
    EXPECT_TRUE(Remove("none/rec").isGone);
}

TEST_F(TreeRemove, RefusesNamesThatLeadElsewhere) {
    fs::create_directories(m_volume + "/a");
    for (const char* name : {"", ".", "..", "a/..", "a/", "../a", "/a"}) {
        const TreeRemoval result = Remove(name);
        EXPECT_FALSE(result.isGone) << name;
        EXPECT_EQ(result.problemCount, 1U) << name;
    }
    EXPECT_TRUE(fs::exists(m_volume + "/a"));
}

TEST_F(TreeRemove, RemovesLinksAndNotWhatTheyLeadTo) {
    fs::create_directories(m_volume + "/kept/sub");
    Write(m_volume + "/kept/sub/file");
    fs::create_directories(m_volume + "/rec");
    fs::create_directory_symlink(m_volume + "/kept", m_volume + "/rec/folder");
    fs::create_symlink("../kept/sub/file", m_volume + "/rec/file");
    fs::create_directory_symlink("kept", m_volume + "/link");

    EXPECT_TRUE(Remove("rec").isGone);
    EXPECT_TRUE(Remove("link").isGone);
    EXPECT_FALSE(Remove("link/sub").problemCount > 0);
    fs::create_directory_symlink("kept", m_volume + "/link");
    EXPECT_FALSE(Remove("link/sub").isGone);
    EXPECT_TRUE(fs::exists(m_volume + "/kept/sub/file"));
}

// In memory, since a folder costs a disk some milliseconds.
TEST_F(TreeRemove, RemovesAVeryDeepTree) {
    const std::string volume = machine::BtrfsVolume();
    ASSERT_EQ(mount("tmpfs", volume.c_str(), "tmpfs", 0, "mode=0700"), 0);
    MakeDeep(volume + "/rec", kDeep);
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlim_t old = std::exchange(limit.rlim_cur, 80);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);

    const TreeRemoval result = Remove("rec", volume);

    limit.rlim_cur = old;
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(umount(volume.c_str()), 0);
    EXPECT_TRUE(result.isGone);
    EXPECT_EQ(result.files, static_cast<std::uint64_t>(kDeep));
    EXPECT_EQ(result.folders, static_cast<std::uint64_t>(kDeep) + 1);
}

TEST_F(TreeRemove, KeepsWhatIsImmutableAndItsFoldersOnly) {
    MakeDeep(m_volume + "/rec", 50);
    std::string deep = m_volume + "/rec";
    for (int i = 0; i < 45; ++i) {
        deep += "/d";
    }
    SetImmutable(deep + "/f", true);

    const TreeRemoval blocked = Remove("rec");

    EXPECT_FALSE(blocked.isGone);
    EXPECT_EQ(blocked.problemCount, 1U);
    ASSERT_EQ(blocked.problems.size(), 1U);
    EXPECT_EQ(blocked.problems[0].obstacle, RemoveObstacle::kImmutable);
    EXPECT_EQ(blocked.problems[0].path.substr(0, 6), "rec/d/");
    EXPECT_EQ(blocked.files, 49U);
    EXPECT_EQ(blocked.folders, 5U);

    SetImmutable(deep + "/f", false);
    EXPECT_TRUE(Remove("rec").isGone);
}

TEST_F(TreeRemove, RefusesATreeWithAMountInItAndRemovesNothing) {
    fs::create_directories(m_volume + "/rec/a/with blank");
    fs::create_directories(m_volume + "/other");
    Write(m_volume + "/rec/file");
    Write(m_volume + "/other/kept");
    ASSERT_EQ(mount((m_volume + "/other").c_str(), (m_volume + "/rec/a/with blank").c_str(), nullptr, MS_BIND,
                    nullptr),
              0);

    const TreeRemoval result = Remove("rec");

    EXPECT_FALSE(result.isGone);
    ASSERT_EQ(result.problems.size(), 1U);
    EXPECT_EQ(result.problems[0].obstacle, RemoveObstacle::kMount);
    EXPECT_EQ(result.problems[0].path, "rec/a/with blank");
    EXPECT_TRUE(fs::exists(m_volume + "/rec/file"));
    ASSERT_EQ(umount((m_volume + "/rec/a/with blank").c_str()), 0);
    EXPECT_TRUE(Remove("rec").isGone);
    EXPECT_TRUE(fs::exists(m_volume + "/other/kept"));
}

TEST_F(TreeRemove, NamesAFileThatIsMountedOver) {
    fs::create_directories(m_volume + "/rec");
    Write(m_volume + "/rec/file");
    ASSERT_EQ(mount("/etc/hostname", (m_volume + "/rec/file").c_str(), nullptr, MS_BIND, nullptr), 0);
    const TreeRemoval result = Remove("rec/file");
    EXPECT_FALSE(result.isGone);
    ASSERT_EQ(result.problems.size(), 1U);
    EXPECT_EQ(result.problems[0].obstacle, RemoveObstacle::kMount);
    ASSERT_EQ(umount((m_volume + "/rec/file").c_str()), 0);
}

TEST_F(TreeRemove, SaysThatAVolumeIsReadOnly) {
    fs::create_directories(m_volume + "/rec/sub");
    ASSERT_EQ(mount(nullptr, m_volume.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    const TreeRemoval result = Remove("rec");
    ASSERT_EQ(mount(nullptr, m_volume.c_str(), nullptr, MS_REMOUNT | MS_BIND, nullptr), 0);
    EXPECT_FALSE(result.isGone);
    ASSERT_FALSE(result.problems.empty());
    EXPECT_EQ(result.problems[0].obstacle, RemoveObstacle::kReadOnly);
}

TEST_F(TreeRemove, NeedsNoMoreMemoryForMoreFiles) {
    constexpr int kFiles = 100'000, kFolders = 1000;
    constexpr std::size_t kBound_bytes = std::size_t{512} * 1024;  // the names alone are more
    const std::string volume = machine::BtrfsVolume();
    ASSERT_EQ(mount("tmpfs", volume.c_str(), "tmpfs", 0, "nr_inodes=0"), 0);
    MakeFiles(volume + "/rec/cam", kFiles);
    for (int i = 0; i < kFolders; ++i) {
        MakeFiles(volume + "/rec/day" + std::to_string(i), 3);
    }
    const std::size_t before = UsedHeap_bytes();
    std::size_t most = before;
    const TreeRemoval result = korv::RemoveTree(Open(volume).Get(), "rec", [&most] {
        most = std::max(most, UsedHeap_bytes());
        return false;
    });
    EXPECT_TRUE(result.isGone);
    EXPECT_EQ(result.files, static_cast<std::uint64_t>(kFiles + 3 * kFolders));
    EXPECT_GT(most, before);
    EXPECT_LT(most - before, kBound_bytes);
    EXPECT_EQ(umount2(volume.c_str(), 0), 0);
}

TEST_F(TreeRemove, GoesOnAfterItWasStopped) {
    MakeFiles(m_volume + "/rec/cam", 5000);
    int questions = 0;
    const TreeRemoval stopped =
        korv::RemoveTree(Open(m_volume).Get(), "rec", [&questions] { return ++questions > 3; });
    EXPECT_TRUE(stopped.isStopped);
    EXPECT_FALSE(stopped.isGone);
    EXPECT_EQ(stopped.problemCount, 0U);
    EXPECT_LT(stopped.files, 5000U);
    const TreeRemoval rest = Remove("rec");
    EXPECT_TRUE(rest.isGone);
    EXPECT_EQ(stopped.files + rest.files, 5000U);
}

TEST_F(TreeRemove, GoesOnAfterItsProcessWasKilled) {
    MakeFiles(m_volume + "/rec/cam", 5000);
    MakeDeep(m_volume + "/rec/deep", 60);
    int killed = 0;
    for (int after = 1; after < 1000; ++after) {
        const int status = machine::InChild([&] {
            int questions = 0;
            const auto result = korv::RemoveTree(Open(m_volume).Get(), "rec", [&] {
                return ++questions == after && kill(getpid(), SIGKILL) == 0;
            });
            return result.isGone ? 0 : 1;
        });
        if (WIFEXITED(status)) {
            EXPECT_EQ(WEXITSTATUS(status), 0);
            break;
        }
        ++killed;
    }
    EXPECT_GE(killed, 5);
    EXPECT_TRUE(machine::Entries(m_volume).empty());
}

TEST_F(TreeRemove, TwoAtOnceRemoveATreeTogether) {
    MakeFiles(m_volume + "/rec/cam", 5000);
    const std::vector<int> ends = machine::InChildren(2, [&](int) {
        const TreeRemoval result = Remove("rec");
        return result.problemCount == 0 ? 0 : 1;
    });
    EXPECT_EQ(ends, (std::vector<int>{0, 0}));
    EXPECT_TRUE(Remove("rec").isGone);
}

TEST_F(TreeRemove, RemovesSubvolumesWithAllThatIsInThem) {
    if (!machine::MountBtrfs()) {
        GTEST_SKIP() << "no loop devices";
    }
    const std::string volume = machine::BtrfsVolume();
    const auto run = [](const std::vector<std::string>& arguments) {
        return korv::RunProgram("/usr/bin/btrfs", arguments, std::chrono::seconds(20)).exitCode;
    };
    ASSERT_EQ(run({"subvolume", "create", volume + "/rec"}), 0);
    fs::create_directories(volume + "/rec/cam");
    Write(volume + "/rec/cam/file");
    ASSERT_EQ(run({"subvolume", "create", volume + "/rec/cam/inner"}), 0);
    Write(volume + "/rec/cam/inner/file");
    ASSERT_EQ(run({"subvolume", "snapshot", "-r", volume + "/rec", volume + "/rec/snap"}), 0);
    fs::create_directories(volume + "/plain");
    ASSERT_EQ(run({"subvolume", "snapshot", "-r", volume + "/rec/cam/inner", volume + "/plain/snap"}), 0);

    const TreeRemoval subvolume = Remove("rec", volume);
    EXPECT_TRUE(subvolume.isGone);
    EXPECT_EQ(subvolume.subvolumes, 1U);
    const TreeRemoval folder = Remove("plain", volume);
    EXPECT_TRUE(folder.isGone);
    EXPECT_EQ(folder.subvolumes, 1U);
    EXPECT_TRUE(machine::Entries(volume).empty());
    EXPECT_EQ(umount(volume.c_str()), 0);
}

}  // namespace
