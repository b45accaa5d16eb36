// What quotas and limits admit, compared with what writing until full really allows.

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <vector>

#include <linux/btrfs.h>
#include <linux/magic.h>
#include <linux/quota.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>

#include "platform/korv/volume.h"

#include "korv/system/child_process.h"
#include "korv/system/file_descriptor.h"
#include "tests/unit/korv/private_machine.h"

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kKB = 1024;
constexpr std::uint64_t kMB = kKB * kKB;
constexpr std::chrono::seconds kPatience(30);

void RunTool(const std::string& program, const std::vector<std::string>& arguments) {
    const korv::ProgramEnd end = korv::RunProgram(program, arguments, kPatience);
    ASSERT_EQ(end.exitCode, 0) << program << ": " << end.output;
}

// Writes until nothing more goes, or `limit` bytes; what compresses to nothing would say nothing.
std::uint64_t WriteUntilFull(const std::string& path, std::uint64_t limit = ~std::uint64_t{0}) {
    std::vector<char> block(std::size_t{64} * 1024);
    std::uint32_t seed = 1;
    for (char& each : block) {
        seed = seed * 1664525 + 1013904223;
        each = static_cast<char>(seed >> 24U);
    }
    const korv::FileDescriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    std::uint64_t written = 0;
    while (written < limit) {
        const std::size_t wanted = std::min<std::uint64_t>(block.size(), limit - written);
        const ssize_t length = write(file.Get(), block.data(), wanted);
        if (length <= 0) {
            break;
        }
        written += static_cast<std::uint64_t>(length);
    }
    EXPECT_EQ(fsync(file.Get()), 0);
    return written;
}

