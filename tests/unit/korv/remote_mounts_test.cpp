#include "korv/system/remote_mounts.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "platform/korv/mount.h"

#include "korv/system/acl.h"
#include "korv/system/child_process.h"
#include "korv/system/database.h"
#include "korv/system/file_descriptor.h"
#include "korv/system/mount_table.h"
#include "tests/unit/korv/remote_mounts_fixture.h"
#include "tests/unit/korv/silent_file_system.h"

namespace fs = std::filesystem;

namespace {

using korv::MountCaller;
using korv::MountFailure;
using korv::MountSight;
using Silence = SilentFileSystem::Silence;

const MountCaller kAlice{"alice", false};
const MountCaller kCarol{"carol", false};

std::string CodeOf(const korv::MountEnd& end) {
    return std::to_string(static_cast<int>(end.failure)) + (end.output.empty() ? "" : " " + end.output);
}

TEST_F(RemoteMounts, ShowTheServersFilesAndAreListed) {
    const korv::MountEnd end = korv::AddMount(Wanted(), kAlice);
    ASSERT_EQ(end.failure, MountFailure::kNone) << CodeOf(end);
    EXPECT_TRUE(fs::exists(Point() + "/seen"));
    EXPECT_EQ(GetRemoteMountStatus(Point()), 0);
    auto type = FSTYPE_UNKNOWN;
    std::uint64_t sizeMb = 0;
    EXPECT_EQ(GetMntPointFSInfo(Point(), type, sizeMb), 0);
    EXPECT_EQ(type, FSTYPE_CIFS);
    EXPECT_GT(sizeMb, 0U);
    EXPECT_EQ(GetRemoteMountStatus(Point() + "//"), 0);
    EXPECT_TRUE(IsMountPoint(Point() + "/"));
    type = FSTYPE_UNKNOWN;
    EXPECT_EQ(GetMntPointFSInfo(Point() + "/", type, sizeMb), 0);
    EXPECT_EQ(type, FSTYPE_CIFS);
    const auto row = korv::FindMountRow(Point());
    ASSERT_TRUE(row);
    EXPECT_EQ(row->source, "//127.0.0.1/data");
    EXPECT_TRUE(row->isNormal);

    EXPECT_EQ(korv::RemoveMount("/video/nas", kAlice).failure, MountFailure::kNone);
    EXPECT_FALSE(fs::exists(Point())) << "the folder that was made for the mount goes with it";
    EXPECT_TRUE(korv::ListMountRows().empty());
    EXPECT_TRUE(machine::Entries(machine::StateFolder() + "/mounts").empty())
        << "the account must be forgotten";
}

TEST_F(RemoteMounts, ForbidDevicesProgramsAndSetUid) {
    ASSERT_EQ(korv::AddMount(Wanted(), kAdmin).failure, MountFailure::kNone);
    const auto program =
        korv::RunProgram("/usr/bin/findmnt", {"-no", "VFS-OPTIONS", Point()}, std::chrono::seconds(5));
    for (const char* option : {"nosuid", "nodev", "noexec"}) {
        EXPECT_NE(program.output.find(option), std::string::npos) << program.output;
    }
}

TEST_F(RemoteMounts, KeepTheAccountWhereOnlyRootReadsIt) {
    ASSERT_EQ(korv::AddMount(Wanted(), kAdmin).failure, MountFailure::kNone);
    const std::string file =
        machine::StateFolder() + "/mounts/" + korv::FindMountRow(Point())->token + ".account";
    struct stat facts {};
    ASSERT_EQ(stat(file.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777, 0600U);
    EXPECT_EQ(facts.st_uid, 0U);
    for (const auto& process : fs::directory_iterator("/proc")) {
        std::ifstream arguments(process.path() / "cmdline");
        const std::string text{std::istreambuf_iterator<char>(arguments), std::istreambuf_iterator<char>()};
        EXPECT_EQ(text.find("c#r=et"), std::string::npos) << text;
    }
}

TEST_F(RemoteMounts, AreNotMadeAsAGuestWhenTheirAccountIsLost) {
    auto wanted = Wanted();
    wanted.source = "//127.0.0.1/open";
    ASSERT_EQ(korv::AddMount(wanted, kAdmin).failure, MountFailure::kNone);
    ASSERT_EQ(umount2(Point().c_str(), MNT_DETACH), 0);
    ASSERT_TRUE(
        fs::remove(machine::StateFolder() + "/mounts/" + korv::FindMountRow(Point())->token + ".account"));
    EXPECT_EQ(korv::ReconnectMount(Point(), kAdmin).failure, MountFailure::kWrongAccount);
    EXPECT_FALSE(korv::IsMounted(Point()));
    EXPECT_EQ(korv::RemoveMount(Point(), kAdmin).failure, MountFailure::kNone);

    wanted.account = {};
    ASSERT_EQ(korv::AddMount(wanted, kAdmin).failure, MountFailure::kNone);
    ASSERT_EQ(umount2(Point().c_str(), MNT_DETACH), 0);
    EXPECT_EQ(korv::ReconnectMount(Point(), kAdmin).failure, MountFailure::kNone)
        << "one that was made as a guest";
}

TEST_F(RemoteMounts, AreNotForgottenWhileTheirAccountStays) {
    ASSERT_EQ(korv::AddMount(Wanted(), kAdmin).failure, MountFailure::kNone);
    const std::string file =
        machine::StateFolder() + "/mounts/" + korv::FindMountRow(Point())->token + ".account";
    korv::RunProgram("/usr/bin/chattr", {"+i", file}, std::chrono::seconds(5));
    EXPECT_EQ(korv::RemoveMount(Point(), kAdmin).failure, MountFailure::kFailed);
    EXPECT_TRUE(korv::FindMountRow(Point()));
    korv::RunProgram("/usr/bin/chattr", {"-i", file}, std::chrono::seconds(5));
    EXPECT_EQ(korv::RemoveMount(Point(), kAdmin).failure, MountFailure::kNone);
    EXPECT_FALSE(fs::exists(file));
    EXPECT_TRUE(korv::ListMountRows().empty());
}

TEST_F(RemoteMounts, TellEachCauseByItsOwnCode) {
    auto wanted = Wanted();
    wanted.account.password = "wrong";
    EXPECT_EQ(Refused(wanted), MountFailure::kWrongAccount);
    wanted = Wanted();
    wanted.source = "//127.0.0.1/nosuch";
    EXPECT_EQ(Refused(wanted), MountFailure::kNoSuchFolder);
    wanted.source = "//127.0.0.1/denied";
    EXPECT_EQ(Refused(wanted), MountFailure::kAccessDenied);
    wanted.source = "//no-such-host.invalid/data";
    EXPECT_EQ(Refused(wanted), MountFailure::kUnknownHost);
    wanted.source = "//192.0.2.1/data";
    EXPECT_EQ(Refused(wanted), MountFailure::kNoAnswer) << "no route in this network";
    wanted = Wanted();
    wanted.options = "port=1";
    EXPECT_EQ(Refused(wanted), MountFailure::kRefused);
    wanted.options = "uid=0";
    EXPECT_EQ(Refused(wanted), MountFailure::kBadOption);
    wanted = Wanted();
    wanted.source = "127.0.0.1:/data";
    EXPECT_EQ(Refused(wanted), MountFailure::kBadSource);
    wanted = Wanted();
    wanted.account.name = "a\nb";
    EXPECT_EQ(Refused(wanted), MountFailure::kBadAccountText);
    EXPECT_FALSE(fs::exists(Point())) << "nothing of a failed mount may stay";
}

TEST_F(RemoteMounts, TakeOnlyFoldersInsideShares) {
    auto wanted = Wanted();
    for (const char* path :
         {"", "nas", "/video/../video/nas", "/video//nas", "/video/./nas", "/video/a\\b"}) {
        wanted.mountPoint = path;
        EXPECT_EQ(Refused(wanted), MountFailure::kBadMountPoint) << path;
    }
    for (const std::string& path :
         {std::string("/video"), machine::Volume() + "/video", std::string("/nosuch/nas"),
          std::string("/etc/passwd"), machine::Volume() + "/nosuch/nas"}) {
        wanted.mountPoint = path;
        EXPECT_EQ(Refused(wanted), MountFailure::kNotInShare) << path;
    }
    wanted.mountPoint = "/video/missing/nas";
    EXPECT_EQ(Refused(wanted), MountFailure::kNoFolder);
    std::ofstream(machine::Volume() + "/video/file") << "text";
    wanted.mountPoint = "/video/file";
    EXPECT_EQ(Refused(wanted), MountFailure::kNoFolder);
}

TEST_F(RemoteMounts, NeverCoverContentAndNeverFollowLinks) {
    fs::create_directory(Point());
    std::ofstream(Point() + "/recording") << "precious";
    EXPECT_EQ(Refused(Wanted()), MountFailure::kNotEmpty);
    EXPECT_TRUE(fs::remove(Point() + "/recording")) << "the guard of a refused mount must be gone";
    std::ofstream(Point() + "/another") << "still writable";
    EXPECT_TRUE(fs::exists(Point() + "/another"));

    fs::create_directory(machine::Volume() + "/elsewhere");
    fs::create_symlink(machine::Volume() + "/elsewhere", machine::Volume() + "/video/link");
    auto wanted = Wanted();
    wanted.mountPoint = "/video/link";
    EXPECT_EQ(Refused(wanted), MountFailure::kBadMountPoint);
    wanted.mountPoint = "/video/link/inside";
    EXPECT_EQ(Refused(wanted), MountFailure::kBadMountPoint);
}

// To make an entry takes writing and entering from one group; the kernel doesn't add groups up.
TEST_F(RemoteMounts, RefuseWhomTwoGroupsGiveHalfTheRightEach) {
    constexpr unsigned kAll = korv::kAclReadWrite;
    const korv::FileDescriptor share(
        open((machine::Volume() + "/video").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const auto give = [&share](unsigned staff) {
        korv::WriteAcl(share.Get(), ACL_TYPE_ACCESS,
                       {{ACL_USER_OBJ, 0, kAll},
                        {ACL_GROUP_OBJ, 0, 0},
                        {ACL_GROUP, machine::kStaffGid, staff},
                        {ACL_GROUP, machine::kNobodysGid, korv::kAclReadOnly},
                        {ACL_MASK, 0, kAll},
                        {ACL_OTHER, 0, 0}});
    };
    give(korv::kAclWrite);
    EXPECT_EQ(Refused(Wanted(), kCarol), MountFailure::kMayNotWrite);
    give(korv::kAclWrite | korv::kAclExecute);
    EXPECT_EQ(korv::AddMount(Wanted(), kCarol).failure, MountFailure::kNone);
}

TEST_F(RemoteMounts, RefuseWhoMayNotWriteThere) {
    EXPECT_EQ(Refused(Wanted(), kCarol), MountFailure::kMayNotWrite);
    ASSERT_EQ(korv::AddMount(Wanted(), kAlice).failure, MountFailure::kNone);
    EXPECT_EQ(korv::RemoveMount(Point(), kCarol).failure, MountFailure::kNotOwner);
    EXPECT_EQ(korv::ReconnectMount(Point(), kCarol).failure, MountFailure::kNotOwner);
    EXPECT_EQ(korv::RemoveMount(Point() + "2", kAlice).failure, MountFailure::kUnknownMount);
}

TEST_F(RemoteMounts, TakeAPlaceOnce) {
    ASSERT_EQ(korv::AddMount(Wanted(), kAdmin).failure, MountFailure::kNone);
    EXPECT_EQ(Refused(Wanted()), MountFailure::kMountPointTaken);
    auto wanted = Wanted();
    wanted.mountPoint = Point() + "/inside";
    EXPECT_EQ(Refused(wanted), MountFailure::kMountPointTaken) << "inside another mount";
}

TEST_F(RemoteMounts, StayWhileTheyAreInUse) {
    ASSERT_EQ(korv::AddMount(Wanted(), kAdmin).failure, MountFailure::kNone);
    {
        const korv::FileDescriptor file(open((Point() + "/seen").c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_TRUE(file);
        EXPECT_EQ(korv::RemoveMount(Point(), kAdmin).failure, MountFailure::kBusy);
        EXPECT_EQ(GetRemoteMountStatus(Point()), 0);
        EXPECT_EQ(korv::FindMountRow(Point())->state, korv::MountState::kKept);
    }
    EXPECT_TRUE(WaitFor([] { return korv::RemoveMount(Point(), kAdmin).failure == MountFailure::kNone; }));
}

TEST_F(RemoteMounts, GuardTheFolderWhileNothingIsMounted) {
    ASSERT_EQ(korv::AddMount(Wanted(), kAlice).failure, MountFailure::kNone);
    ASSERT_EQ(umount2(Point().c_str(), MNT_DETACH), 0);
    std::ofstream(Point() + "/unseen") << "text";
    EXPECT_FALSE(fs::exists(Point() + "/unseen")) << "not even root may write into the empty mount point";
    EXPECT_FALSE(machine::AccessOf(machine::kAliceUid, {}, Point()).canWrite);
    EXPECT_EQ(GetRemoteMountStatus(Point()), static_cast<int>(MountSight::kNotMounted));
    auto type = FSTYPE_UNKNOWN;
    std::uint64_t sizeMb = 0;
    EXPECT_NE(GetMntPointFSInfo(Point(), type, sizeMb), 0);
    EXPECT_EQ(type, FSTYPE_UNKNOWN);

    EXPECT_EQ(korv::ReconnectMount(Point(), kAlice).failure, MountFailure::kNone);
    EXPECT_EQ(GetRemoteMountStatus(Point()), 0);
}

TEST_F(RemoteMounts, GuardByRightsWhereFoldersCannotBeImmutable) {
    korv::MountPlace place{*korv::FindShare("video"), "plain"};
    ASSERT_EQ(mount("tmpfs", (machine::Volume() + "/video").c_str(), "tmpfs", 0, "mode=0777"), 0);
    fs::create_directory(place.Path());
    chmod(place.Path().c_str(), 0751);
    korv::MountFolderState state;
    {
        const auto opened = korv::PrepareMountFolder(place, kAdmin, state);
        EXPECT_EQ(opened.failure, MountFailure::kNone);
    }
    if (state.guard == korv::MountGuard::kNoRights) {  // newer kernels know the flag on tmpfs too
        EXPECT_FALSE(machine::AccessOf(machine::kAliceUid, {}, place.Path()).canWrite);
        EXPECT_EQ(state.guardMode, 0751U);
    }
    korv::ReleaseMountFolder(place, state);
    struct stat facts {};
    EXPECT_EQ(stat(place.Path().c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777, 0751U);
    umount2((machine::Volume() + "/video").c_str(), MNT_DETACH);
}

TEST_F(RemoteMounts, TellAFolderThatCannotBeMadeFromAMissingOne) {
    fs::create_directory(machine::Volume() + "/video/closed");
    korv::RunProgram("/usr/bin/chattr", {"+i", machine::Volume() + "/video/closed"}, std::chrono::seconds(5));
    auto wanted = Wanted();
    wanted.mountPoint = "/video/closed/nas";
    EXPECT_EQ(Refused(wanted), MountFailure::kFailed);
}

TEST_F(RemoteMounts, GiveTheFolderItsModeBackWhenTheirMakerWasKilled) {
    const std::string share = machine::Volume() + "/video";
    ASSERT_EQ(mount("ramfs", share.c_str(), "ramfs", 0, "mode=0777"), 0);  // knows no immutable folders
    fs::create_directory(Point());
    chmod(Point().c_str(), 0700);
    const auto modeOf = [](const std::string& path) {
        struct stat facts {};
        return stat(path.c_str(), &facts) == 0 ? facts.st_mode & 07777 : 07777;
    };
    korv::CloseDatabase();
    s_server->Pause();
    const pid_t maker = fork();
    if (maker == 0) {
        korv::AddMount(Wanted(), kAdmin);
        _exit(0);
    }
    EXPECT_TRUE(WaitFor([&] { return modeOf(Point()) == 0; }));
    kill(maker, SIGKILL);
    waitpid(maker, nullptr, 0);
    s_server->Resume();
    EXPECT_TRUE(korv::RecoverMounts().empty());
    EXPECT_TRUE(korv::ListMountRows().empty());
    EXPECT_EQ(modeOf(Point()), 0700U);
    umount2(share.c_str(), MNT_DETACH);
}

TEST_F(RemoteMounts, LeaveNoFolderThatAKilledMakerHasMade) {
    korv::CloseDatabase();
    s_server->Pause();
    const pid_t maker = fork();
    if (maker == 0) {
        korv::AddMount(Wanted(), kAdmin);
        _exit(0);
    }
    EXPECT_TRUE(WaitFor([] { return fs::exists(Point()); }));
    kill(maker, SIGKILL);
    waitpid(maker, nullptr, 0);
    s_server->Resume();
    EXPECT_TRUE(korv::RecoverMounts().empty());
    EXPECT_TRUE(korv::ListMountRows().empty());
    EXPECT_TRUE(machine::Entries(machine::Volume() + "/video").empty());
}

TEST_F(RemoteMounts, AreNotTakenForGoneWhenTheListOfMountsCannotBeRead) {
    korv::CloseDatabase();
    EXPECT_EQ(machine::InChild([] {
                  const rlimit noneMore{3, 3};
                  setrlimit(RLIMIT_NOFILE, &noneMore);
                  try {
                      korv::IsMounted(machine::Volume());
                  } catch (const std::runtime_error&) {
                      return IsMountPoint(machine::Volume()) ? 0 : 1;
                  }
                  return 2;
              }),
              0);
}

TEST_F(RemoteMounts, AreSilentInTimeWhenTheServerIsPaused) {
    ASSERT_EQ(korv::AddMount(Wanted(), kAdmin).failure, MountFailure::kNone);
    s_server->Pause();
    const auto start = std::chrono::steady_clock::now();
    const bool isSilent = WaitFor([] { return GetRemoteMountStatus(Point()) != 0; });
    const auto taken = std::chrono::steady_clock::now() - start;
    s_server->Resume();
    EXPECT_TRUE(isSilent);
    EXPECT_LT(taken, std::chrono::seconds(12));
}

TEST_F(RemoteMounts, ComeBackByThemselvesWhenTheServerDoes) {
    auto wanted = Wanted();
    wanted.isAutomatic = true;
    ASSERT_EQ(korv::AddMount(wanted, kAdmin).failure, MountFailure::kNone);
    s_server->Kill();
    const long long now = std::time(nullptr);
    std::vector<korv::MountChange> changes;
    ASSERT_TRUE(WaitFor([&] { return !(changes = korv::CareForMounts(now)).empty(); }));
    EXPECT_EQ(changes.front().mountPoint, Point());
    EXPECT_FALSE(changes.front().isNormal);
    auto row = korv::FindMountRow(Point());
    EXPECT_FALSE(row->isNormal);
    EXPECT_EQ(row->lastError, static_cast<int>(MountFailure::kRefused));
    EXPECT_EQ(row->failures, 1);
    EXPECT_GE(row->nextTry_s, now + korv::RetryPause_s(1));
    std::ofstream(Point() + "/unseen") << "text";
    EXPECT_FALSE(fs::exists(Point() + "/unseen"));

    s_server->Start();
    EXPECT_TRUE(korv::CareForMounts(now).empty()) << "the next attempt is not due yet";
    changes = korv::CareForMounts(now + korv::RetryPause_s(1) + 5);
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_TRUE(changes.front().isNormal);
    EXPECT_EQ(GetRemoteMountStatus(Point()), 0);
    EXPECT_GT(korv::FindMountRow(Point())->failures, 0) << "no look has found it alive yet";
    EXPECT_TRUE(korv::CareForMounts(now + korv::RetryPause_s(1) + 6).empty());
    EXPECT_EQ(korv::FindMountRow(Point())->failures, 0);
    EXPECT_EQ(korv::FindMountRow(Point())->nextTry_s, 0);
}

TEST_F(RemoteMounts, AreLeftToASilentServerForAMinute) {
    auto wanted = Wanted();
    wanted.isAutomatic = true;
    ASSERT_EQ(korv::AddMount(wanted, kAdmin).failure, MountFailure::kNone);
    ASSERT_EQ(umount2(Point().c_str(), MNT_DETACH), 0);
    const SilentFileSystem silent(Point(), Silence::kEverything);
    const auto isSilent = [] { return korv::MountsAlong(Point()).back()->fsType == "fuse.silent"; };
    const long long now = std::time(nullptr);
    auto changes = korv::CareForMounts(now);
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_FALSE(changes.front().isNormal) << "that is known at once";
    EXPECT_TRUE(isSilent());
    EXPECT_TRUE(korv::CareForMounts(now + 59).empty());
    EXPECT_TRUE(isSilent()) << "whoever waits may still be answered";
    changes = korv::CareForMounts(now + 60);
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_TRUE(changes.front().isNormal);
    EXPECT_FALSE(isSilent());
    EXPECT_TRUE(fs::exists(Point() + "/seen"));
}

TEST_F(RemoteMounts, AreMadeAgainAtOnceWhenTheyGoAfterASilence) {
    auto wanted = Wanted();
    wanted.isAutomatic = true;
    ASSERT_EQ(korv::AddMount(wanted, kAdmin).failure, MountFailure::kNone);
    ASSERT_EQ(umount2(Point().c_str(), MNT_DETACH), 0);
    const long long now = std::time(nullptr);
    {
        const SilentFileSystem silent(Point(), Silence::kEverything);
        EXPECT_EQ(korv::CareForMounts(now).size(), 1U);
    }
    const auto changes = korv::CareForMounts(now + 1);
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_TRUE(changes.front().isNormal);
    EXPECT_EQ(GetRemoteMountStatus(Point()), 0);
}

TEST_F(RemoteMounts, AreAllToldAboutBeforeTheFirstIsMountedAgain) {
    auto wanted = Wanted();
    wanted.isAutomatic = true;
    ASSERT_EQ(korv::AddMount(wanted, kAdmin).failure, MountFailure::kNone);
    wanted.mountPoint += "2";
    ASSERT_EQ(korv::AddMount(wanted, kAdmin).failure, MountFailure::kNone);
    s_server->Kill();
    EXPECT_TRUE(WaitFor(
        [] { return GetRemoteMountStatus(Point()) != 0 && GetRemoteMountStatus(Point() + "2") != 0; }));
    struct Told {
        int normal = 0, attempts = 0;
        bool operator==(const Told&) const = default;
    };
    std::vector<Told> told;
    korv::CareForMounts(std::time(nullptr), [&told] {
        Told now;
        for (const auto& row : korv::ListMountRows()) {
            now.normal += row.isNormal ? 1 : 0;
            now.attempts += row.failures;
        }
        told.push_back(now);
    });
    s_server->Start();
    EXPECT_EQ(told, (std::vector<Told>{{0, 0}, {0, 1}, {0, 2}}));
}

TEST_F(RemoteMounts, AreLookedAtAgainBeforeAllAttemptsOfARoundAreMade) {
    auto wanted = Wanted();
    wanted.isAutomatic = true;
    ASSERT_EQ(korv::AddMount(wanted, kAdmin).failure, MountFailure::kNone);
    wanted.mountPoint += "2";
    ASSERT_EQ(korv::AddMount(wanted, kAdmin).failure, MountFailure::kNone);
    ASSERT_EQ(umount2(Point().c_str(), MNT_DETACH), 0);
    ASSERT_EQ(umount2((Point() + "2").c_str(), MNT_DETACH), 0);
    s_server->Kill();
    const long long now = std::time(nullptr);
    const auto failuresAfter = [](long long time_s) {
        korv::CareForMounts(
            time_s, [] {}, std::chrono::milliseconds(0));
        return std::pair(korv::FindMountRow(Point())->failures, korv::FindMountRow(Point() + "2")->failures);
    };
    EXPECT_EQ(failuresAfter(now), std::pair(1, 0));
    EXPECT_EQ(failuresAfter(now), std::pair(1, 1));
    const long long later = now + 2 * korv::RetryPause_s(1) + 5;
    EXPECT_EQ(failuresAfter(later), std::pair(2, 1));
    EXPECT_EQ(failuresAfter(later), std::pair(2, 2));
    s_server->Start();
}

TEST_F(RemoteMounts, AreTriedWhenTheClockWasSetBackOrTheNodeWasDown) {
    auto wanted = Wanted();
    wanted.isAutomatic = true;
    ASSERT_EQ(korv::AddMount(wanted, kAdmin).failure, MountFailure::kNone);
    ASSERT_EQ(umount2(Point().c_str(), MNT_DETACH), 0);
    s_server->Kill();
    const long long now = std::time(nullptr);
    const auto failuresAfter = [](long long time_s) {
        korv::CareForMounts(time_s);
        return korv::FindMountRow(Point())->failures;
    };
    EXPECT_EQ(failuresAfter(now), 1);
    EXPECT_EQ(failuresAfter(now), 1);
    EXPECT_EQ(failuresAfter(now - 100), 1);
    EXPECT_EQ(failuresAfter(now - 1000), 2);
    korv::ForgetMountFailures();
    EXPECT_EQ(failuresAfter(now), 1) << "not put off any more";
    s_server->Start();
}

TEST_F(RemoteMounts, KeepWhatAnotherProcessWroteDuringALook) {
    ASSERT_EQ(korv::AddMount(Wanted(), kAdmin).failure, MountFailure::kNone);
    auto before = *korv::FindMountRow(Point());
    before.isNormal = false;
    before.failures = 3;
    auto seen = before;
    seen.lastError = static_cast<int>(MountFailure::kNoAnswer);
    korv::SaveMountStatus(seen, before);
    EXPECT_TRUE(korv::FindMountRow(Point())->isNormal) << "it is no failed one any more";
    korv::SaveMountStatus(before);
    korv::SaveMountStatus(seen, before);
    EXPECT_EQ(korv::FindMountRow(Point())->lastError, seen.lastError);
}

TEST_F(RemoteMounts, AreAliveWhenTheirServerRefusesToListThem) {
    fs::create_directory(machine::Volume() + "/kept");
    for (const int error : {EACCES, EPERM}) {
        const SilentFileSystem fileSystem(machine::Volume() + "/kept", Silence::kNothing, error);
        EXPECT_EQ(korv::LookAtMount(machine::Volume() + "/kept").sight, MountSight::kAlive) << error;
    }
    const SilentFileSystem stale(machine::Volume() + "/kept", Silence::kNothing, ESTALE);
    EXPECT_EQ(korv::LookAtMount(machine::Volume() + "/kept").sight, MountSight::kStale);
}

TEST(RetryPause, GrowsUpToFiveMinutes) {
    EXPECT_EQ(korv::RetryPause_s(1), 5);
    EXPECT_EQ(korv::RetryPause_s(2), 10);
    EXPECT_EQ(korv::RetryPause_s(6), 160);
    EXPECT_EQ(korv::RetryPause_s(7), 300);
    EXPECT_EQ(korv::RetryPause_s(1000), 300);
}

}  // namespace
