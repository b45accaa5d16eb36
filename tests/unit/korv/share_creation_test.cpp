#include "korv/system/share_creation.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <memory>

#include <sys/acl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "platform/korv/configuration.h"

#include "korv/system/database.h"
#include "korv/system/share_folder.h"
#include "tests/unit/korv/private_machine.h"

namespace {

namespace fs = std::filesystem;

using korv::CreationEnd;
using korv::CreationStep;

constexpr const char* kCompleteAcl =
    "user::rwx\ngroup::---\ngroup:administrators:rwx\nmask::rwx\nother::---\n";

korv::ShareRow Wanted(const std::string& name, const std::string& volume = machine::Volume()) {
    korv::ShareRow share;
    share.name = name;
    share.volPath = volume;
    share.description = "Front door, 1st floor";
    share.isHidden = true;
    share.isCow = false;
    share.isModifyDisabled = true;
    return share;
}

std::vector<std::string> Recover() { return korv::RecoverShareCreations(KORV::GetConfiguration().volumes); }

std::string AclText(const std::string& folder, acl_type_t type) {
    const std::unique_ptr<void, int (*)(void*)> acl(acl_get_file(folder.c_str(), type), acl_free);
    const std::unique_ptr<char, int (*)(void*)> text(acl_to_text(static_cast<acl_t>(acl.get()), nullptr),
                                                     acl_free);
    return text != nullptr ? text.get() : "";
}

void ExpectComplete(const korv::ShareRow& wanted) {
    const auto row = korv::FindShare(wanted.name);
    ASSERT_TRUE(row);
    EXPECT_EQ(row->volPath, wanted.volPath);
    EXPECT_EQ(row->description, wanted.description);
    EXPECT_EQ(row->isHidden, wanted.isHidden);
    EXPECT_EQ(row->isCow, wanted.isCow);
    EXPECT_EQ(row->isModifyDisabled, wanted.isModifyDisabled);
    EXPECT_GT(row->created_s, 0);
    struct stat status {};
    ASSERT_EQ(stat(wanted.Path().c_str(), &status), 0);
    EXPECT_TRUE(S_ISDIR(status.st_mode));
    EXPECT_EQ(status.st_uid, 0U);
    EXPECT_EQ(status.st_gid, 0U);
    EXPECT_EQ(status.st_mode & 07777, 0770U);
    EXPECT_EQ(AclText(wanted.Path(), ACL_TYPE_ACCESS), kCompleteAcl);
    EXPECT_EQ(AclText(wanted.Path(), ACL_TYPE_DEFAULT), kCompleteAcl);
    EXPECT_TRUE(korv::IsFolderOfToken(korv::OpenVolume(wanted.volPath).Get(), wanted.name, row->token));
    EXPECT_TRUE(korv::ListShareCreations().empty());
}

void ExpectNothing(const korv::ShareRow& wanted) {
    EXPECT_FALSE(korv::FindShare(wanted.name));
    EXPECT_TRUE(korv::ListShareCreations().empty());
    EXPECT_TRUE(machine::Entries(wanted.volPath).empty());
}

// Creates in a child that is killed right after `step`.
void CreateAndDieAfter(const korv::ShareRow& wanted, CreationStep step) {
    const int status = machine::InChild([&] {
        korv::CreateShare(wanted, [step](CreationStep done) {
            if (done == step) {
                raise(SIGKILL);
            }
        });
        return 0;
    });
    ASSERT_TRUE(WIFSIGNALED(status)) << "the step was never reached";
}

class ShareCreationTest : public MachineTest {};

TEST_F(ShareCreationTest, MakesRowAndFolderThatOnlyAdministratorsEnter) {
    const korv::ShareRow wanted = Wanted("rec");
    EXPECT_EQ(korv::CreateShare(wanted).end, CreationEnd::kCreated);
    ExpectComplete(wanted);
    EXPECT_EQ(machine::Entries(machine::Volume()), std::vector<std::string>{"rec"});
    EXPECT_EQ(machine::AccessOf(machine::kBossUid, {machine::kAdministratorsGid}, wanted.Path()),
              (machine::Access{true, true}));
    EXPECT_EQ(machine::AccessOf(machine::kAliceUid, {}, wanted.Path()), (machine::Access{false, false}));
}

TEST_F(ShareCreationTest, RefusesNamesThatSharesHaveInAnyCase) {
    ASSERT_EQ(korv::CreateShare(Wanted("Straße")).end, CreationEnd::kCreated);
    EXPECT_EQ(korv::CreateShare(Wanted("Straße")).end, CreationEnd::kNameTaken);
    EXPECT_EQ(korv::CreateShare(Wanted("STRASSE")).end, CreationEnd::kNameTaken);
    EXPECT_EQ(machine::Entries(machine::Volume()).size(), 1U);
}

TEST_F(ShareCreationTest, LeavesWhatHasTheNameAlready) {
    const std::string path = machine::Volume() + "/rec";
    const auto expectTaken = [&] {
        EXPECT_EQ(korv::CreateShare(Wanted("rec")).end, CreationEnd::kNameTaken);
        EXPECT_FALSE(korv::FindShare("rec"));
        EXPECT_TRUE(korv::ListShareCreations().empty());
        EXPECT_EQ(machine::Entries(machine::Volume()), std::vector<std::string>{"rec"});
    };
    fs::create_directory(path);
    expectTaken();
    EXPECT_TRUE(fs::is_directory(path));
    fs::remove(path);
    fs::create_symlink("/etc", path);
    expectTaken();
    EXPECT_EQ(fs::read_symlink(path), "/etc");
}

TEST_F(ShareCreationTest, TellsAFullVolumeFromAnUnusableOne) {
    EXPECT_EQ(korv::CreateShare(Wanted("rec", machine::FullVolume())).end, CreationEnd::kNoSpace);
    EXPECT_EQ(korv::CreateShare(Wanted("rec", machine::ReadOnlyVolume())).end, CreationEnd::kVolumeUnusable);
    EXPECT_EQ(korv::CreateShare(Wanted("rec", machine::AbsentVolume())).end, CreationEnd::kVolumeUnusable);
    EXPECT_FALSE(korv::FindShare("rec"));
    EXPECT_TRUE(machine::Entries(machine::AbsentVolume()).empty());
    EXPECT_TRUE(korv::ListShareCreations().empty());
    EXPECT_EQ(korv::CreateShare(Wanted("rec")).end, CreationEnd::kCreated);
}

TEST_F(ShareCreationTest, DoesNotInheritTheVolumesOwnListsOrGroup) {
    ASSERT_EQ(chown(machine::Volume().c_str(), 0, machine::kStaffGid), 0);
    ASSERT_EQ(chmod(machine::Volume().c_str(), 02775), 0);
    const korv::Acl loose{{ACL_USER_OBJ, 0, 7},
                          {ACL_GROUP_OBJ, 0, 7},
                          {ACL_USER, machine::kAliceUid, 7},
                          {ACL_MASK, 0, 7},
                          {ACL_OTHER, 0, 7}};
    korv::WriteAcl(korv::OpenVolume(machine::Volume()).Get(), ACL_TYPE_DEFAULT, loose);
    const korv::ShareRow wanted = Wanted("rec");
    EXPECT_EQ(korv::CreateShare(wanted).end, CreationEnd::kCreated);
    ExpectComplete(wanted);
    ASSERT_EQ(acl_delete_def_file(machine::Volume().c_str()), 0);
    ASSERT_EQ(chown(machine::Volume().c_str(), 0, 0), 0);
    ASSERT_EQ(chmod(machine::Volume().c_str(), 0755), 0);
}

class ShareCreationCrashTest : public ShareCreationTest, public testing::WithParamInterface<CreationStep> {};

TEST_P(ShareCreationCrashTest, IsFinishedOrUndoneByTheNextStart) {
    const korv::ShareRow wanted = Wanted("rec");
    ASSERT_NO_FATAL_FAILURE(CreateAndDieAfter(wanted, GetParam()));
    EXPECT_TRUE(Recover().empty());
    if (GetParam() < CreationStep::kPublished) {
        ExpectNothing(wanted);
    } else {
        ExpectComplete(wanted);
    }
    EXPECT_TRUE(Recover().empty());
}

TEST_P(ShareCreationCrashTest, DoesNotKeepItsNameFromALivingCreator) {
    const korv::ShareRow wanted = Wanted("rec");
    ASSERT_NO_FATAL_FAILURE(CreateAndDieAfter(wanted, GetParam()));
    Recover();
    const CreationEnd end = korv::CreateShare(wanted).end;
    EXPECT_EQ(end, GetParam() < CreationStep::kPublished ? CreationEnd::kCreated : CreationEnd::kNameTaken);
    ExpectComplete(wanted);
}

TEST_P(ShareCreationCrashTest, LeavesAForeignFolderThatTookTheNameMeanwhile) {
    if (GetParam() >= CreationStep::kPublished) {
        return;  // the name is the share's own by then
    }
    const korv::ShareRow wanted = Wanted("rec");
    ASSERT_NO_FATAL_FAILURE(CreateAndDieAfter(wanted, GetParam()));
    fs::create_directories(wanted.Path() + "/precious");
    EXPECT_TRUE(Recover().empty());
    EXPECT_FALSE(korv::FindShare("rec"));
    EXPECT_TRUE(fs::is_directory(wanted.Path() + "/precious"));
    EXPECT_EQ(machine::Entries(machine::Volume()).size(), 1U);
}

std::string StepName(const testing::TestParamInfo<CreationStep>& info) {
    constexpr std::array<const char*, 8> kNames{"Journalled", "FolderMade", "FolderSecured", "FolderMarked",
                                                "Encrypted",  "Published",  "Unlocked",      "Recorded"};
    return kNames.at(static_cast<std::size_t>(info.param));
}

INSTANTIATE_TEST_SUITE_P(EveryStep, ShareCreationCrashTest,
                         testing::Values(CreationStep::kJournalled, CreationStep::kFolderMade,
                                         CreationStep::kFolderSecured, CreationStep::kFolderMarked,
                                         CreationStep::kPublished, CreationStep::kRecorded),
                         StepName);

TEST_F(ShareCreationTest, OfALivingProcessIsNotRecoveredByOthers) {
    // The child stops in the middle; while it lives its claim stands.
    std::array<int, 2> reached{}, release{};
    ASSERT_EQ(pipe2(reached.data(), O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(release.data(), O_CLOEXEC), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    char byte = 0;
    if (child == 0) {
        const auto outcome = korv::CreateShare(Wanted("rec"), [&](CreationStep step) {
            if (step == CreationStep::kFolderMarked) {
                static_cast<void>(write(reached[1], "x", 1));
                static_cast<void>(read(release[0], &byte, 1));
            }
        });
        _exit(outcome.end == CreationEnd::kCreated ? 0 : 1);
    }
    EXPECT_EQ(read(reached[0], &byte, 1), 1);
    EXPECT_TRUE(Recover().empty());
    EXPECT_EQ(korv::ListShareCreations().size(), 1U);
    EXPECT_EQ(korv::CreateShare(Wanted("REC")).end, CreationEnd::kNameTaken);
    EXPECT_EQ(write(release[1], "x", 1), 1);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    ExpectComplete(Wanted("rec"));
}

TEST_F(ShareCreationTest, OfAProcessWhoseIdWasUsedAgainIsRecovered) {
    ASSERT_NO_FATAL_FAILURE(CreateAndDieAfter(Wanted("rec"), CreationStep::kFolderMade));
    korv::Database() << "update share_creation set maker_pid = 1";
    EXPECT_TRUE(Recover().empty());
    ExpectNothing(Wanted("rec"));
}

TEST_F(ShareCreationTest, OnAVolumeThatIsAwayIsKeptUntilItIsBack) {
    ASSERT_NO_FATAL_FAILURE(CreateAndDieAfter(Wanted("rec"), CreationStep::kFolderMarked));
    korv::Database() << "update share_creation set vol_path = '" << machine::AbsentVolume() << "'";
    EXPECT_EQ(Recover().size(), 1U);
    EXPECT_EQ(korv::ListShareCreations().size(), 1U);
    korv::Database() << "update share_creation set vol_path = '" << machine::Volume() << "'";
    EXPECT_TRUE(Recover().empty());
    ExpectNothing(Wanted("rec"));
}

TEST_F(ShareCreationTest, ThatCannotBeRecordedIsTakenBack) {
    korv::Database() << "create trigger refuse before insert on share begin select raise(abort, 'no'); end";
    EXPECT_EQ(korv::CreateShare(Wanted("rec")).end, CreationEnd::kFailed);
    ExpectNothing(Wanted("rec"));
    korv::Database() << "drop trigger refuse";
    EXPECT_EQ(korv::CreateShare(Wanted("rec")).end, CreationEnd::kCreated);
}

TEST_F(ShareCreationTest, WithAFullDatabaseIsToldAsNoSpaceAndLeavesNothing) {
    int pages = 0;
    korv::Database() << "pragma page_count", soci::into(pages);
    korv::Database() << "pragma max_page_count = " << pages;
    korv::ShareRow wanted = Wanted("rec");
    wanted.description = std::string(100000, 'x');
    EXPECT_EQ(korv::CreateShare(wanted).end, CreationEnd::kNoSpace);
    ExpectNothing(wanted);
}

TEST_F(ShareCreationTest, OfOneNameBySixtyFourProcessesIsWonByOne) {
    const std::vector<int> ends = machine::InChildren(64, [](int i) {
        Recover();
        const auto outcome = korv::CreateShare(Wanted(i % 2 == 0 ? "rec" : "REC"));
        return static_cast<int>(outcome.end);
    });
    EXPECT_EQ(std::count(ends.begin(), ends.end(), static_cast<int>(CreationEnd::kCreated)), 1);
    EXPECT_EQ(std::count(ends.begin(), ends.end(), static_cast<int>(CreationEnd::kNameTaken)), 63);
    EXPECT_EQ(korv::ListShares().size(), 1U);
    EXPECT_EQ(machine::Entries(machine::Volume()).size(), 1U);
}

TEST_F(ShareCreationTest, OfSixtyFourNamesAtOnceGivesSixtyFourShares) {
    const std::vector<int> ends = machine::InChildren(64, [](int i) {
        Recover();
        return static_cast<int>(korv::CreateShare(Wanted("rec" + std::to_string(i))).end);
    });
    EXPECT_EQ(std::count(ends.begin(), ends.end(), static_cast<int>(CreationEnd::kCreated)), 64);
    EXPECT_EQ(korv::ListShares().size(), 64U);
    EXPECT_EQ(machine::Entries(machine::Volume()).size(), 64U);
    ExpectComplete(Wanted("rec0"));
    ExpectComplete(Wanted("rec63"));
}

TEST_F(ShareCreationTest, WhileProcessesDieAtEveryStepAgreesInTheEnd) {
    constexpr int kProcesses = 36;
    machine::InChildren(kProcesses, [](int i) {
        Recover();
        korv::CreateShare(Wanted("rec" + std::to_string(i)), [i](CreationStep step) {
            if (static_cast<int>(step) == i % 6) {
                raise(SIGKILL);
            }
        });
        return 0;
    });
    EXPECT_TRUE(Recover().empty());
    std::vector<std::string> folders = machine::Entries(machine::Volume()), rows;
    std::sort(folders.begin(), folders.end());
    for (const korv::ShareRow& share : korv::ListShares()) {
        rows.push_back(share.name);
        ExpectComplete(share);
    }
    EXPECT_EQ(rows, folders);
    EXPECT_EQ(rows.size(), std::size_t{kProcesses / 3});
}

}  // namespace