// The same as a user of the machine; in MB.
double WritesMBAs(unsigned uid, const std::string& path) {
    const std::string report = machine::StateFolder() + "/written";
    const int status = machine::InChild([&] {
        std::ofstream output(report);
        machine::BecomeEffectively(uid, {});
        output << WriteUntilFull(path);
        return output.flush() ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
    std::uint64_t written = 0;
    std::ifstream(report) >> written;
    return static_cast<double>(written) / kMB;
}

// A file system of its own, not of the machine's disk.
class Ext4Test : public MachineTest {
protected:
    void SetUp() override {
        MachineTest::SetUp();
        m_path = machine::Volume() + "/ext4";
        fs::create_directory(m_path);
        if (!fs::exists("/dev/loop-control")) {
            GTEST_SKIP() << "this machine has no loop devices";
        }
        if (!Mount()) {
            GTEST_SKIP() << "this kernel keeps no quotas";
        }
        ASSERT_EQ(chmod(m_path.c_str(), 0777), 0);
    }
    void TearDown() override {
        umount2(m_path.c_str(), MNT_DETACH);
        MachineTest::TearDown();
    }

    virtual bool Mount() { return MountImage("^quota", "loop"); }

    bool MountImage(const std::string& features, const std::string& options) {
        const std::string image = m_path + ".img";
        std::ofstream(image).close();
        fs::resize_file(image, 64 * kMB);
        RunTool("/usr/sbin/mkfs.ext4", {"-q", "-O", features, image});
        return korv::RunProgram("/usr/bin/mount", {"-o", options, image, m_path}, kPatience).exitCode == 0;
    }

    std::string m_path;
};

// Needs a kernel that keeps quotas.
class QuotaTest : public Ext4Test {
protected:
    bool Mount() override { return MountImage("quota", "loop,usrquota"); }

    void Limit(unsigned uid, std::uint64_t softKB, std::uint64_t hardKB) {
        const korv::FileDescriptor folder(open(m_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if_dqblk quota{};
        quota.dqb_bsoftlimit = softKB;
        quota.dqb_bhardlimit = hardKB;
        quota.dqb_valid = QIF_BLIMITS;
        ASSERT_EQ(syscall(SYS_quotactl_fd, folder.Get(), QCMD(Q_SETQUOTA, USRQUOTA), uid, &quota), 0);
    }

    KORVQUOTA Get(const char* user) const {
        KORVQUOTA quota{-1, 99};
        EXPECT_EQ(KORVQuotaGet(user, m_path.c_str(), &quota), 0);
        return quota;
    }
};

// What a kernel answers for one user's quota.
struct QuotaAnswer {
    int error = 0;
    if_dqblk record{};
};

// A kernel that keeps quotas. The library's calls come here first.
struct PretendedKernel {
    bool isOn = false;
    bool isXfs = false;
    std::map<uid_t, QuotaAnswer> answers;
    int seenCommand = 0;
} g_kernel;

QuotaAnswer LimitsKB(std::uint64_t soft, std::uint64_t hard, std::uint64_t used_bytes = 0) {
    QuotaAnswer answer;
    answer.record.dqb_bsoftlimit = soft;
    answer.record.dqb_bhardlimit = hard;
    answer.record.dqb_curspace = used_bytes;
    return answer;
}

QuotaAnswer QuotaError(int error) { return {error, {}}; }

class QuotaRecordTest : public MachineTest {
protected:
    void TearDown() override {
        g_kernel = {};
        MachineTest::TearDown();
    }

    void SetUp() override {
        MachineTest::SetUp();
        g_kernel.isOn = true;
    }

    // What is told of the user when the kernel answers so for alice; "-1" for a failure.
    static std::string Get(const QuotaAnswer& alices, const char* user = "alice") {
        g_kernel.answers[machine::kAliceUid] = alices;
        KORVQUOTA quota{-1, 99};
        const int result = KORVQuotaGet(user, machine::Volume().c_str(), &quota);
        return result == 0 ? testing::PrintToString(quota.limitMB) + " " + std::to_string(quota.usedBytes)
                           : std::to_string(result);
    }
};

class BtrfsTest : public MachineTest {
protected:
    void SetUp() override {
        MachineTest::SetUp();
        if (!machine::MountBtrfs()) {
            GTEST_SKIP() << "this machine has no loop devices";
        }
    }
    void TearDown() override {
        umount2(machine::BtrfsVolume().c_str(), MNT_DETACH);
        MachineTest::TearDown();
    }

    static void Btrfs(const std::vector<std::string>& arguments) { RunTool("/usr/bin/btrfs", arguments); }

    // A subvolume that may hold so much; "none" = no limit.
    static std::string MakeSubvolume(const std::string& name, const std::string& limit) {
        std::string path = machine::BtrfsVolume() + "/" + name;
        Btrfs({"subvolume", "create", path});
        EXPECT_EQ(chmod(path.c_str(), 0777), 0);
        Btrfs({"qgroup", "limit", limit, path});
        return path;
    }

    static constexpr std::uint64_t kFirstSubvolume = 256;

    static constexpr std::uint64_t Group(std::uint64_t level, std::uint64_t number) {
        return level << 48U | number;
    }

    // As `btrfs qgroup` does, without a process for each.
    static void MakeGroup(std::uint64_t group) {
        btrfs_ioctl_qgroup_create_args what{1, group};
        Ask(BTRFS_IOC_QGROUP_CREATE, &what);
    }
    static void PutInto(std::uint64_t parent, std::uint64_t child) {
        btrfs_ioctl_qgroup_assign_args what{1, child, parent};
        Ask(BTRFS_IOC_QGROUP_ASSIGN, &what);
    }

    // Where the kernel shows its groups.
    static std::string GroupsFolder() {
        const auto end =
            korv::RunProgram("/usr/bin/findmnt", {"-no", "UUID", machine::BtrfsVolume()}, kPatience);
        return "/sys/fs/btrfs/" + end.output.substr(0, end.output.find('\n')) + "/qgroups";
    }

    static std::int32_t FreeMB(const std::string& path) {
        return SDKFuncData::GetBtrfsFreeMB(path, machine::kAliceUid);
    }

private:
    static void Ask(unsigned long question, void* what) {
        const korv::FileDescriptor volume(
            open(machine::BtrfsVolume().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        ASSERT_GE(ioctl(volume.Get(), question, what), 0) << errno;
    }
};

}  // namespace

// Takes the place of the C library's function for this program.
// NOLINTBEGIN(clang-analyzer-valist.Uninitialized, performance-no-int-to-ptr): the words of a system call
extern "C" long syscall(long number, ...) {
    using Function = long (*)(long, ...);
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "syscall"));
    std::array<unsigned long, 6> words{};
    va_list list;
    va_start(list, number);
    for (unsigned long& word : words) {
        word = va_arg(list, unsigned long);
    }
    va_end(list);
    if (number != SYS_quotactl_fd || !g_kernel.isOn) {
        return real(number, words[0], words[1], words[2], words[3], words[4], words[5]);
    }
    g_kernel.seenCommand = static_cast<int>(words[1]);
    const auto answer = g_kernel.answers.find(static_cast<uid_t>(words[2]));
    const int error = answer == g_kernel.answers.end() ? EPERM : answer->second.error;
    if (error != 0) {
        errno = error;
        return -1;
    }
    *reinterpret_cast<if_dqblk*>(words[3]) = answer->second.record;
    return 0;
}
// NOLINTEND(clang-analyzer-valist.Uninitialized, performance-no-int-to-ptr)

// As does this one.
extern "C" int fstatfs(int file, struct statfs* facts) noexcept {
    using Function = int (*)(int, struct statfs*);
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "fstatfs"));
    const int result = real(file, facts);
    if (g_kernel.isXfs) {
        facts->f_type = XFS_SUPER_MAGIC;
    }
    return result;
}

TEST_F(QuotaRecordTest, AsksForTheUsersOwnQuota) {
    EXPECT_EQ(Get(LimitsKB(0, 10 * kKB, 12345)), "10 12345");
    EXPECT_EQ(g_kernel.seenCommand, static_cast<int>(QCMD(Q_GETQUOTA, USRQUOTA)));
}

TEST_F(QuotaRecordTest, TheHardLimitCountsAndWithoutOneTheSoft) {
    EXPECT_EQ(Get(LimitsKB(2 * kKB, 3 * kKB + 512, 1)), "3.5 1");
    EXPECT_EQ(Get(LimitsKB(2 * kKB, 0, 1)), "2 1");
    EXPECT_EQ(Get(LimitsKB(0, 0, 7)), "0 7");
}

TEST_F(QuotaRecordTest, TheSoftLimitCountsOnceItsTimeOfGraceIsOver) {
    QuotaAnswer answer = LimitsKB(2 * kKB, 10 * kKB, 5 * kMB);
    const auto now = static_cast<std::uint64_t>(time(nullptr));
    answer.record.dqb_btime = now + 1000;
    EXPECT_EQ(Get(answer), "10 5242880");
    answer.record.dqb_btime = now - 1;
    EXPECT_EQ(Get(answer), "2 5242880");
    answer.record.dqb_bhardlimit = 0;
    EXPECT_EQ(Get(answer), "2 5242880");
    answer = LimitsKB(0, 10 * kKB, 5 * kMB);
    answer.record.dqb_btime = now - 1;
    EXPECT_EQ(Get(answer), "10 5242880");
}

TEST_F(QuotaRecordTest, NoQuotasAreNoLimitAndNoFailure) {
    for (const int error : {ESRCH, ENOSYS, EOPNOTSUPP, ENODEV}) {
        EXPECT_EQ(Get(QuotaError(error)), "0 0") << error;
    }
    for (const int error : {EPERM, EIO, EINVAL}) {
        EXPECT_EQ(Get(QuotaError(error)), "-1") << error;
    }
}

TEST_F(QuotaRecordTest, WhyItCantBeToldStandsInTheLog) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(Get(QuotaError(ESRCH)), "0 0");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    testing::internal::CaptureStderr();
    EXPECT_EQ(Get(QuotaError(EIO)), "-1");
    const std::string log = testing::internal::GetCapturedStderr();
    const std::string line =
        "the quota of alice on " + machine::Volume() + " can't be told: Input/output error\n";
    ASSERT_GE(log.size(), line.size()) << log;
    EXPECT_EQ(log.substr(log.size() - line.size()), line);
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
}

