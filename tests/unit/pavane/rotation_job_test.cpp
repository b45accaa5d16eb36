#include "pavane/recorder/rotation_job.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <string>

#include <sys/file.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "platform/pavane/archive.h"
#include "platform/pavane/events.h"
#include "platform/pavane/rec_share.h"

#include "pavane/recorder/event_store.h"
#include "tests/unit/pavane/test_node.h"

namespace {

namespace fs = std::filesystem;

// Recordings of 400 MB, three of which are more than a limit of 1 GB, two are not. Their space is reserved,
// not written.
class RotationJob : public StoreTest {
protected:
    static constexpr off_t kRecording_bytes = off_t{400} * 1024 * 1024;

    RotationJob() : m_folder(fs::path(TestNode::Instance().Folder()) / "volume") {
        fs::create_directory(m_folder);
    }
    ~RotationJob() override { fs::remove_all(m_folder); }

    RecShare Share(const std::string& name, int limitGB, bool isEnabled = true, int owner = 0) {
        fs::create_directory(m_folder / name);
        RecShare share;
        share.SetName(name);
        share.SetPath(m_folder / name);
        share.SetOwnerRvId(owner);
        share.EnableRecLimit(isEnabled);
        share.SetRecLimitGB(limitGB);
        EXPECT_EQ(share.Save(), 0);
        return share;
    }

    void Record(const std::string& path, int age_s) {
        const fs::path file = m_folder / path;
        fs::create_directories(file.parent_path());
        const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(posix_fallocate(fd, 0, kRecording_bytes), 0);
        constexpr time_t kStart_s = 1'700'000'000;
        const timespec times[2] = {{kStart_s - age_s, 0}, {kStart_s - age_s, 0}};
        EXPECT_EQ(futimens(fd, times), 0);
        close(fd);
    }

    bool IsThere(const std::string& path) const { return fs::exists(m_folder / path); }

    fs::path m_folder;
};

// Runs `work` in a process that is killed as it is about to remove its first file.
void KillAtFirstRemoval(const std::function<void()>& work) {
    const pid_t process = fork();
    ASSERT_GE(process, 0);
    if (process == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        work();
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(process, &status, 0), process);
    ASSERT_EQ(ptrace(PTRACE_SETOPTIONS, process, nullptr, PTRACE_O_TRACESYSGOOD), 0);
    ASSERT_EQ(ptrace(PTRACE_SYSCALL, process, nullptr, nullptr), 0);
    bool isRemoving = false;
    while (!isRemoving && waitpid(process, &status, 0) == process && WIFSTOPPED(status)) {
        __ptrace_syscall_info call{};
        const long size = ptrace(PTRACE_GET_SYSCALL_INFO, process, sizeof call, &call);
        isRemoving = size > 0 && call.op == PTRACE_SYSCALL_INFO_ENTRY && call.entry.nr == SYS_unlinkat;
        ASSERT_EQ(isRemoving ? kill(process, SIGKILL) : ptrace(PTRACE_SYSCALL, process, nullptr, nullptr), 0);
    }
    ASSERT_TRUE(isRemoving) << status;
    ASSERT_EQ(waitpid(process, &status, 0), process);
    EXPECT_TRUE(WIFSIGNALED(status));
}

}  // namespace

TEST_F(RotationJob, RemovesTheOldestAboveTheLimitAndSaysSo) {
    const RecShare share = Share("rec", 1);
    Record("rec/cam/new", 1);
    Record("rec/cam/old", 3);
    Record("rec/cam/middle", 2);
    pavane::RotateDueShares();
    EXPECT_FALSE(IsThere("rec/cam/old"));
    EXPECT_TRUE(IsThere("rec/cam/middle"));
    EXPECT_TRUE(IsThere("rec/cam/new"));
    const pavane::EventPage page = pavane::ListEvents(0, 10);
    ASSERT_EQ(page.total, 1);
    EXPECT_EQ(page.events.front().type, static_cast<std::uint32_t>(PV_LOG_REC_SHARE_ROTATED));
    EXPECT_EQ(page.events.front().item, share.GetId());
    EXPECT_EQ(
        page.events.front().arguments,
        (std::list<std::string>{"rec", "1", "400", "2023-11-14 22:13:17 UTC", "2023-11-14 22:13:17 UTC"}));
    EXPECT_EQ(
        pavane::EventSentence(page.events.front()),
        "The oldest recordings of share rec were removed: 1 files, 400 MB, from 2023-11-14 22:13:17 UTC to"
        " 2023-11-14 22:13:17 UTC.");
    pavane::RotateDueShares();
    EXPECT_EQ(pavane::ListEvents(0, 10).total, 1) << "a rotation that has ended is not told as cut short";
}

