// Whether a recording share is in order, on real folders.

#include <grp.h>
#include <sched.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "platform/pavane/rec_share.h"

#include "korv/system/database.h"
#include "pavane/recorder/mount_state.h"
#include "pavane/recorder/share_state.h"
#include "tests/unit/pavane/test_node.h"

namespace {

namespace fs = std::filesystem;

class ShareStatusTest : public StoreTest {
protected:
    ShareStatusTest() : m_path(TestNode::Instance().Folder() + "/rec") { fs::create_directory(m_path); }
    ~ShareStatusTest() override { fs::remove_all(m_path); }

    int Save(const std::function<void(RecShare&)>& change = {}) {
        RecShare share;
        share.SetName("rec");
        share.SetPath(m_path);
        if (change) {
            change(share);
        }
        EXPECT_EQ(share.Save(), 0);
        return share.GetId();
    }

    // Asked by a process that has `path` mounted, read-only if so wanted.
    int StatusWithMount(int id, unsigned long flags) {
        return WithMount(flags, [id] { return CheckRecShareStatus(id) == 0 ? 0 : 1; });
    }

    int WithMount(unsigned long flags, const std::function<int()>& work) {
        pavane::CloseAppDatabase();
        korv::CloseDatabase();
        const pid_t child = fork();
        if (child == 0) {
            const bool isReady = unshare(CLONE_NEWNS) == 0 &&
                                 mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                                 mount("tmpfs", m_path.c_str(), "tmpfs", flags, "mode=0755") == 0;
            _exit(!isReady ? 99 : work());
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return WEXITSTATUS(status);
    }

    std::string m_path;
};

}  // namespace

TEST_F(ShareStatusTest, AFolderThatIsThereAndWritableIsInOrder) {
    EXPECT_EQ(CheckRecShareStatus(Save()), 0);
    EXPECT_NE(CheckRecShareStatus(999999), 0);
}

TEST_F(ShareStatusTest, AFolderThatIsGoneIsNot) {
    const int id = Save();
    fs::remove_all(m_path);
    EXPECT_NE(CheckRecShareStatus(id), 0);
}

TEST_F(ShareStatusTest, ALockedShareIsNotButAnUnlockedOneIs) {
    const int id = Save([](RecShare& share) { share.SetEncType(SHARE_ENC_LOCKED); });
    EXPECT_NE(CheckRecShareStatus(id), 0);
    RecShare share;
    ASSERT_EQ(share.Load(id), 0);
    share.SetEncType(SHARE_ENC_UNLOCKED);
    ASSERT_EQ(share.Save(), 0);
    EXPECT_EQ(CheckRecShareStatus(id), 0);
}

TEST_F(ShareStatusTest, ARemoteShareMustBeMounted) {
    const int id = Save([](RecShare& share) { share.SetMountType(SHARE_MOUNT_NFS); });
    EXPECT_NE(CheckRecShareStatus(id), 0);
    EXPECT_EQ(StatusWithMount(id, 0), 0);
}

TEST_F(ShareStatusTest, ARemoteShareIsAbnormalAsSoonAsNothingIsMountedThere) {
    const int id = Save([](RecShare& share) { share.SetMountType(SHARE_MOUNT_CIFS); });
    EXPECT_EQ(WithMount(0, [] { return pavane::RefreshShareStates() ? 1 : 0; }), 0);
    RecShare share;
    ASSERT_EQ(share.Load(id), 0);
    EXPECT_EQ(share.GetMountStatus(), SHARE_MOUNT_NORMAL);

    EXPECT_TRUE(pavane::RefreshShareStates());
    ASSERT_EQ(share.Load(id), 0);
    EXPECT_EQ(share.GetMountStatus(), SHARE_MOUNT_FAILED);
    EXPECT_FALSE(pavane::RefreshShareStates()) << "that is no news any more";
}

TEST_F(ShareStatusTest, ARemoteShareWithoutFactsGetsThemFromItsMount) {
    const int id = Save([](RecShare& share) {
        share.SetMountType(SHARE_MOUNT_CIFS);
        share.SetFsType(FSTYPE_UNKNOWN);
    });
    EXPECT_EQ(WithMount(0,
                        [this] {
                            pavane::NoteMountState(m_path, true);
                            return 0;
                        }),
              0);
    RecShare share;
    ASSERT_EQ(share.Load(id), 0);
    EXPECT_EQ(share.GetMountStatus(), SHARE_MOUNT_NORMAL);
    EXPECT_EQ(share.GetFsType(), FSTYPE_OTHER);
    EXPECT_GT(share.GetTotalSizeMB(), 0U);
}

TEST_F(ShareStatusTest, WhatTheRecorderCannotWriteIntoIsNot) {
    EXPECT_EQ(StatusWithMount(Save(), MS_RDONLY), 1);
}

TEST_F(ShareStatusTest, ARecordingServersShareIsAsItsRecordSays) {
    Session() << "insert into rec_server (id, serial, enabled, status) values (3, 'a', 1, 0), (4, 'b', 1, 1)";
    const auto ownedBy = [](int owner) { return [owner](RecShare& share) { share.SetOwnerRvId(owner); }; };
    const int online = Save(ownedBy(3));
    const int offline = Save(ownedBy(4));
    fs::remove_all(m_path);
    EXPECT_EQ(CheckRecShareStatus(online), 0);
    EXPECT_NE(CheckRecShareStatus(offline), 0);
    Session() << "update recording_share set mount_status = 1 where id = " << online;
    EXPECT_NE(CheckRecShareStatus(online), 0);
}
