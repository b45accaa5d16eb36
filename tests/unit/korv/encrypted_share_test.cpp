#include "korv/system/encrypted_share.h"

#include <chrono>
#include <csignal>
#include <filesystem>

#include <sys/mount.h>

#include "platform/korv/configuration.h"
#include "platform/korv/volume.h"

#include "korv/system/child_process.h"
#include "korv/system/database.h"
#include "korv/system/share_creation.h"
#include "korv/system/share_folder.h"
#include "korv/system/share_rights.h"
#include "tests/unit/korv/share_life.h"

namespace {

namespace fs = std::filesystem;

using korv::CreationEnd;
using korv::CreationStep;
using korv::ShareEncryption;

korv::ShareRow Wanted() {
    korv::ShareRow share;
    share.name = "geheim";
    share.volPath = machine::Volume();
    share.encryption = ShareEncryption::kLocked;
    return share;
}

constexpr std::uint64_t kMB = std::uint64_t{1} << 20;

class EncryptedShareTest : public ShareLifeTest {};

TEST_F(EncryptedShareTest, AdmitsAdministratorsAndGranteesWhileUnlockedAndNobodyElse) {
    const korv::ShareRow share = Make("geheim", true);
    EXPECT_EQ(korv::EncryptionOf(share), ShareEncryption::kUnlocked);
    EXPECT_TRUE(korv::IsFolderOfToken(korv::OpenVolume(share.volPath).Get(), share.name, share.token));
    korv::GrantShareRights(share, {{false, "alice", false}});
    const std::vector<unsigned> administrators{machine::kAdministratorsGid};
    EXPECT_EQ(machine::AccessOf(machine::kAliceUid, {}, share.Path()), (machine::Access{true, true}));
    EXPECT_EQ(machine::AccessOf(machine::kBossUid, administrators, share.Path()),
              (machine::Access{true, true}));
    EXPECT_EQ(machine::AccessOf(machine::kCarolUid, {}, share.Path()), (machine::Access{false, false}));
    ASSERT_EQ(korv::LockShare(share), korv::CipherEnd::kDone);
    EXPECT_EQ(korv::LockShare(share), korv::CipherEnd::kDone);
    EXPECT_EQ(korv::EncryptionOf(share), ShareEncryption::kLocked);
    EXPECT_TRUE(korv::IsFolderOfToken(korv::OpenVolume(share.volPath).Get(), share.name, share.token));
    EXPECT_EQ(machine::AccessOf(machine::kAliceUid, {}, share.Path()), (machine::Access{false, false}));
    EXPECT_EQ(machine::AccessOf(machine::kBossUid, administrators, share.Path()),
              (machine::Access{false, false}));
    ASSERT_EQ(korv::UnlockShare(share, kPassword), korv::CipherEnd::kDone);
    EXPECT_EQ(korv::UnlockShare(share, kPassword), korv::CipherEnd::kDone);
    EXPECT_TRUE(HasFile(share.Path()));
    EXPECT_EQ(machine::AccessOf(machine::kAliceUid, {}, share.Path()), (machine::Access{true, true}));
}

// How many MB can be written to `path` until no more fits. In small pieces it is less: the block at each end
// is written twice.
double WritesMB(const std::string& path) {
    const auto end = korv::RunProgram("/usr/bin/dd", {"if=/dev/urandom", "of=" + path, "bs=1M", "conv=fsync"},
                                      std::chrono::seconds(60));
    EXPECT_NE(end.exitCode, 0) << "it did not become full";
    return static_cast<double>(fs::file_size(path)) / kMB;
}

class EncryptedBtrfsShareTest : public EncryptedShareTest {
protected:
    void SetUp() override {
        EncryptedShareTest::SetUp();
        if (!machine::MountBtrfs()) {
            GTEST_SKIP() << "this machine has no loop devices";
        }
        m_share = Make("geheim", true, machine::BtrfsVolume());
    }
    void TearDown() override {
        UnmountAll(machine::BtrfsVolume());
        umount2(machine::BtrfsVolume().c_str(), MNT_DETACH);
        EncryptedShareTest::TearDown();
    }

    std::int32_t FreeMB() const { return SDKFuncData::GetBtrfsFreeMB(m_share.Path(), machine::kAliceUid); }

    static void Btrfs(const std::vector<std::string>& arguments) {
        ASSERT_EQ(korv::RunProgram("/usr/bin/btrfs", arguments, std::chrono::seconds(30)).exitCode, 0);
    }

    korv::ShareRow m_share;
};

TEST_F(EncryptedBtrfsShareTest, ALimitOnWhereTheEncryptedFilesLieCounts) {
    Btrfs({"quota", "enable", machine::BtrfsVolume()});
    Btrfs({"qgroup", "limit", "40M", "0/5", machine::BtrfsVolume()});
    const std::int32_t told = FreeMB();
    EXPECT_NEAR(told, 39, 1);
    EXPECT_NEAR(WritesMB(m_share.Path() + "/all"), told, 1.5);
    EXPECT_EQ(FreeMB(), 0);
}

TEST_F(EncryptedBtrfsShareTest, WithoutALimitTheFileSystemsFreeSpaceCounts) {
    KORVVOLUME volume{};
    ASSERT_EQ(KORVMountVolInfoGet(machine::BtrfsVolume().c_str(), &volume), 0);
    // A block of 4096 bytes takes 4128.
    EXPECT_NEAR(FreeMB(), static_cast<double>(volume.freeBytes) / kMB * 4096 / 4128, 1.0);
    EXPECT_LT(FreeMB(), static_cast<std::int32_t>(volume.freeBytes / kMB));
}

TEST_F(EncryptedShareTest, IsNotMadeWithoutAPassword) {
    EXPECT_EQ(korv::CreateShare(Wanted()).end, CreationEnd::kEncryptionRefused);
    EXPECT_FALSE(korv::FindShare("geheim"));
    EXPECT_FALSE(fs::exists(Wanted().Path()));
    EXPECT_TRUE(korv::ListShareCreations().empty());
}

class KilledEncryptedCreationTest : public EncryptedShareTest,
                                    public testing::WithParamInterface<CreationStep> {};

TEST_P(KilledEncryptedCreationTest, IsUndoneUnlessItWasRecorded) {
    ExpectKilled([] {
        korv::CreateShare(
            Wanted(),
            [](CreationStep step) {
                if (step == GetParam()) {
                    raise(SIGKILL);
                }
            },
            kPassword);
    });
    EXPECT_EQ(korv::RecoverShareCreations(KORV::GetConfiguration().volumes), std::vector<std::string>());
    EXPECT_TRUE(korv::ListShareCreations().empty());
    const bool isDone = GetParam() == CreationStep::kRecorded;
    EXPECT_EQ(korv::FindShare("geheim").has_value(), isDone);
    EXPECT_EQ(fs::exists(Wanted().Path()), isDone);
    const std::string ciphers = machine::Volume() + "/.korv/cipher";
    EXPECT_EQ(fs::exists(ciphers) && !fs::is_empty(ciphers), isDone);
}

INSTANTIATE_TEST_SUITE_P(AtEveryStep, KilledEncryptedCreationTest,
                         testing::Values(CreationStep::kJournalled, CreationStep::kFolderMade,
                                         CreationStep::kFolderMarked, CreationStep::kEncrypted,
                                         CreationStep::kPublished, CreationStep::kUnlocked,
                                         CreationStep::kRecorded));

}  // namespace
