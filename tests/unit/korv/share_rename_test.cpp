#include "korv/system/share_rename.h"

#include <csignal>
#include <filesystem>
#include <fstream>

#include <sys/acl.h>

#include "korv/system/database.h"
#include "korv/system/encrypted_share.h"
#include "korv/system/mount_record.h"
#include "korv/system/share_change_store.h"
#include "korv/system/share_rights.h"
#include "tests/unit/korv/share_life.h"

namespace {

namespace fs = std::filesystem;

using korv::ChangeEnd;
using korv::RenameStep;
using korv::ShareEncryption;

korv::ShareRow Renamed(korv::ShareRow share, const std::string& name) {
    share.name = name;
    return share;
}

korv::MountRow MountAt(const std::string& mountPoint, const std::string& share, const std::string& token) {
    korv::MountRow row;
    row.mountPoint = mountPoint;
    row.share = share;
    row.token = token;
    row.state = korv::MountState::kKept;
    return row;
}

class ShareRenameTest : public ShareLifeTest {
protected:
    // One complete share of either name, with its file.
    static void ExpectWhole(const std::string& present, const std::string& absent) {
        const auto row = korv::FindShare(present);
        ASSERT_TRUE(row);
        EXPECT_FALSE(korv::FindShare(absent));
        EXPECT_TRUE(HasFile(row->Path()));
        EXPECT_FALSE(fs::exists(machine::Volume() + "/" + absent));
        EXPECT_TRUE(korv::ListShareRenames().empty());
        EXPECT_FALSE(korv::IsShareNameTaken(absent));
    }
};

TEST_F(ShareRenameTest, MovesFolderRowRightsAndMounts) {
    const korv::ShareRow share = Make("rec");
    Make("rec2");
    korv::GrantShareRights(share, {{false, "alice", false}});
    korv::AddMountRow(MountAt(share.Path() + "/fern", "rec", "t1"));
    korv::AddMountRow(MountAt(machine::Volume() + "/rec2/fern", "rec2", "t2"));
    korv::ShareRow wanted = Renamed(share, "Auf%nahme_1' ß");
    wanted.description = "Yard";
    wanted.isHidden = true;
    const auto outcome = korv::ChangeShare(share, wanted);
    ASSERT_EQ(outcome.end, ChangeEnd::kDone) << outcome.reason;
    ExpectWhole(wanted.name, "rec");
    const auto row = korv::FindShare(wanted.name);
    EXPECT_EQ(row->token, share.token);
    EXPECT_EQ(row->description, "Yard");
    EXPECT_TRUE(row->isHidden);
    EXPECT_EQ(machine::AccessOf(machine::kAliceUid, {}, row->Path()), (machine::Access{true, true}));
    EXPECT_TRUE(korv::FindMountRow(row->Path() + "/fern"));
    EXPECT_TRUE(korv::FindMountRow(machine::Volume() + "/rec2/fern"));
    EXPECT_FALSE(korv::FindMountRow(share.Path() + "/fern"));
    EXPECT_TRUE(korv::HasMountRows(wanted.name));
    EXPECT_FALSE(korv::HasMountRows("rec"));
}

std::string FormerPlaces() {
    std::string places;
    for (const korv::RenamedShare& each : korv::ListRenamedShares()) {
        places += fs::path(each.formerPath).filename().string() + ">" + each.share.name + " ";
    }
    return places;
}

TEST_F(ShareRenameTest, TheFormerNameIsKnownUntilAnotherShareHasIt) {
    const korv::ShareRow share = Make("rec");
    EXPECT_EQ(FormerPlaces(), "");
    ASSERT_EQ(korv::ChangeShare(share, Renamed(share, "new")).end, ChangeEnd::kDone);
    const auto renamed = korv::FindShare("new");
    korv::ShareRow described = *renamed;
    described.description = "Yard";
    ASSERT_EQ(korv::ChangeShare(*renamed, described).end, ChangeEnd::kDone);
    EXPECT_EQ(FormerPlaces(), "rec>new ");
    EXPECT_EQ(korv::ListRenamedShares().front().formerPath, share.Path());
    EXPECT_EQ(korv::ListRenamedShares().front().share.description, "Yard");

    ASSERT_EQ(korv::ChangeShare(*renamed, Renamed(*renamed, "rec")).end, ChangeEnd::kDone);
    EXPECT_EQ(FormerPlaces(), "new>rec ");
    const korv::ShareRow other = Make("other");
    ASSERT_EQ(korv::ChangeShare(other, Renamed(other, "new")).end, ChangeEnd::kDone);
    EXPECT_EQ(FormerPlaces(), "other>new ");
    Make("other");
    EXPECT_EQ(FormerPlaces(), "");
}

TEST_F(ShareRenameTest, ChangesCaseAloneAndDescribesWithoutRename) {
    korv::ShareRow share = Make("rec");
    ASSERT_EQ(korv::ChangeShare(share, Renamed(share, "REC")).end, ChangeEnd::kDone);
    ExpectWhole("REC", "none");
    EXPECT_FALSE(korv::FindShare("rec"));
    share = *korv::FindShare("REC");
    korv::ShareRow wanted = share;
    wanted.description = "new";
    const std::ifstream held(share.Path() + "/cam1/a.mp4");
    ASSERT_EQ(korv::ChangeShare(share, wanted).end, ChangeEnd::kDone);
    EXPECT_EQ(korv::FindShare("REC")->description, "new");
}

TEST_F(ShareRenameTest, RefusesNamesThatAnythingHasAndChangesNothing) {
    const korv::ShareRow share = Make("rec");
    Make("Straße");
    fs::create_directory(machine::Volume() + "/loose");
    EXPECT_EQ(korv::ChangeShare(share, Renamed(share, "STRASSE")).end, ChangeEnd::kNameTaken);
    EXPECT_EQ(korv::ChangeShare(share, Renamed(share, "loose")).end, ChangeEnd::kNameTaken);
    EXPECT_TRUE(fs::is_empty(machine::Volume() + "/loose"));
    ExpectWhole("rec", "other");
}

TEST_F(ShareRenameTest, RefusesWhileFilesAreOpen) {
    const korv::ShareRow share = Make("rec");
    Make("rec2");
    {
        const std::ifstream held(share.Path() + "/cam1/a.mp4");
        const auto outcome = korv::ChangeShare(share, Renamed(share, "new"));
        EXPECT_EQ(outcome.end, ChangeEnd::kBusy);
        ExpectWhole("rec", "new");
    }
    const std::ifstream neighbours(machine::Volume() + "/rec2/cam1/a.mp4");
    EXPECT_EQ(korv::ChangeShare(share, Renamed(share, "new")).end, ChangeEnd::kDone);
}

TEST_F(ShareRenameTest, RefusesAFolderThatIsGoneOrAnothers) {
    const korv::ShareRow share = Make("rec");
    fs::remove_all(share.Path());
    EXPECT_EQ(korv::ChangeShare(share, Renamed(share, "new")).end, ChangeEnd::kFailed);
    fs::create_directory(share.Path());
    EXPECT_EQ(korv::ChangeShare(share, Renamed(share, "new")).end, ChangeEnd::kFailed);
    EXPECT_TRUE(fs::exists(share.Path()));
    EXPECT_TRUE(korv::FindShare("rec"));
    EXPECT_TRUE(korv::ListShareRenames().empty());
}

TEST_F(ShareRenameTest, AnUnlockedShareStaysUnlocked) {
    const korv::ShareRow share = Make("geheim", true);
    ASSERT_EQ(korv::EncryptionOf(share), ShareEncryption::kUnlocked);
    const auto outcome = korv::ChangeShare(share, Renamed(share, "neu"));
    ASSERT_EQ(outcome.end, ChangeEnd::kDone) << outcome.reason;
    ExpectWhole("neu", "geheim");
    const korv::ShareRow row = *korv::FindShare("neu");
    EXPECT_EQ(korv::EncryptionOf(row), ShareEncryption::kUnlocked);
    ASSERT_EQ(korv::LockShare(row), korv::CipherEnd::kDone);
    EXPECT_TRUE(fs::is_empty(row.Path()));
    EXPECT_EQ(korv::EncryptionOf(row), ShareEncryption::kLocked);
    ASSERT_EQ(korv::ChangeShare(row, Renamed(row, "noch neuer")).end, ChangeEnd::kDone);
    const korv::ShareRow last = *korv::FindShare("noch neuer");
    EXPECT_EQ(korv::UnlockShare(last, "wrong"), korv::CipherEnd::kWrongPassword);
    ASSERT_EQ(korv::UnlockShare(last, kPassword), korv::CipherEnd::kDone);
    EXPECT_TRUE(HasFile(last.Path()));
}

TEST_F(ShareRenameTest, OnceRecordedItIsDoneWhateverComesAfter) {
    const korv::ShareRow share = Make("geheim", true);
    Refuse("delete on share_rename");
    const auto outcome = korv::ChangeShare(share, Renamed(share, "neu"));
    EXPECT_EQ(outcome.end, ChangeEnd::kDone);
    EXPECT_NE(outcome.reason.find("done later"), std::string::npos) << outcome.reason;
    EXPECT_TRUE(korv::FindShare("neu"));
    EXPECT_EQ(korv::RecoverShareRenames().troubles.size(), 1U);
    Allow();
    EXPECT_EQ(korv::RecoverShareRenames().troubles, std::vector<std::string>());
    ExpectWhole("neu", "geheim");
}

TEST_F(ShareRenameTest, WhatWasReportedAsFailedIsNotFinishedLater) {
    const korv::ShareRow share = Make("rec");
    Refuse("update on share");
    const auto outcome = korv::ChangeShare(share, Renamed(share, "new"), [&](RenameStep step) {
        if (step == RenameStep::kFolderRenamed) {
            fs::create_directory(share.Path());
        }
    });
    EXPECT_EQ(outcome.end, ChangeEnd::kFailed);
    Allow();
    EXPECT_EQ(korv::RecoverShareRenames().troubles.size(), 1U);
    EXPECT_EQ(korv::ListShareRenames().size(), 1U);
    fs::remove(share.Path());
    EXPECT_EQ(korv::RecoverShareRenames().troubles, std::vector<std::string>());
    ExpectWhole("rec", "new");
}

TEST_F(ShareRenameTest, OneOfManyRenamesOntoANameWins) {
    constexpr int kShares = 8;
    for (int i = 0; i < kShares; ++i) {
        Make("rec" + std::to_string(i));
    }
    korv::CloseDatabase();
    const std::vector<int> ends = machine::InChildren(kShares, [](int i) {
        const auto share = korv::FindShare("rec" + std::to_string(i));
        return static_cast<int>(korv::ChangeShare(*share, Renamed(*share, "wanted")).end);
    });
    EXPECT_EQ(std::count(ends.begin(), ends.end(), static_cast<int>(ChangeEnd::kDone)), 1);
    EXPECT_EQ(std::count(ends.begin(), ends.end(), static_cast<int>(ChangeEnd::kNameTaken)), kShares - 1);
    EXPECT_EQ(korv::ListShares().size(), static_cast<std::size_t>(kShares));
    for (const korv::ShareRow& share : korv::ListShares()) {
        EXPECT_TRUE(HasFile(share.Path())) << share.name;
    }
}

class KilledRenameTest : public ShareRenameTest,
                         public testing::WithParamInterface<std::tuple<RenameStep, bool>> {};

TEST_P(KilledRenameTest, IsFinishedOrUndone) {
    const auto [step, isEncrypted] = GetParam();
    const korv::ShareRow share = Make("rec", isEncrypted);
    korv::AddMountRow(MountAt(share.Path() + "/fern", "rec", "t1"));
    ExpectKilled([&, wanted = step] {
        korv::ChangeShare(share, Renamed(share, "new"), [wanted](RenameStep done) {
            if (done == wanted) {
                raise(SIGKILL);
            }
        });
    });
    EXPECT_TRUE(korv::IsShareNameTaken("new"));
    EXPECT_EQ(korv::RecoverShareRenames().troubles, std::vector<std::string>());
    const bool isDone = step >= RenameStep::kFolderRenamed;
    ExpectWhole(isDone ? "new" : "rec", isDone ? "rec" : "new");
    const korv::ShareRow row = *korv::FindShareByToken(share.token);
    EXPECT_TRUE(korv::FindMountRow(row.Path() + "/fern"));
    EXPECT_EQ(korv::EncryptionOf(row), isEncrypted ? ShareEncryption::kUnlocked : ShareEncryption::kNone);
    EXPECT_FALSE(korv::IsShareChanging(share.token));
    EXPECT_FALSE(fs::exists(machine::Volume() + "/.korv/view/" + share.token));
}

INSTANTIATE_TEST_SUITE_P(AtEveryStep, KilledRenameTest,
                         testing::Combine(testing::Values(RenameStep::kJournalled, RenameStep::kMountAside,
                                                          RenameStep::kFolderRenamed, RenameStep::kRecorded,
                                                          RenameStep::kMountBack),
                                          testing::Bool()));

}  // namespace
