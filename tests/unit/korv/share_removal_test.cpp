#include "korv/system/share_removal.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <sys/mount.h>

#include "platform/korv/configuration.h"

#include "korv/services/share_recovery.h"
#include "korv/system/database.h"
#include "korv/system/encrypted_share.h"
#include "korv/system/samba_export.h"
#include "korv/system/share_change_store.h"
#include "tests/unit/korv/share_life.h"

namespace {

namespace fs = std::filesystem;

using korv::ChangeEnd;
using korv::RemovalStep;

constexpr long long kNow_s = 2'000'000'000;

bool GoOn() { return false; }

const std::vector<std::string>& Volumes() { return KORV::GetConfiguration().volumes; }

std::vector<std::string> Recover() { return korv::RecoverShareRemovals(Volumes()).troubles; }

class ShareRemovalTest : public ShareLifeTest {
protected:
    static void ExpectGone(const korv::ShareRow& share) {
        EXPECT_FALSE(korv::FindShareByToken(share.token));
        EXPECT_FALSE(fs::exists(share.Path()));
    }

    // Nothing of removed shares is left, neither on the volume nor in the journal.
    static void ExpectFreed(const std::string& volume = machine::Volume()) {
        EXPECT_TRUE(korv::IsSpaceToFree(kNow_s, Volumes()));
        EXPECT_EQ(korv::FreeRemovedShares(kNow_s, Volumes(), GoOn), std::vector<std::string>());
        EXPECT_FALSE(korv::IsSpaceToFree(kNow_s, Volumes()));
        EXPECT_TRUE(korv::ListShareRemovals().empty());
        for (const auto& entry : fs::recursive_directory_iterator(volume)) {
            EXPECT_TRUE(entry.is_directory() && entry.path().string().find("/.korv") != std::string::npos)
                << entry.path();
        }
    }