TEST_F(QuotaRecordTest, WhoHasNoRecordHasNoLimitOfTheirOwn) {
    EXPECT_EQ(Get(QuotaError(ENOENT)), "0 0");
    g_kernel.isXfs = true;
    g_kernel.answers[0] = QuotaError(ENOENT);
    EXPECT_EQ(Get(QuotaError(ENOENT)), "0 0");
    EXPECT_EQ(Get(LimitsKB(0, 0, 7)), "0 7");
    g_kernel.answers[0] = QuotaError(EIO);
    EXPECT_EQ(Get(QuotaError(ENOENT)), "-1");
}

TEST_F(QuotaRecordTest, OnXfsTheRecordOfId0HoldsTheLimitsOfThoseWithoutTheirOwn) {
    g_kernel.answers[0] = LimitsKB(4 * kKB, 6 * kKB, 12345);
    EXPECT_EQ(Get(LimitsKB(0, 0, 7)), "0 7") << "elsewhere it is root's own";
    g_kernel.isXfs = true;
    EXPECT_EQ(Get(QuotaError(ENOENT)), "6 0");
    EXPECT_EQ(Get(LimitsKB(0, 0, 7)), "6 7");
    EXPECT_EQ(Get(LimitsKB(0, 2 * kKB, 7)), "2 7");
    EXPECT_EQ(Get(LimitsKB(1 * kKB, 0, 7)), "6 7");
    QuotaAnswer late = LimitsKB(0, 8 * kKB, 5 * kMB);
    late.record.dqb_btime = 1;
    EXPECT_EQ(Get(late), "4 5242880");
}

