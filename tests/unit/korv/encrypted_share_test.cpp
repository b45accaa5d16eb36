#include "korv/system/encrypted_share.h"

#include <csignal>
#include <filesystem>

#include "platform/korv/configuration.h"

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
