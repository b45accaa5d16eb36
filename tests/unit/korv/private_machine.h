#pragma once

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

// What tests of the NAS side run on: a mount namespace of this process's own with accounts, volumes and a
// configuration. Nothing of it outlives the process. Needs root.
namespace machine {

// Volumes of the configuration.
std::string Volume();          // a plain mount of the disk that holds the temporary folder
std::string FullVolume();      // nothing can be made in it
std::string ReadOnlyVolume();  // mounted read-only
std::string AbsentVolume();    // a folder where nothing is mounted
std::string BtrfsVolume();     // mounted by MountBtrfs only

std::string StateFolder();
std::string DatabaseFile();
std::string SambaInclude();

// False when this machine has no loop devices.
bool MountBtrfs();

// Accounts of the private account files. `administrators` holds boss by its member list and chief by its
// primary group; alice and Pavane belong to no other group, carol to the group `staff_test`.
inline constexpr unsigned kAliceUid = 60001;
inline constexpr unsigned kBossUid = 60002;
inline constexpr unsigned kChiefUid = 60003;
inline constexpr unsigned kCarolUid = 60004;
inline constexpr unsigned kPavaneUid = 60005;
inline constexpr unsigned kAdministratorsGid = 60100;
inline constexpr unsigned kStaffGid = 60101;
inline constexpr unsigned kNobodysGid = 60102;  // primary group of alice, boss, carol and Pavane

// Runs `work` in a child and returns how that ended, as waitpid gives it; the child's exit status is what
// `work` returns. The database must not be open.
int InChild(const std::function<int()>& work);

// Starts all children first, then waits for all; their exit statuses, -1 for one that was killed.
std::vector<int> InChildren(int count, const std::function<int(int)>& work);

// Lowers the effective ids of this process to a user with no other groups than `groups`.
void BecomeEffectively(unsigned uid, const std::vector<unsigned>& groups);

// Takes a capability (CAP_...) from this process for good.
void LoseCapability(unsigned capability);

// True when the user can list the folder, and whether it can make a file in it.
struct Access {
    bool canRead = false;
    bool canWrite = false;
    bool operator==(const Access&) const = default;
};
Access AccessOf(unsigned uid, const std::vector<unsigned>& groups, const std::string& folder);

std::vector<std::string> Entries(const std::string& folder);

}  // namespace machine

// Starts each test with empty volumes and no database.
class MachineTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};