TEST_F(QuotaRecordTest, NothingLimitsRoot) {
    g_kernel.answers[0] = LimitsKB(4 * kKB, 6 * kKB, 7);
    EXPECT_EQ(Get({}, "root"), "0 7");
    g_kernel.isXfs = true;
    EXPECT_EQ(Get({}, "root"), "0 7");
}

TEST_F(QuotaTest, AUserWithoutALimitHasNone) {
    WritesMBAs(machine::kAliceUid, m_path + "/little");
    EXPECT_EQ(Get("carol").limitMB, 0.0F);
    EXPECT_EQ(Get("carol").usedBytes, 0U);
    EXPECT_EQ(Get("alice").limitMB, 0.0F);
    EXPECT_GT(Get("alice").usedBytes, 30 * kMB);
}

TEST_F(QuotaTest, TheRestOfALimitIsWhatCanBeWritten) {
    Limit(machine::kAliceUid, 0, 10 * kKB);
    const int status = machine::InChild([&] {
        machine::BecomeEffectively(machine::kAliceUid, {});
        return WriteUntilFull(m_path + "/first", 3 * kMB) == 3 * kMB ? 0 : 1;
    });
    ASSERT_EQ(status, 0);
    const KORVQUOTA quota = Get("alice");
    EXPECT_EQ(quota.limitMB, 10.0F);
    const double restMB = quota.limitMB - static_cast<double>(quota.usedBytes) / kMB;
    EXPECT_NEAR(WritesMBAs(machine::kAliceUid, m_path + "/rest"), restMB, 0.1);
    EXPECT_NEAR(static_cast<double>(Get("alice").usedBytes), 10.0 * kMB, 0.1 * kMB);
    EXPECT_EQ(Get("carol").limitMB, 0.0F);
}

TEST_F(QuotaTest, ASoftLimitCountsWhereThereIsNoHardOne) {
    Limit(machine::kAliceUid, 2 * kKB, 0);
    EXPECT_EQ(Get("alice").limitMB, 2.0F);
    Limit(machine::kAliceUid, 2 * kKB, 3 * kKB + 512);
    EXPECT_EQ(Get("alice").limitMB, 3.5F);
}

TEST_F(Ext4Test, AVolumeWithoutQuotasHasNoLimits) {
    KORVQUOTA quota{-1, 99};
    EXPECT_EQ(KORVQuotaGet("alice", m_path.c_str(), &quota), 0);
    EXPECT_EQ(quota.limitMB, 0.0F);
    EXPECT_EQ(quota.usedBytes, 0U);
}

TEST_F(Ext4Test, UnknownUsersAndVolumesAreFailures) {
    KORVQUOTA quota{-1, 99};
    EXPECT_EQ(KORVQuotaGet("nobody-of-that-name", m_path.c_str(), &quota), -1);
    EXPECT_EQ(KORVQuotaGet("alice", (m_path + "/gone").c_str(), &quota), -1);
    EXPECT_EQ(quota.limitMB, -1.0F);
    EXPECT_EQ(quota.usedBytes, 99U);
}

TEST_F(Ext4Test, TheSizeOfAVolumeIsThatOfItsMount) {
    KORVVOLUME volume{};
    ASSERT_EQ(KORVMountVolInfoGet(m_path.c_str(), &volume), 0);
    EXPECT_GT(volume.totalBytes, 40 * kMB);
    EXPECT_LT(volume.totalBytes, 64 * kMB);
    const double writtenMB = WritesMBAs(machine::kAliceUid, m_path + "/all");
    EXPECT_NEAR(writtenMB, static_cast<double>(volume.freeBytes) / kMB, 1.0);
    EXPECT_EQ(KORVMountVolInfoGet(machine::AbsentVolume().c_str(), &volume), -1);
    EXPECT_EQ(KORVMountVolInfoGet((machine::Volume() + "/gone").c_str(), &volume), -1);
    EXPECT_FALSE(SDKFuncData::IsBtrfs(m_path));
    EXPECT_FALSE(SDKFuncData::IsBtrfs(machine::AbsentVolume()));
}

