// Mounts whose maker died, or that others change while they are made.

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mount.h>

#include "platform/korv/configuration.h"
#include "platform/korv/mount.h"

#include "korv/system/database.h"
#include "korv/system/mount_table.h"
#include "korv/system/remote_mounts.h"
#include "korv/system/share_change_store.h"
#include "tests/unit/korv/remote_mounts_fixture.h"

namespace fs = std::filesystem;

namespace {

using korv::MountFailure;

class RemoteMountRecovery : public RemoteMounts {
protected:
    // As it stands in the table while a mount is made.
    static korv::MountRow UnfinishedRow() {
        korv::MountRow row;
        row.mountPoint = Point();
        row.share = "video";
        row.token = "0123";
        return row;
    }
};

TEST_F(RemoteMountRecovery, AreUndoneWhenTheirMakerDied) {
    korv::CloseDatabase();
    machine::InChild([] {
        korv::MountRow row = UnfinishedRow();
        row.source = "//127.0.0.1/data";
        row.options = "port=" + std::to_string(SambaServer::kPort);
        row.maker = korv::ThisProcess();
        korv::AddMountRow(row);
        korv::KeepAccount(row.token, {SambaServer::kAccount, SambaServer::kPassword});
        korv::MountFolderState state;
        const korv::MountPlace place{*korv::FindShare("video"), "nas"};
        return korv::MountRemote(row, place, kAdmin, state).failure == MountFailure::kNone ? 0 : 1;
    });
    ASSERT_TRUE(korv::IsMounted(Point()));
    EXPECT_TRUE(korv::RecoverMounts().empty());
    EXPECT_FALSE(korv::IsMounted(Point()));
    EXPECT_TRUE(korv::ListMountRows().empty());
    std::ofstream(Point() + "/free") << "text";
    EXPECT_TRUE(fs::exists(Point() + "/free"));
}

std::string LockOf(const std::string& mountPoint) {
    return KORV::GetConfiguration().runDir + "/mount-locks/" +
           std::to_string(std::hash<std::string>{}(mountPoint));
}

// As a process leaves it that is killed while it makes a mount out of sight.
std::string LeaveAnAttemptOf(const std::string& token) {
    std::string folder = KORV::GetConfiguration().runDir + "/mounts/" + token;
    fs::create_directories(folder);
    EXPECT_EQ(mount("left", folder.c_str(), "tmpfs", 0, "size=64k"), 0);
    std::ofstream(folder + "/left") << "text";
    std::ofstream(folder + ".output") << "what the helper said";
    return folder;
}

TEST_F(RemoteMountRecovery, LeaveNothingOutOfSightWhenTheirMakerWasKilled) {
    korv::MountRow row = UnfinishedRow();
    ASSERT_TRUE(korv::AddMountRow(row));
    const std::string attempt = LeaveAnAttemptOf(row.token);
    EXPECT_TRUE(korv::RecoverMounts().empty());
    EXPECT_TRUE(korv::ListMountRows().empty());
    EXPECT_TRUE(machine::Entries(fs::path(attempt).parent_path()).empty());
    EXPECT_FALSE(korv::IsMounted(attempt));
}

TEST_F(RemoteMountRecovery, LeaveNothingOutOfSightWhenAnAttemptToMountThemAgainWasKilled) {
    ASSERT_EQ(korv::AddMount(Wanted(), kAdmin).failure, MountFailure::kNone);
    const std::string attempt = LeaveAnAttemptOf(korv::FindMountRow(Point())->token);
    EXPECT_TRUE(korv::RecoverMounts().empty());
    EXPECT_FALSE(korv::IsMounted(attempt));
    EXPECT_TRUE(machine::Entries(fs::path(attempt).parent_path()).empty());
    EXPECT_EQ(GetRemoteMountStatus(Point()), 0);

    LeaveAnAttemptOf(korv::FindMountRow(Point())->token);
    ASSERT_EQ(umount2(Point().c_str(), MNT_DETACH), 0);
    EXPECT_EQ(korv::ReconnectMount(Point(), kAdmin).failure, MountFailure::kNone);
    EXPECT_TRUE(fs::exists(Point() + "/seen")) << "what was left must not be taken for the new mount";
    EXPECT_FALSE(korv::IsMounted(attempt));
    LeaveAnAttemptOf(korv::FindMountRow(Point())->token);
    EXPECT_EQ(korv::RemoveMount(Point(), kAdmin).failure, MountFailure::kNone);
    EXPECT_FALSE(korv::IsMounted(attempt));
}

TEST_F(RemoteMountRecovery, AreNotDisturbedWhileSomebodyMakesThem) {
    korv::MountRow row = UnfinishedRow();
    row.maker = korv::ThisProcess();
    ASSERT_TRUE(korv::AddMountRow(row));
    const std::string attempt = LeaveAnAttemptOf(row.token);
    EXPECT_TRUE(korv::RecoverMounts().empty());
    EXPECT_TRUE(korv::IsMounted(attempt));
    row.state = korv::MountState::kKept;
    ASSERT_TRUE(korv::SaveMountRow(row));
    fs::create_directories(fs::path(LockOf(Point())).parent_path());
    const korv::FileDescriptor lock(open(LockOf(Point()).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(flock(lock.Get(), LOCK_EX), 0);
    EXPECT_TRUE(korv::RecoverMounts().empty());
    EXPECT_TRUE(korv::IsMounted(attempt));
    ASSERT_EQ(flock(lock.Get(), LOCK_UN), 0);
    EXPECT_TRUE(korv::RecoverMounts().empty());
    EXPECT_FALSE(korv::IsMounted(attempt));
}

// True when a process other than this one has `path` open.
bool IsOpenElsewhere(const std::string& path) {
    for (const auto& process : fs::directory_iterator("/proc")) {
        const std::string pid = process.path().filename();
        std::error_code gone;
        if (pid.find_first_not_of("0123456789") != std::string::npos || pid == std::to_string(getpid())) {
            continue;
        }
        for (const auto& file : fs::directory_iterator(process.path() / "fd", gone)) {
            if (fs::read_symlink(file.path(), gone) == path) {
                return true;
            }
        }
    }
    return false;
}

TEST_F(RemoteMountRecovery, AreNotUndoneWhenSomebodyElseHasFinishedThem) {
    korv::MountRow row = UnfinishedRow();
    ASSERT_TRUE(korv::AddMountRow(row));
    korv::CloseDatabase();
    fs::create_directories(fs::path(LockOf(Point())).parent_path());
    const std::vector<int> ends = machine::InChildren(2, [&row](int index) {
        const std::string isLocked = machine::Volume() + "/locked";
        if (index == 0) {
            return WaitFor([&] { return fs::exists(isLocked); }) && korv::RecoverMounts().empty() ? 0 : 1;
        }
        const korv::FileDescriptor lock(open(LockOf(Point()).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        const bool isHeld = flock(lock.Get(), LOCK_EX) == 0;
        std::ofstream(isLocked) << "yes";
        if (!isHeld || !WaitFor([] { return IsOpenElsewhere(LockOf(Point())); })) {
            return 1;
        }
        row.state = korv::MountState::kKept;
        return korv::SaveMountRow(row) ? 0 : 1;
    });
    EXPECT_EQ(ends, (std::vector<int>{0, 0}));
    EXPECT_TRUE(korv::FindMountRow(Point()));
}

// As a rename of the share, between two looks of the one who mounts.
void RenameVideoTo(const std::string& name) {
    korv::ShareRow share = *korv::FindShare("video");
    const std::string oldPath = share.Path();
    share.name = name;
    fs::rename(oldPath, share.Path());
    korv::SaveShareFacts(share);
    korv::RenameMountRows(oldPath, share);
}

TEST_F(RemoteMountRecovery, AreKeptWhenTheirShareIsRenamedMeanwhile) {
    korv::CloseDatabase();
    s_server->Pause();
    const std::vector<int> ends = machine::InChildren(2, [](int index) {
        if (index == 0) {
            return static_cast<int>(korv::AddMount(Wanted(), kAdmin).failure) % 256;
        }
        const bool isUnderWay = WaitFor([] { return fs::exists(Point()); });
        if (isUnderWay) {
            RenameVideoTo("film");
        }
        s_server->Resume();
        return isUnderWay ? 0 : 1;
    });
    s_server->Resume();
    EXPECT_EQ(ends, (std::vector<int>{0, 0}));
    const std::string point = machine::Volume() + "/film/nas";
    const auto row = korv::FindMountRow(point);
    ASSERT_TRUE(row);
    EXPECT_EQ(row->state, korv::MountState::kKept);
    EXPECT_EQ(row->share, "film");
    EXPECT_TRUE(korv::RecoverMounts().empty());
    EXPECT_EQ(GetRemoteMountStatus(point), 0) << "it must not be taken for one whose maker died";
}

}  // namespace
