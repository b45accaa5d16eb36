#include "korv/system/share_access.h"

#include <fcntl.h>
#include <grp.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <system_error>

#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "platform/korv/share.h"
#include "platform/korv/volume.h"

#include "korv/system/accounts.h"
#include "korv/system/acl.h"
#include "korv/system/child_process.h"
#include "korv/system/database.h"
#include "korv/system/file_descriptor.h"
#include "korv/system/share_folder.h"
#include "korv/system/share_store.h"
#include "tests/unit/korv/private_machine.h"
#include "tests/unit/korv/silent_file_system.h"

namespace {

namespace fs = std::filesystem;
using korv::AclEntry;

constexpr std::array<const char*, 5> kUsers{"alice", "boss", "chief", "carol", "root"};
constexpr int kFolders = 400;

unsigned Below(std::mt19937& random, unsigned end) {
    return std::uniform_int_distribution<unsigned>(0, end - 1)(random);
}

template <class Value, std::size_t Count>
Value OneOf(std::mt19937& random, const std::array<Value, Count>& values) {
    return values[Below(random, Count)];
}

// An ACL as nobody would write it by hand: any rights for any of the users and groups that the tests have.
korv::Acl RandomAcl(std::mt19937& random) {
    korv::Acl acl{{ACL_USER_OBJ, 0, Below(random, 8)},
                  {ACL_GROUP_OBJ, 0, Below(random, 8)},
                  {ACL_OTHER, 0, Below(random, 8)}};
    for (const unsigned uid : {machine::kAliceUid, machine::kBossUid, machine::kChiefUid}) {
        if (Below(random, 3) == 0) {
            acl.push_back({ACL_USER, uid, Below(random, 8)});
        }
    }
    for (const unsigned gid : {machine::kAdministratorsGid, machine::kStaffGid, machine::kNobodysGid}) {
        if (Below(random, 2) == 0) {
            acl.push_back({ACL_GROUP, gid, Below(random, 8)});
        }
    }
    if (acl.size() > 3 || Below(random, 2) == 0) {
        acl.push_back({ACL_MASK, 0, Below(random, 8)});
    }
    return acl;
}

void MakeFolder(const std::string& path, std::mt19937& random) {
    constexpr std::array<unsigned, 3> kOwners{0, machine::kAliceUid, machine::kCarolUid};
    constexpr std::array<unsigned, 3> kGroups{0, machine::kStaffGid, machine::kNobodysGid};
    fs::create_directory(path);
    ASSERT_EQ(chown(path.c_str(), OneOf(random, kOwners), OneOf(random, kGroups)), 0);
    const korv::FileDescriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    korv::WriteAcl(folder.Get(), ACL_TYPE_ACCESS, RandomAcl(random));
}

// The digits of what the user's process could do in each folder: 1 = make an entry, 2 = list and enter.
std::string Tried(const std::string& user, const std::vector<std::string>& folders) {
    const std::string report = machine::StateFolder() + "/tried";
    const auto account = korv::FindUser(user);
    const auto groups = korv::GroupsOf(*account);
    const int status = machine::InChild([&] {
        std::ofstream output(report);
        if (setgroups(groups.size(), groups.data()) != 0 || setgid(account->primaryGid) != 0 ||
            setuid(account->uid) != 0) {
            return 1;
        }
        for (const std::string& folder : folders) {
            const std::string inner = folder + "/made";
            const bool canMake = mkdir(inner.c_str(), 0700) == 0 && rmdir(inner.c_str()) == 0;
            const int opened = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            const bool canList = opened >= 0 && fchdir(opened) == 0 && chdir("/") == 0;
            close(opened);
            output << (canMake ? 1 : 0) + (canList ? 2 : 0);
        }
        return output.flush() ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
    std::string digits;
    std::getline(std::ifstream(report), digits);
    return digits;
}

std::string Told(const std::string& user, const std::vector<std::string>& folders) {
    std::string digits;
    for (const std::string& folder : folders) {
        const KORVSHARE share{"share", folder.c_str()};
        digits += std::to_string(KLIBShareUserRightGet(user.c_str(), &share));
    }
    return digits;
}

int ErrorOf(const std::function<void()>& work) {
    try {
        work();
    } catch (const std::system_error& failure) {
        return failure.code().value();
    }
    return 0;
}

class ShareAccessTest : public MachineTest {};

}  // namespace

TEST_F(ShareAccessTest, TellsWhatAProcessOfThatUserCanReallyDo) {
    std::mt19937 random(20190415);
    std::vector<std::string> folders;
    for (int i = 0; i < kFolders; ++i) {
        folders.push_back(machine::Volume() + "/folder" + std::to_string(i));
        MakeFolder(folders.back(), random);
    }
    for (const char* user : kUsers) {
        const std::string tried = Tried(user, folders);
        ASSERT_EQ(tried.size(), folders.size());
        EXPECT_EQ(Told(user, folders), tried) << user;
        const bool isRoot = std::string(user) == "root";
        EXPECT_EQ(tried.find('0') == std::string::npos, isRoot) << "the folders say nothing about " << user;
        EXPECT_NE(tried.find('3'), std::string::npos) << "the folders say nothing about " << user;
    }
}

TEST_F(ShareAccessTest, AFolderAboveThatCannotBePassedHidesEverything) {
    const std::string upper = machine::Volume() + "/upper";
    const std::string lower = upper + "/lower";
    fs::create_directories(lower);
    ASSERT_EQ(chmod(lower.c_str(), 0777), 0);
    ASSERT_EQ(chmod(upper.c_str(), 0711), 0);
    EXPECT_EQ(Told("alice", {lower}), "3");
    EXPECT_EQ(Tried("alice", {lower}), "3");
    ASSERT_EQ(chmod(upper.c_str(), 0766), 0);
    EXPECT_EQ(Told("alice", {lower}), "0");
    EXPECT_EQ(Tried("alice", {lower}), "0");
}

TEST_F(ShareAccessTest, NobodyWritesOnAReadOnlyMount) {
    EXPECT_EQ(Tried("root", {machine::ReadOnlyVolume()}), "2");
    EXPECT_EQ(Told("root", {machine::ReadOnlyVolume()}), "2");
    EXPECT_EQ(Told("alice", {machine::ReadOnlyVolume()}), "2");
}

// ramfs keeps none, as FAT and HFS+ don't.
TEST_F(ShareAccessTest, WhereAFileSystemKeepsNoAclsTheModeCounts) {
    const std::string disk = machine::Volume() + "/disk";
    fs::create_directory(disk);
    ASSERT_EQ(mount("ramfs", disk.c_str(), "ramfs", 0, nullptr), 0);
    std::vector<std::string> folders{disk};
    for (const unsigned mode : {0700U, 0750U, 0705U, 0775U, 0757U, 0077U, 0070U, 0007U}) {
        for (const bool isOfAlice : {true, false}) {
            folders.push_back(disk + "/" + std::to_string(folders.size()));
            fs::create_directory(folders.back());
            ASSERT_EQ(chown(folders.back().c_str(), isOfAlice ? machine::kAliceUid : 0, machine::kStaffGid),
                      0);
            ASSERT_EQ(chmod(folders.back().c_str(), mode), 0);
        }
    }
    for (const char* user : kUsers) {
        EXPECT_EQ(Told(user, folders), Tried(user, folders)) << user;
    }
    EXPECT_EQ(Told("carol", {disk}), "2") << "a disk that everybody may read";

    const korv::FileDescriptor folder(open(disk.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const korv::AclPrincipal alice{false, machine::kAliceUid, {machine::kNobodysGid}};
    EXPECT_EQ(ErrorOf([&] { korv::GrantOnFolder(folder.Get(), alice, korv::kAclReadWrite); }), EOPNOTSUPP)
        << "nothing can be granted there";
    EXPECT_EQ(umount2(disk.c_str(), MNT_DETACH), 0);
}

TEST_F(ShareAccessTest, NobodyWritesInAReadOnlySubvolumeOrAnImmutableFolder) {
    if (!machine::MountBtrfs()) {
        GTEST_SKIP() << "this machine has no loop devices";
    }
    const auto run = [](const std::string& program, const std::vector<std::string>& arguments) {
        EXPECT_EQ(korv::RunProgram(program, arguments, std::chrono::seconds(20)).exitCode, 0) << program;
    };
    const std::string subvolume = machine::BtrfsVolume() + "/subvolume";
    run("/usr/bin/btrfs", {"subvolume", "create", subvolume});
    std::vector<std::string> folders{subvolume, subvolume + "/plain", machine::BtrfsVolume() + "/immutable",
                                     machine::Volume() + "/immutable"};
    for (const std::string& folder : folders) {
        fs::create_directories(folder);
        ASSERT_EQ(chmod(folder.c_str(), 0775), 0);
        ASSERT_EQ(chown(folder.c_str(), machine::kAliceUid, machine::kAdministratorsGid), 0);
    }
    EXPECT_EQ(Told("alice", folders), "3333");
    run("/usr/bin/btrfs", {"property", "set", subvolume, "ro", "true"});
    run("/usr/bin/chattr", {"+i", folders[2], folders[3]});
    for (const char* user : kUsers) {
        EXPECT_EQ(Tried(user, folders), "2222") << user;
        EXPECT_EQ(Told(user, folders), "2222") << user;
    }
    run("/usr/bin/chattr", {"-i", folders[2], folders[3]});
    // Entries can be made there, though not be removed.
    run("/usr/bin/chattr", {"+a", folders[3]});
    EXPECT_EQ(Told("alice", {folders[3]}), "3");
    run("/usr/bin/chattr", {"-a", folders[3]});
    EXPECT_EQ(umount2(machine::BtrfsVolume().c_str(), MNT_DETACH), 0);
}

TEST_F(ShareAccessTest, UnknownUsersAndFoldersThatAreGoneAreNotAnswered) {
    EXPECT_EQ(Told("nobody-of-that-name", {machine::Volume()}), "-1");
    EXPECT_EQ(Told("alice", {machine::Volume() + "/gone"}), "0");
    fs::create_directory_symlink("/", machine::Volume() + "/link");
    EXPECT_EQ(Told("alice", {machine::Volume() + "/link"}), "0");
}

TEST_F(ShareAccessTest, AFolderThatCannotBeReachedIsAnErrorAndNoLackOfRights) {
    const std::string disk = machine::Volume() + "/disk";
    fs::create_directory(disk);
    const SilentFileSystem broken(disk, SilentFileSystem::Silence::kNothing, EIO);
    const korv::Identity alice{machine::kAliceUid, {machine::kNobodysGid}};
    EXPECT_EQ(korv::AccessTo(disk + "/share", alice).error, EIO);
    testing::internal::CaptureStderr();
    EXPECT_EQ(Told("alice", {disk + "/share"}), "-1");
    const std::string said = testing::internal::GetCapturedStderr();
    const std::string expected =
        "the rights of alice on " + disk + "/share can't be told: Input/output error\n";
    EXPECT_NE(said.find(expected), std::string::npos) << said;
}

TEST_F(ShareAccessTest, WithoutAFreeDescriptorRightsAreUnknown) {
    const int status = machine::InChild([] {
        const rlimit few{3, 3};
        return setrlimit(RLIMIT_NOFILE, &few) == 0 ? korv::AccessTo(machine::Volume(), {}).error : 0;
    });
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), EMFILE);
}

TEST_F(ShareAccessTest, FindsTheIdsOfAnAccount) {
    uid_t uid = 7;
    gid_t gid = 8;
    EXPECT_EQ(KORVUserGetUGID("chief", &uid, &gid), 0);
    EXPECT_EQ(uid, machine::kChiefUid);
    EXPECT_EQ(gid, machine::kAdministratorsGid);
    EXPECT_EQ(KORVUserGetUGID("carol", &uid, nullptr), 0);
    EXPECT_EQ(uid, machine::kCarolUid);
    EXPECT_EQ(KORVUserGetUGID("Carol", &uid, nullptr), -1);
    EXPECT_EQ(uid, machine::kCarolUid);
}

TEST_F(ShareAccessTest, FindsTheRecordOfAShareInAnyCase) {
    korv::ShareRow row;
    row.name = "Aufnahme Straße";
    row.volPath = machine::Volume();
    row.token = "token";
    korv::WriteTransaction transaction(korv::Database());
    korv::AddShare(row);
    transaction.Commit();
    for (const char* name : {"Aufnahme Straße", "AUFNAHME STRASSE"}) {
        KORVSHARE* share = nullptr;
        ASSERT_EQ(KORVShareGet(name, &share), 0) << name;
        EXPECT_STREQ(share->name, "Aufnahme Straße");
        EXPECT_EQ(share->path, machine::Volume() + "/Aufnahme Straße");
        KORVShareFree(share);
    }
    for (const char* name : {"Aufnahme", "", "../Aufnahme Straße", "\xff", "usbshare1"}) {
        KORVSHARE unused{};
        KORVSHARE* share = &unused;
        EXPECT_EQ(KORVShareGet(name, &share), -1) << name;
        EXPECT_EQ(share, nullptr);
    }
    KORVShareFree(nullptr);
}