TEST_F(BtrfsTest, TheRestOfASubvolumesLimitIsWhatCanBeWritten) {
    ASSERT_TRUE(SDKFuncData::IsBtrfs(machine::BtrfsVolume()));
    Btrfs({"quota", "enable", machine::BtrfsVolume()});
    const std::string limited = MakeSubvolume("limited", "20M");
    EXPECT_EQ(FreeMB(limited), 19);
    EXPECT_NEAR(WritesMBAs(machine::kAliceUid, limited + "/all"), 19.98, 0.1);
    EXPECT_EQ(FreeMB(limited), 0);
}

TEST_F(BtrfsTest, WhatIsNotOnTheDiskYetCounts) {
    Btrfs({"quota", "enable", machine::BtrfsVolume()});
    const std::string limited = MakeSubvolume("limited", "20M");
    std::ofstream(limited + "/unwritten") << std::string(8 * kMB, 'x') << std::flush;
    EXPECT_EQ(FreeMB(limited), 11);
    EXPECT_NEAR(WritesMBAs(machine::kAliceUid, limited + "/rest"), 11.9, 0.15);
}

TEST_F(BtrfsTest, AGroupAboveASubvolumeLimitsItToo) {
    Btrfs({"quota", "enable", machine::BtrfsVolume()});
    const std::string first = MakeSubvolume("first", "none");
    const std::string second = MakeSubvolume("second", "30M");
    Btrfs({"qgroup", "create", "1/100", machine::BtrfsVolume()});
    Btrfs({"qgroup", "limit", "-e", "16M", "1/100", machine::BtrfsVolume()});
    std::uint64_t id = 256;
    for (const std::string& path : {first, second}) {
        Btrfs({"qgroup", "assign", "0/" + std::to_string(id++), "1/100", path});
    }
    Btrfs({"quota", "rescan", "-w", machine::BtrfsVolume()});
    EXPECT_EQ(FreeMB(first), 15);
    WriteUntilFull(second + "/part", 6 * kMB);
    EXPECT_EQ(FreeMB(first), 9);
    EXPECT_NEAR(WritesMBAs(machine::kAliceUid, first + "/rest"), 9.9, 0.15);
    EXPECT_EQ(FreeMB(second), 0);
}

// One answer of the kernel holds 124 relations of a group.
TEST_F(BtrfsTest, ALimitHighAboveCountsHoweverManyMembersAGroupHas) {
    constexpr std::uint64_t kMembers = 130;
    Btrfs({"quota", "enable", machine::BtrfsVolume()});
    const std::string first = MakeSubvolume("first", "none");
    MakeGroup(Group(2, 100));
    MakeGroup(Group(3, 1));
    for (std::uint64_t i = 1; i <= kMembers; ++i) {
        MakeGroup(Group(1, i));
        PutInto(Group(2, 100), Group(1, i));
    }
    PutInto(Group(1, 1), kFirstSubvolume);
    PutInto(Group(3, 1), Group(2, 100));
    Btrfs({"qgroup", "limit", "16M", "3/1", machine::BtrfsVolume()});
    EXPECT_EQ(FreeMB(first), 15);
    EXPECT_NEAR(WritesMBAs(machine::kAliceUid, first + "/all"), 15.95, 0.15);
    EXPECT_EQ(FreeMB(first), 0);
}

TEST_F(BtrfsTest, ALimitOfAnyGroupAboveCountsHoweverManyThereAre) {
    constexpr std::uint64_t kGroups = 130;
    Btrfs({"quota", "enable", machine::BtrfsVolume()});
    const std::string first = MakeSubvolume("first", "none");
    for (std::uint64_t i = 1; i <= kGroups; ++i) {
        MakeGroup(Group(1, i));
        PutInto(Group(1, i), kFirstSubvolume);
    }
    MakeGroup(~std::uint64_t{0});
    PutInto(~std::uint64_t{0}, kFirstSubvolume);
    Btrfs({"qgroup", "limit", "16M", "1/130", machine::BtrfsVolume()});
    EXPECT_EQ(FreeMB(first), 15);
}

