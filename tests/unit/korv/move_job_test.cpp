#include "korv/system/move_job.h"

#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "korv/system/database.h"
#include "korv/system/encrypted_share.h"
#include "korv/system/job_password.h"
#include "korv/system/share_change_store.h"
#include "korv/system/share_folder.h"
#include "korv/system/share_removal.h"
#include "korv/system/share_rename.h"
#include "tests/unit/korv/share_life.h"

namespace {

namespace fs = std::filesystem;

using korv::ChangeEnd;
using korv::JobState;
using korv::ShareEncryption;

bool GoOn() { return false; }

class MoveJobTest : public ShareLifeTest {
protected:
    static korv::ShareRow Row(const korv::ShareRow& share) { return *korv::FindShareByToken(share.token); }

    static long long Start(const korv::ShareRow& share, const std::string& password = kPassword) {
        long long id = 0;
        EXPECT_EQ(korv::CheckMove(share, password).end, ChangeEnd::kDone);
        EXPECT_EQ(korv::StartMove(share, password, id).end, ChangeEnd::kDone);
        return id;
    }

    static std::string PasswordFile(long long id) {
        return machine::StateFolder() + "/jobs/" + std::to_string(id) + ".password";
    }

    static void ExpectOver(long long id, JobState state) {
        const auto job = korv::FindJob(id);
        ASSERT_TRUE(job);
        EXPECT_EQ(korv::NameOf(job->state), std::string(korv::NameOf(state)));
        EXPECT_GE(job->ended_s, job->created_s);
        EXPECT_FALSE(fs::exists(PasswordFile(id)));
        const auto share = korv::FindShareByToken(job->shareToken);
        ASSERT_TRUE(share);
        EXPECT_FALSE(share->isMoving);
        EXPECT_TRUE(HasFile(share->Path()));
        EXPECT_FALSE(korv::IsShareChanging(share->token));
        const std::string aside = machine::Volume() + "/.korv/move";
        EXPECT_TRUE(!fs::exists(aside) || fs::is_empty(aside));
        EXPECT_TRUE(korv::IsFolderOfToken(korv::OpenVolume(share->volPath).Get(), share->name, share->token));
    }