    static void ExpectUntouched(const korv::ShareRow& share) {
        EXPECT_TRUE(korv::FindShareByToken(share.token));
        EXPECT_TRUE(HasFile(share.Path()));
        EXPECT_TRUE(korv::ListShareRemovals().empty());
    }
};

TEST_F(ShareRemovalTest, TakesRowAndFolderAwayAtOnceAndFreesLater) {
    const korv::ShareRow share = Make("rec");
    const std::string outside = machine::StateFolder() + "/outside";
    fs::create_directory(outside);
    std::ofstream(outside + "/kept") << "kept";
    fs::create_directory_symlink(outside, share.Path() + "/link");
    ASSERT_EQ(korv::RemoveShare(share).end, ChangeEnd::kDone);
    ExpectGone(share);
    EXPECT_FALSE(korv::IsShareNameTaken("rec"));
    const korv::ShareRow again = Make("rec");
    EXPECT_TRUE(korv::IsSpaceToFree(kNow_s, Volumes()));
    EXPECT_TRUE(korv::FreeRemovedShares(kNow_s, Volumes(), GoOn).empty());
    ExpectUntouched(again);
    EXPECT_EQ(machine::Entries(machine::Volume()), std::vector<std::string>{"rec"});
    EXPECT_TRUE(fs::exists(outside + "/kept"));
}

TEST_F(ShareRemovalTest, OfAnEncryptedShareTakesTheEncryptedFilesToo) {
    const korv::ShareRow share = Make("geheim", true);
    ASSERT_EQ(korv::RemoveShare(share).end, ChangeEnd::kDone);
    ExpectGone(share);
    EXPECT_TRUE(fs::exists(korv::CipherOf(share).CipherPath()));
    ExpectFreed();
    EXPECT_FALSE(fs::exists(korv::CipherOf(share).CipherPath()));
}

TEST_F(ShareRemovalTest, OnBtrfsTakesSubvolumes) {
    if (!machine::MountBtrfs()) {
        GTEST_SKIP() << "no loop devices";
    }
    const korv::ShareRow share = Make("rec", false, machine::BtrfsVolume());
    ASSERT_EQ(korv::RemoveShare(share).end, ChangeEnd::kDone);
    ExpectGone(share);
    ExpectFreed(machine::BtrfsVolume());
    EXPECT_TRUE(machine::Entries(machine::BtrfsVolume()).empty());
    umount2(machine::BtrfsVolume().c_str(), MNT_DETACH);
}

TEST_F(ShareRemovalTest, RefusesWhileSomethingUsesTheShare) {
    for (const bool isEncrypted : {false, true}) {
        const korv::ShareRow share = Make(isEncrypted ? "geheim" : "rec", isEncrypted);
        {
            const std::ifstream held(share.Path() + "/cam1/a.mp4");
            EXPECT_EQ(korv::RemoveShare(share).end, ChangeEnd::kBusy);
            ExpectUntouched(share);
        }
        fs::create_directory(share.Path() + "/fern");
        ASSERT_EQ(mount("tmpfs", (share.Path() + "/fern").c_str(), "tmpfs", 0, ""), 0);
        EXPECT_EQ(korv::RemoveShare(share).end, ChangeEnd::kBusy);
        ExpectUntouched(share);
        umount2((share.Path() + "/fern").c_str(), 0);
        EXPECT_EQ(korv::RemoveShare(share).end, ChangeEnd::kDone);
        EXPECT_TRUE(korv::FreeRemovedShares(kNow_s, Volumes(), GoOn).empty());
    }
}

TEST_F(ShareRemovalTest, RefusesAnEncryptedShareWhoseFolderIsSomebodysPlace) {
    const korv::ShareRow share = Make("geheim", true);
    const fs::path before = fs::current_path();
    fs::current_path(share.Path());
    EXPECT_EQ(korv::RemoveShare(share).end, ChangeEnd::kBusy);
    fs::current_path(before);
    ExpectUntouched(share);
}

TEST_F(ShareRemovalTest, WhatWasRefusedIsNotCarriedOutLater) {
    const korv::ShareRow share = Make("geheim", true);
    const fs::path before = fs::current_path();
    fs::current_path(share.Path());
    Refuse("delete on share_removal");
    const auto outcome = korv::RemoveShare(share);
    EXPECT_EQ(outcome.end, ChangeEnd::kBusy);
    EXPECT_NE(outcome.reason.find("not undone yet"), std::string::npos) << outcome.reason;
    EXPECT_EQ(korv::ListShareRemovals().size(), 1U);
    Allow();
    fs::current_path(before);
    EXPECT_EQ(Recover(), std::vector<std::string>());
    ExpectUntouched(share);
}

TEST_F(ShareRemovalTest, AFailedOneGetsItsFolderBackAsSoonAsItsNameIsFree) {
    const korv::ShareRow share = Make("rec");
    Refuse("delete on share");
    const auto outcome = korv::RemoveShare(share, [&](RemovalStep step) {
        if (step == RemovalStep::kHidden) {
            fs::create_directory(share.Path());
        }
    });
    EXPECT_EQ(outcome.end, ChangeEnd::kFailed);
    Allow();
    EXPECT_EQ(korv::ListShareRemovals().size(), 1U);
    EXPECT_EQ(Recover().size(), 1U);
    EXPECT_EQ(Recover(), std::vector<std::string>()) << "tried again at once";
    fs::remove(share.Path());
    korv::Database() << "update share_removal set next_try_s = 0";
    EXPECT_EQ(Recover(), std::vector<std::string>());
    ExpectUntouched(share);
}

TEST_F(ShareRemovalTest, AnotherProcessOfTheSameNumberIsADeadOne) {
    const korv::ShareRow share = Make("rec");
    korv::ProcessIdentity maker = korv::ThisProcess();
    ++maker.start;
    korv::SaveShareRemoval({share.token, share.name, share.volPath, false, 0, maker});
    EXPECT_EQ(Recover(), std::vector<std::string>());
    ExpectGone(share);
    ExpectFreed();
}

TEST_F(ShareRemovalTest, WhatHasGotFurtherIsNotPutBackByWhoSawItBefore) {
    const korv::ShareRow share = Make("rec");
    ASSERT_EQ(korv::RemoveShare(share).end, ChangeEnd::kDone);
    korv::PostponeShareRemoval(share.token, false, kNow_s + 1);
    EXPECT_TRUE(korv::IsSpaceToFree(kNow_s, Volumes()));
    korv::PostponeShareRemoval(share.token, true, kNow_s + 1);
    EXPECT_FALSE(korv::IsSpaceToFree(kNow_s, Volumes()));
    EXPECT_TRUE(korv::ListShareRemovals().at(0).isHidden);
}

TEST_F(ShareRemovalTest, OthersCanWriteWhileARecoveryWaitsForAMount) {
    const korv::ShareRow share = Make("geheim", true);
    ExpectKilled([&] { korv::RemoveShare(share, [](RemovalStep) { raise(SIGKILL); }); });
    const fs::path before = fs::current_path();
    fs::current_path(share.Path());
    std::vector<std::string> troubles;
    EXPECT_TRUE(CanOthersWriteDuring([&] { troubles = Recover(); }));
    EXPECT_EQ(troubles.size(), 1U);
    fs::current_path(before);
    EXPECT_TRUE(HasFile(share.Path()));
    korv::Database() << "update share_removal set next_try_s = 0";
    EXPECT_EQ(Recover(), std::vector<std::string>());
    ExpectGone(share);
    ExpectFreed();
}

TEST_F(ShareRemovalTest, OnAVolumeNoLongerConfiguredWaitsInSilence) {
    const korv::ShareRow share = Make("rec");
    ASSERT_EQ(korv::RemoveShare(share).end, ChangeEnd::kDone);
    EXPECT_FALSE(korv::IsSpaceToFree(kNow_s, {}));
    EXPECT_EQ(korv::FreeRemovedShares(kNow_s, {}, GoOn), std::vector<std::string>());
    EXPECT_EQ(korv::VolumesOfForgottenSpace({}), std::vector<std::string>{machine::Volume()});
    EXPECT_EQ(korv::VolumesOfForgottenSpace(Volumes()), std::vector<std::string>());
    ExpectFreed();
    EXPECT_EQ(korv::VolumesOfForgottenSpace({}), std::vector<std::string>());
}

TEST_F(ShareRemovalTest, ARecoveryTellsSamba) {
    const auto isExported = [](const std::string& name) {
        std::ifstream file(machine::SambaInclude());
        const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        return text.find("[" + name + "]") != std::string::npos;
    };
    if (!fs::exists("/usr/bin/testparm")) {
        GTEST_SKIP() << "no Samba on this machine";
    }
    const korv::ShareRow share = Make("rec");
    const korv::ShareRow kept = Make("kept");
    ASSERT_EQ(korv::ExportSharesToSamba(), "");
    ASSERT_TRUE(isExported("rec"));
    ExpectKilled([&] { korv::RemoveShare(share, [](RemovalStep) { raise(SIGKILL); }); });
    korv::RecoverDeadMakers();
    ExpectGone(share);
    EXPECT_FALSE(isExported("rec"));
    EXPECT_TRUE(isExported("kept"));
    EXPECT_EQ(korv::RemoveShare(kept).end, ChangeEnd::kDone);
    ExpectFreed();
}

TEST_F(ShareRemovalTest, LeavesAFolderThatIsNotTheShares) {
    const korv::ShareRow removedByHand = Make("rec");
    fs::remove_all(removedByHand.Path());
    ASSERT_EQ(korv::RemoveShare(removedByHand).end, ChangeEnd::kDone);
    ExpectGone(removedByHand);
    const korv::ShareRow replaced = Make("rec");
    fs::remove_all(replaced.Path());
    fs::create_directory(replaced.Path());
    std::ofstream(replaced.Path() + "/mine") << "mine";
    ASSERT_EQ(korv::RemoveShare(replaced).end, ChangeEnd::kDone);
    EXPECT_FALSE(korv::FindShare("rec"));
    EXPECT_TRUE(korv::FreeRemovedShares(kNow_s, Volumes(), GoOn).empty());
    EXPECT_TRUE(fs::exists(replaced.Path() + "/mine"));
}

TEST_F(ShareRemovalTest, WhatCanNotBeRemovedIsTriedAgainLater) {
    const korv::ShareRow share = Make("rec");
    ASSERT_EQ(korv::RemoveShare(share).end, ChangeEnd::kDone);
    const std::string inside = machine::Volume() + "/.korv-gone-" + share.token + "/cam1";
    ASSERT_EQ(mount("tmpfs", inside.c_str(), "tmpfs", 0, ""), 0);
    EXPECT_EQ(korv::FreeRemovedShares(kNow_s, Volumes(), GoOn).size(), 1U);
    EXPECT_FALSE(korv::IsSpaceToFree(kNow_s, Volumes()));
    umount2(inside.c_str(), 0);
    EXPECT_TRUE(korv::IsSpaceToFree(kNow_s + 300, Volumes()));
    EXPECT_TRUE(korv::FreeRemovedShares(kNow_s + 300, Volumes(), GoOn).empty());
    EXPECT_TRUE(korv::ListShareRemovals().empty());
}

TEST_F(ShareRemovalTest, StopsWhenAskedToAndGoesOn) {
    const korv::ShareRow share = Make("rec");
    for (int i = 0; i < 1000; ++i) {
        std::ofstream(share.Path() + "/cam1/" + std::to_string(i));
    }
    ASSERT_EQ(korv::RemoveShare(share).end, ChangeEnd::kDone);
    int questions = 0;
    EXPECT_TRUE(korv::FreeRemovedShares(kNow_s, Volumes(), [&] { return ++questions > 2; }).empty());
    EXPECT_FALSE(machine::Entries(machine::Volume()).empty());
    ExpectFreed();
}

class KilledRemovalTest : public ShareRemovalTest,
                          public testing::WithParamInterface<std::tuple<RemovalStep, bool>> {};

TEST_P(KilledRemovalTest, GoesOn) {
    const auto [step, isEncrypted] = GetParam();
    const korv::ShareRow share = Make("rec", isEncrypted);
    ExpectKilled([&, wanted = step] {
        korv::RemoveShare(share, [wanted](RemovalStep done) {
            if (done == wanted) {
                raise(SIGKILL);
            }
        });
    });
    EXPECT_EQ(Recover(), std::vector<std::string>());
    ExpectGone(share);
    ExpectFreed();
}

INSTANTIATE_TEST_SUITE_P(AtEveryStep, KilledRemovalTest,
                         testing::Combine(testing::Values(RemovalStep::kJournalled, RemovalStep::kLocked,
                                                          RemovalStep::kHidden, RemovalStep::kRecorded),
                                          testing::Bool()));

}  // namespace