TEST_F(BtrfsTest, APlainFolderHasTheRoomOfItsSubvolume) {
    Btrfs({"quota", "enable", machine::BtrfsVolume()});
    const std::string inner = MakeSubvolume("limited", "20M") + "/plain/inner";
    fs::create_directories(inner);
    ASSERT_EQ(chmod(inner.c_str(), 0777), 0);
    EXPECT_EQ(FreeMB(inner), 19);
    EXPECT_NEAR(WritesMBAs(machine::kAliceUid, inner + "/all"), 19.98, 0.15);
}

// As older kernels let people do: here a folder without any group covers the one where the kernel shows them.
TEST_F(BtrfsTest, ASubvolumeWhoseGroupWasDestroyedHasNoLimit) {
    Btrfs({"quota", "enable", machine::BtrfsVolume()});
    const std::string limited = MakeSubvolume("limited", "20M");
    KORVVOLUME volume{};
    ASSERT_EQ(KORVMountVolInfoGet(machine::BtrfsVolume().c_str(), &volume), 0);
    ASSERT_EQ(mount("tmpfs", GroupsFolder().c_str(), "tmpfs", 0, nullptr), 0);
    std::ofstream(GroupsFolder() + "/enabled") << "1\n";
    EXPECT_EQ(FreeMB(limited), static_cast<std::int32_t>(volume.freeBytes / kMB));
    ASSERT_EQ(umount2(GroupsFolder().c_str(), MNT_DETACH), 0);
    EXPECT_EQ(FreeMB(limited), 19);
}

// Until the next rescan the kernel judges by figures that may be wrong; what it admits is told all the same.
TEST_F(BtrfsTest, WhatFiguresThatNeedARescanAdmitIsTold) {
    Btrfs({"quota", "enable", machine::BtrfsVolume()});
    const std::string first = MakeSubvolume("first", "none");
    WriteUntilFull(first + "/shared", 6 * kMB);
    Btrfs({"subvolume", "snapshot", first, machine::BtrfsVolume() + "/second"});
    Btrfs({"filesystem", "sync", first});
    MakeGroup(Group(1, 100));
    PutInto(Group(1, 100), kFirstSubvolume);
    Btrfs({"qgroup", "limit", "16M", "1/100", machine::BtrfsVolume()});
    int isInconsistent = 0;
    std::ifstream(GroupsFolder() + "/inconsistent") >> isInconsistent;
    ASSERT_EQ(isInconsistent, 1);
    const std::int32_t told = FreeMB(first);
    EXPECT_NEAR(WritesMBAs(machine::kAliceUid, first + "/rest"), told, 1.0);
}

TEST_F(BtrfsTest, WithoutALimitTheFileSystemsFreeSpaceCounts) {
    const std::string plain = machine::BtrfsVolume() + "/plain";
    Btrfs({"subvolume", "create", plain});
    ASSERT_EQ(chmod(plain.c_str(), 0777), 0);
    KORVVOLUME volume{};
    ASSERT_EQ(KORVMountVolInfoGet(machine::BtrfsVolume().c_str(), &volume), 0);
    const std::int32_t freeMB = FreeMB(plain);
    EXPECT_EQ(freeMB, static_cast<std::int32_t>(volume.freeBytes / kMB));
    // The file system's own figure is an estimate: its metadata grows with what is written.
    EXPECT_NEAR(WritesMBAs(machine::kAliceUid, plain + "/all"), freeMB, 8.0);
}

TEST_F(BtrfsTest, ALimitAboveTheFreeSpaceIsNoFreeSpace) {
    Btrfs({"quota", "enable", machine::BtrfsVolume()});
    const std::string large = MakeSubvolume("large", "1T");
    KORVVOLUME volume{};
    ASSERT_EQ(KORVMountVolInfoGet(machine::BtrfsVolume().c_str(), &volume), 0);
    EXPECT_EQ(FreeMB(large), static_cast<std::int32_t>(volume.freeBytes / kMB));
}

TEST_F(BtrfsTest, WhatCannotBeToldIsNegative) { EXPECT_EQ(FreeMB(machine::BtrfsVolume() + "/gone"), -1); }

// As a remote folder is.
TEST_F(BtrfsTest, AnotherFileSystemUponItHasNoLimit) {
    KORVVOLUME volume{};
    ASSERT_EQ(KORVMountVolInfoGet(machine::ReadOnlyVolume().c_str(), &volume), 0);
    EXPECT_EQ(FreeMB(machine::ReadOnlyVolume()), static_cast<std::int32_t>(volume.freeBytes / kMB));
}
