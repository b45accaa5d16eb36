#include "pavane/recorder/rotation_job.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <sys/stat.h>

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
    EXPECT_EQ(page.events.front().arguments, (std::list<std::string>{"rec", "1", "400"}));
    EXPECT_EQ(pavane::EventSentence(page.events.front()),
              "The oldest recordings of share rec were removed: 1 files, 400 MB.");
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