    static std::size_t CipherCount() {
        const std::string ciphers = machine::Volume() + "/.korv/cipher";
        return fs::exists(ciphers) ? machine::Entries(ciphers).size() : 0;
    }
};

TEST_F(MoveJobTest, IsDoneByOneProcessOnly) {
    const korv::ShareRow share = Make("rec");
    const long long id = Start(share);
    const pid_t other = fork();
    if (other == 0) {
        pause();
        _exit(0);
    }
    auto job = korv::FindJob(id);
    job->state = JobState::kProgressing;
    job->runner = korv::ThisProcess();
    job->runner.pid = other;
    std::ifstream stat("/proc/" + std::to_string(other) + "/stat");
    for (int field = 1; field < 22; ++field) {  // its start is the 22nd
        std::string skipped;
        stat >> skipped;
    }
    stat >> job->runner.start;
    ASSERT_TRUE(korv::IsRunning(job->runner));
    {
        korv::WriteTransaction transaction(korv::Database());
        korv::SaveJob(*job);
        transaction.Commit();
    }
    EXPECT_EQ(korv::RunMoveJob(id, GoOn), "");
    EXPECT_EQ(korv::FindJob(id)->runner.pid, other);
    EXPECT_EQ(korv::FindJob(id)->move.step, korv::MoveStep::kMeasure);
    kill(other, SIGKILL);
    ASSERT_EQ(waitpid(other, nullptr, 0), other);
    EXPECT_EQ(korv::RunMoveJob(id, GoOn), "");
    ExpectOver(id, JobState::kFinished);
}

TEST_F(MoveJobTest, ForgetsThePasswordsThatKilledProcessesLeft) {
    const korv::ShareRow share = Make("rec");
    const long long underWay = Start(share);
    korv::KeepJobPassword(underWay + 5, "of a job that was never made");
    korv::ForgetLostJobPasswords();
    EXPECT_TRUE(fs::exists(PasswordFile(underWay)));
    EXPECT_FALSE(fs::exists(PasswordFile(underWay + 5)));
    EXPECT_EQ(korv::RunMoveJob(underWay, GoOn), "");
    korv::KeepJobPassword(underWay, "of a job that is over");
    korv::ForgetLostJobPasswords();
    EXPECT_FALSE(fs::exists(PasswordFile(underWay)));
}

TEST_F(MoveJobTest, EncryptsAndDecryptsAgain) {
    const korv::ShareRow share = Make("rec");
    const long long encryption = Start(share);
    EXPECT_TRUE(Row(share).isMoving);
    struct stat status {};
    ASSERT_EQ(stat(PasswordFile(encryption).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    EXPECT_EQ(status.st_uid, 0U);
    ASSERT_EQ(stat((machine::StateFolder() + "/jobs").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0700U);
    EXPECT_EQ(korv::RunMoveJob(encryption, GoOn), "");
    ExpectOver(encryption, JobState::kFinished);
    EXPECT_EQ(korv::FindJob(encryption)->percent, 100);
    EXPECT_EQ(korv::EncryptionOf(Row(share)), ShareEncryption::kUnlocked);
    EXPECT_EQ(machine::AccessOf(machine::kBossUid, {machine::kAdministratorsGid}, share.Path()),
              (machine::Access{true, true}));
    ASSERT_EQ(korv::LockShare(Row(share)), korv::CipherEnd::kDone);
    EXPECT_EQ(korv::CheckMove(Row(share), "").end, ChangeEnd::kEncryptionRefused);
    EXPECT_EQ(korv::UnlockShare(Row(share), "wrong"), korv::CipherEnd::kWrongPassword);
    ASSERT_EQ(korv::UnlockShare(Row(share), kPassword), korv::CipherEnd::kDone);

    const long long decryption = Start(Row(share), "");
    EXPECT_EQ(korv::RunMoveJob(decryption, GoOn), "");
    ExpectOver(decryption, JobState::kFinished);
    EXPECT_EQ(korv::EncryptionOf(Row(share)), ShareEncryption::kNone);
    EXPECT_EQ(CipherCount(), 0U);
    EXPECT_EQ(korv::RemoveShare(Row(share)).end, ChangeEnd::kDone);
}

TEST_F(MoveJobTest, RefusesWhatCanNotWork) {
    const korv::ShareRow share = Make("rec");
    for (const std::string& password : {std::string(), std::string("a\nb"), std::string(2000, 'x')}) {
        EXPECT_EQ(korv::CheckMove(share, password).end, ChangeEnd::kEncryptionRefused);
    }
    fs::create_directory(share.Path() + "/fern");
    ASSERT_EQ(mount("tmpfs", (share.Path() + "/fern").c_str(), "tmpfs", 0, ""), 0);
    EXPECT_EQ(korv::CheckMove(share, kPassword).end, ChangeEnd::kBusy);
    umount2((share.Path() + "/fern").c_str(), 0);
    EXPECT_EQ(korv::CheckMove(share, kPassword).end, ChangeEnd::kDone);
    EXPECT_TRUE(korv::ListJobs().empty());
    EXPECT_FALSE(fs::exists(machine::StateFolder() + "/jobs/1.password"));
}

TEST_F(MoveJobTest, RefusesWhenTheCopyDoesNotFit) {
    ASSERT_EQ(mount("tmpfs", machine::AbsentVolume().c_str(), "tmpfs", 0, "size=96m,mode=755"), 0);
    const korv::ShareRow share = Make("rec", false, machine::AbsentVolume());
    EXPECT_EQ(korv::CheckMove(share, kPassword).end, ChangeEnd::kDone);
    std::ofstream(share.Path() + "/large") << std::string(std::size_t{30} << 20, 'x');
    EXPECT_EQ(korv::CheckMove(share, kPassword).end, ChangeEnd::kNoSpace);
    long long id = 0;
    ASSERT_EQ(korv::StartMove(share, kPassword, id).end, ChangeEnd::kDone);
    EXPECT_NE(korv::RunMoveJob(id, GoOn), "");
    EXPECT_EQ(korv::FindJob(id)->state, JobState::kFailed);
    EXPECT_EQ(korv::FindJob(id)->error, ChangeEnd::kNoSpace);
    EXPECT_TRUE(HasFile(share.Path()));
    EXPECT_FALSE(Row(share).isMoving);
    UnmountAll(machine::AbsentVolume());
    umount2(machine::AbsentVolume().c_str(), MNT_DETACH);
}

TEST_F(MoveJobTest, KeepsOtherChangesAwayAndOtherJobs) {
    const korv::ShareRow share = Make("rec");
    const long long id = Start(share);
    long long second = 0;
    EXPECT_EQ(korv::StartMove(share, kPassword, second).end, ChangeEnd::kBusy);
    EXPECT_EQ(second, 0);
    korv::ShareRow wanted = share;
    wanted.name = "new";
    EXPECT_EQ(korv::ChangeShare(share, wanted).end, ChangeEnd::kBusy);
    EXPECT_EQ(korv::RemoveShare(share).end, ChangeEnd::kBusy);
    wanted.name = share.name;
    wanted.description = "still works";
    EXPECT_EQ(korv::ChangeShare(share, wanted).end, ChangeEnd::kDone);
    korv::RunMoveJob(id, GoOn);
    ExpectOver(id, JobState::kFinished);
    wanted.name = "new";
    EXPECT_EQ(korv::ChangeShare(Row(share), wanted).end, ChangeEnd::kDone);
}

TEST_F(MoveJobTest, ACancelledJobLeavesTheShareAsItWas) {
    const korv::ShareRow share = Make("rec");
    const long long id = Start(share);
    EXPECT_EQ(korv::CancelJob(id), korv::CancelEnd::kDone);
    EXPECT_EQ(korv::CancelJob(id + 1), korv::CancelEnd::kUnknown);
    korv::RunMoveJob(id, GoOn);
    ExpectOver(id, JobState::kCancelled);
    EXPECT_EQ(korv::EncryptionOf(Row(share)), ShareEncryption::kNone);
    EXPECT_EQ(CipherCount(), 0U);
    EXPECT_EQ(korv::CancelJob(id), korv::CancelEnd::kTooLate);
    EXPECT_NE(Start(Row(share)), id);
}

TEST_F(MoveJobTest, AJobThatIsStoppedGoesOn) {
    const korv::ShareRow share = Make("rec");
    const long long id = Start(share);
    korv::RunMoveJob(id, [] { return true; });
    EXPECT_EQ(korv::FindJob(id)->state, JobState::kWaiting);
    EXPECT_TRUE(fs::exists(PasswordFile(id)));
    korv::RunMoveJob(id, GoOn);
    ExpectOver(id, JobState::kFinished);
}

// Whether the folders were exchanged stands on the volume.
TEST_F(MoveJobTest, WaitsAtTheSwitchWhileItsVolumeIsAway) {
    const std::string volume = machine::AbsentVolume();
    const std::string kept = machine::StateFolder() + "/kept";
    fs::create_directory(kept);
    ASSERT_EQ(mount("tmpfs", kept.c_str(), "tmpfs", 0, "mode=755"), 0);
    ASSERT_EQ(mount(kept.c_str(), volume.c_str(), nullptr, MS_BIND, nullptr), 0);
    const korv::ShareRow share = Make("rec", false, volume);
    const long long id = Start(share);
    korv::RunMoveJob(id, [id] {
        usleep(25'000);  // so that it is asked at the next file, too
        return korv::FindJob(id)->move.step == korv::MoveStep::kSwitch;
    });
    ASSERT_EQ(korv::FindJob(id)->move.step, korv::MoveStep::kSwitch);
    UnmountAll(volume);
    ASSERT_EQ(umount2(volume.c_str(), MNT_DETACH), 0);
    EXPECT_EQ(korv::CancelJob(id), korv::CancelEnd::kDone);
    EXPECT_NE(korv::RunMoveJob(id, GoOn), "");
    EXPECT_EQ(korv::FindJob(id)->state, JobState::kWaiting);
    EXPECT_EQ(korv::FindJob(id)->move.step, korv::MoveStep::kSwitch);
    EXPECT_EQ(korv::FindJob(id)->runner.pid, 0);
    EXPECT_GT(korv::FindJob(id)->nextTry_s, time(nullptr));
    ASSERT_EQ(mount(kept.c_str(), volume.c_str(), nullptr, MS_BIND, nullptr), 0);
    korv::RunMoveJob(id, GoOn);
    ExpectOver(id, JobState::kCancelled);
    UnmountAll(volume);
    umount2(volume.c_str(), MNT_DETACH);
    umount2(kept.c_str(), MNT_DETACH);
}

// Everything is killed when the job saves for the n-th time, and what mounts the plain files with it, as when
// the machine is switched off.
class KilledMoveJobTest : public MoveJobTest, public testing::WithParamInterface<bool> {
protected:
    // False when the job was over before.
    static bool RunAndDieAt(long long id, int question) {
        korv::CloseDatabase();
        const int status = machine::InChild([&] {
            int questions = 0;
            korv::RunMoveJob(id, [&] {
                if (++questions == question) {
                    raise(SIGKILL);
                }
                return false;
            });
            return 0;
        });
        return WIFSIGNALED(status);
    }

    static void UnlockWhenItWaits(const korv::ShareRow& share, long long id) {
        korv::RunMoveJob(id, GoOn);
        if (!korv::FindJob(id)->IsOver()) {
            ASSERT_EQ(korv::UnlockShare(Row(share), kPassword), korv::CipherEnd::kDone);
        }
    }
};

TEST_P(KilledMoveJobTest, GoesOnAfterASwitchOff) {
    for (const bool isCipher : {false, true}) {
        int question = 1;
        for (bool isKilled = true; isKilled; ++question) {
            const std::string name = (isCipher ? "c" : "p") + std::to_string(question);
            const korv::ShareRow share = Make(name, isCipher);
            const long long id = Start(share, isCipher ? "" : kPassword);
            isKilled = RunAndDieAt(id, question);
            if (isKilled && GetParam()) {
                UnmountAll(machine::Volume());
            }
            if (isCipher && GetParam() && Row(share).encryption != ShareEncryption::kNone) {
                UnlockWhenItWaits(share, id);
            }
            korv::RunMoveJob(id, GoOn);
            ExpectOver(id, JobState::kFinished);
            ASSERT_FALSE(HasFailure()) << "killed at question " << question;
        }
        EXPECT_GT(question, 3) << "nothing was ever killed";
    }
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutMounts, KilledMoveJobTest, testing::Bool());

}  // namespace