TEST_F(RotationJob, TellsOfOneThatWasCutShort) {
    const RecShare share = Share("rec", 1);
    for (int i = 0; i < 3; ++i) {
        Record("rec/" + std::to_string(i), i);
    }
    PvRotateApi::StartRotate(0);
    ASSERT_NO_FATAL_FAILURE(KillAtFirstRemoval(pavane::RotateDueShares));
    EXPECT_TRUE(IsThere("rec/2"));
    pavane::RotateDueShares();
    const pavane::EventPage page = pavane::ListEvents(0, 10);
    ASSERT_EQ(page.total, 2);
    EXPECT_EQ(page.events.front().type, static_cast<std::uint32_t>(PV_LOG_REC_SHARE_ROTATED));
    EXPECT_EQ(page.events.back().item, share.GetId());
    const std::string begin = page.events.back().arguments.back();
    EXPECT_EQ(begin.size(), std::string("2026-01-02 03:04:05 UTC").size());
    EXPECT_EQ(
        pavane::EventSentence(page.events.back()),
        "Removing the oldest recordings of share rec was cut short; this log doesn't count what went after " +
            begin + ".");
    EXPECT_FALSE(IsThere("rec/2")) << "it goes on";
}

TEST_F(RotationJob, LeavesSharesWithoutALimitOfThisServerAlone) {
    Share("unlimited", 1, false);
    Share("zero", 0);
    Share("theirs", 1, true, 2);
    for (const char* name : {"unlimited", "zero", "theirs"}) {
        for (int i = 0; i < 3; ++i) {
            Record(name + std::string("/") + std::to_string(i), i);
        }
    }
    PvRotateApi::StartRotate(0);
    pavane::RotateDueShares();
    for (const char* name : {"unlimited", "zero", "theirs"}) {
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(IsThere(name + std::string("/") + std::to_string(i))) << name;
        }
    }
    EXPECT_EQ(pavane::ListEvents(0, 1).total, 0);
}

TEST_F(RotationJob, StartRotateMakesThePauseEnd) {
    Share("rec", 1);
    Record("rec/a", 3);
    pavane::RotateDueShares();
    Record("rec/b", 2);
    Record("rec/c", 1);
    pavane::RotateDueShares();
    EXPECT_TRUE(IsThere("rec/a")) << "the share was not due";
    PvRotateApi::StartRotate(3);
    pavane::RotateDueShares();
    EXPECT_TRUE(IsThere("rec/a")) << "another server's request";
    PvRotateApi::StartRotate(0);
    pavane::RotateDueShares();
    EXPECT_FALSE(IsThere("rec/a"));
    EXPECT_TRUE(IsThere("rec/b"));
    EXPECT_TRUE(IsThere("rec/c"));
}

TEST_F(RotationJob, AShareWhoseFolderIsGoneDoesNotKeepTheOthersWaiting) {
    Share("gone", 1);
    fs::remove(m_folder / "gone");
    Share("rec", 1);
    for (int i = 0; i < 3; ++i) {
        Record("rec/" + std::to_string(i), i);
    }
    pavane::RotateDueShares();
    EXPECT_FALSE(IsThere("rec/2"));
    EXPECT_TRUE(IsThere("rec/1"));
}

TEST_F(RotationJob, WaitsForItsTurnWhileAnotherProcessRotates) {
    Share("rec", 1);
    for (int i = 0; i < 3; ++i) {
        Record("rec/" + std::to_string(i), i);
    }
    const int other = open((TestNode::Instance().StateDir() + "/rotation.lock").c_str(),
                           O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(flock(other, LOCK_EX), 0);
    PvRotateApi::StartRotate(0);
    pavane::RotateDueShares();
    EXPECT_TRUE(IsThere("rec/2"));
    close(other);
    pavane::RotateDueShares();
    EXPECT_FALSE(IsThere("rec/2"));
}

TEST_F(RotationJob, MayRunInSeveralProcessesAtOnce) {
    Share("rec", 1);
    for (int i = 0; i < 4; ++i) {
        Record("rec/" + std::to_string(i), i);
    }
    EXPECT_EQ(CountSuccesses(4,
                             [](int) {
                                 pavane::RotateDueShares();
                                 return true;
                             }),
              4);
    EXPECT_FALSE(IsThere("rec/3"));
    EXPECT_FALSE(IsThere("rec/2"));
    EXPECT_TRUE(IsThere("rec/1"));
    EXPECT_TRUE(IsThere("rec/0"));
}
