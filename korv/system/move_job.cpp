#include "korv/system/move_job.h"

#include <string.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "include/run_as_scope.h"
#include "korv/framework/log.h"
#include "korv/system/database.h"
#include "korv/system/encrypted_share.h"
#include "korv/system/job_password.h"
#include "korv/system/samba_export.h"
#include "korv/system/share_change_store.h"
#include "korv/system/share_encryption.h"
#include "korv/system/share_folder.h"
#include "korv/system/share_use.h"
#include "korv/system/tree_sync.h"
#include "korv/system/volume.h"

namespace korv {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLookForSize(2);
constexpr std::chrono::milliseconds kBetweenQuestions(250);
constexpr long long kRetryPause_s = 30;

struct TooLarge {};

bool IsToCipher(const ShareRow& share) { return share.encryption == ShareEncryption::kNone; }

// Throws kNoSpace when the copy is known not to fit.
void CheckSpace(const ShareRow& share) {
    const RunAsScope root = IF_RUN_AS;
    const Clock::time_point end = Clock::now() + kLookForSize;
    try {
        const FileDescriptor volume = OpenVolume(share.volPath);
        const FileDescriptor folder = OpenShareFolder(volume.Get(), share.name);
        const TreeSize size = MeasureTree(folder.Get(), [end](std::uint64_t) {
            if (Clock::now() > end) {
                throw TooLarge();
            }
        });
        if (ProbeVolume(share.volPath).freeBytes < NeededBytes(size, MoveLimits().spare_bytes)) {
            throw ChangeFailure{ChangeEnd::kNoSpace, ""};
        }
    } catch (const TooLarge&) {
        return;
    } catch (const CopyError& error) {
        if (error.error != ESTALE) {  // somebody moves deep folders: the job counts again
            throw ChangeFailure{ChangeEnd::kFailed, std::string("cannot ") + error.action};
        }
    }
}

void CheckMovable(const ShareRow& share, bool isToCipher, const std::string& password) {
    if (isToCipher ? !CipherFolder::IsPassword(password) || !CipherFolder::IsPossible()
                   : EncryptionOf(share) != ShareEncryption::kUnlocked) {
        throw ChangeFailure{ChangeEnd::kEncryptionRefused, ""};
    }
    if (!ProbeVolume(share.volPath).isWritable) {
        throw ChangeFailure{ChangeEnd::kVolumeUnusable, ""};
    }
    if (HasMountsInside(share)) {
        throw ChangeFailure{ChangeEnd::kBusy, "something is mounted in the share"};
    }
    CheckSpace(share);
}

// The password is on the disk before anybody can find the job.
void Enter(const ShareRow& share, bool isToCipher, const std::string& password, long long& id) {
    JobRow job;
    job.kind = isToCipher ? JobKind::kEncrypt : JobKind::kDecrypt;
    job.shareToken = share.token;
    job.share = share.name;
    job.created_s = time(nullptr);
    try {
        WriteTransaction transaction(Database());
        const auto now = FindShareByToken(share.token);
        if (!now || now->name != share.name || now->encryption != share.encryption ||
            IsShareChanging(share.token)) {
            throw ChangeFailure{ChangeEnd::kBusy, "another change of the share is under way"};
        }
        AddJob(job);
        SaveShareMoving(share.token, true);
        if (isToCipher) {
            KeepJobPassword(job.id, password);
        }
        transaction.Commit();
    } catch (...) {
        if (job.id != 0) {
            ForgetJobPassword(job.id);
        }
        throw;
    }
    id = job.id;
}

ChangeEnd EndOf(MoveEnd end) {
    switch (end) {
        case MoveEnd::kNoSpace:
            return ChangeEnd::kNoSpace;
        case MoveEnd::kMountInside:
        case MoveEnd::kSourceBusy:
        case MoveEnd::kBlocked:
            return ChangeEnd::kBusy;
        case MoveEnd::kLocked:
            return ChangeEnd::kEncryptionRefused;
        case MoveEnd::kDone:
        case MoveEnd::kCancelled:
        case MoveEnd::kPaused:
            return ChangeEnd::kDone;
        case MoveEnd::kDiffers:
        case MoveEnd::kFailed:
            break;
    }
    return ChangeEnd::kFailed;
}

bool IsOver(MoveStep step) { return step == MoveStep::kDone || step == MoveStep::kUndone; }

void GiveUp(JobRow job) {
    job.state = JobState::kFailed;
    job.error = ChangeEnd::kFailed;
    job.ended_s = time(nullptr);
    WriteTransaction transaction(Database());
    SaveJob(job);
    transaction.Commit();
    ForgetJobPassword(job.id);
}

// Takes the job for this process, as it is now. None when it is over or another process works on it, such as
// the child of a keeper that was killed.
std::optional<JobRow> Claim(long long id) {
    WriteTransaction transaction(Database());
    auto job = FindJob(id);
    if (!job || job->IsOver() || IsRunning(job->runner)) {
        return std::nullopt;
    }
    job->runner = ThisProcess();
    job->state = JobState::kProgressing;
    SaveJob(*job);
    transaction.Commit();
    return job;
}

// One run of a job that was claimed.
class JobRun {
public:
    JobRun(const JobRow& job, const ShareRow& share, const std::function<bool()>& shouldStop)
        : m_job(job), m_share(share), m_shouldStop(shouldStop) {}

    std::string Run() {
        std::string password = ReadJobPassword(m_job.id);
        const std::unique_ptr<EncryptionPlaces> places = MakePlaces(password);
        Prepare(*places, password);
        explicit_bzero(password.data(), password.size());
        Save(m_job.move);
        const MoveResult result = RunMove(*places, m_job.move,
                                          {[this](const MoveState& state) { Save(state); },
                                           [this] { return Wish(); }, [this] { SendAway(); }});
        Finish(result);
        return result.reason;
    }

private:
    std::unique_ptr<EncryptionPlaces> MakePlaces(const std::string& password) const {
        if (m_job.kind == JobKind::kEncrypt) {
            return std::make_unique<EncryptPlaces>(m_share.volPath, m_share.name, m_share.token, password);
        }
        return std::make_unique<DecryptPlaces>(m_share.volPath, m_share.name, m_share.token);
    }

    // What the move itself can't do: it undoes only what it can open, and a machine that was switched off
    // when people were at the target already has locked the share.
    void Prepare(EncryptionPlaces& places, const std::string& password) {
        if (m_job.move.step < MoveStep::kFollow && IsJobCancelAsked(m_job.id) &&
            !MayHaveSwitched(m_job.move.step, places)) {
            m_job.move.step = MoveStep::kUndo;
            m_job.move.reason = MoveEnd::kCancelled;
        }
        const bool isShown =
            m_job.move.step == MoveStep::kFollow || m_job.move.step == MoveStep::kRemoveSource;
        if (isShown && m_job.kind == JobKind::kEncrypt && !password.empty() && !places.IsAtView() &&
            CipherOf(m_share).State() != CipherState::kUnlocked) {
            UnlockShare(m_share, password);
        }
    }

    void SendAway() {
        const std::string trouble = DisconnectFromSambaShare(m_share.name);
        if (!trouble.empty()) {
            LogLine("job " + std::to_string(m_job.id) + ": " + trouble);
        }
    }

    MoveWish Wish() {
        if (m_shouldStop()) {
            return MoveWish::kPause;
        }
        if (Clock::now() >= m_nextQuestion) {
            m_nextQuestion = Clock::now() + kBetweenQuestions;
            m_isCancelled = IsJobCancelAsked(m_job.id);
        }
        return m_isCancelled ? MoveWish::kCancel : MoveWish::kGoOn;
    }

    // From the switch on the share is what it was to become.
    void Save(const MoveState& state) {
        m_job.move = state;
        m_job.percent = state.Percent();
        WriteTransaction transaction(Database());
        SaveJob(m_job);
        if (IsSwitched(state.step)) {
            SaveShareEncryption(m_share.token, m_job.kind == JobKind::kEncrypt ? ShareEncryption::kLocked
                                                                               : ShareEncryption::kNone);
        }
        transaction.Commit();
    }

    void Finish(const MoveResult& result) {
        const MoveStep step = m_job.move.step;
        m_job.error = EndOf(result.end);
        m_job.runner = {};
        m_job.state = JobState::kWaiting;
        m_job.nextTry_s = result.end == MoveEnd::kPaused ? 0 : time(nullptr) + kRetryPause_s;
        if (IsOver(step)) {
            m_job.state = step == MoveStep::kDone             ? JobState::kFinished
                          : result.end == MoveEnd::kCancelled ? JobState::kCancelled
                                                              : JobState::kFailed;
            m_job.ended_s = time(nullptr);
        }
        WriteTransaction transaction(Database());
        SaveJob(m_job);
        if (m_job.IsOver()) {
            SaveShareMoving(m_share.token, false);
        }
        transaction.Commit();
        if (m_job.IsOver()) {
            ForgetJobPassword(m_job.id);
        }
    }

    JobRow m_job;
    const ShareRow m_share;
    const std::function<bool()>& m_shouldStop;
    bool m_isCancelled = false;
    Clock::time_point m_nextQuestion{};
};

}  // namespace

ChangeOutcome CheckMove(const ShareRow& share, const std::string& password) {
    return TryChange([&] { CheckMovable(share, IsToCipher(share), password); });
}

ChangeOutcome StartMove(const ShareRow& share, const std::string& password, long long& id) {
    return TryChange([&] { Enter(share, IsToCipher(share), password, id); });
}

CancelEnd CancelJob(long long id) {
    WriteTransaction transaction(Database());
    const auto job = FindJob(id);
    if (!job) {
        return CancelEnd::kUnknown;
    }
    if (job->IsOver() || IsSwitched(job->move.step)) {
        return CancelEnd::kTooLate;
    }
    AskJobToCancel(id);
    transaction.Commit();
    return CancelEnd::kDone;
}

void ForgetLostJobPasswords() {
    WriteTransaction transaction(Database());  // a job's row and its password appear under it
    for (const long long id : ListJobPasswords()) {
        const auto job = FindJob(id);
        if (!job || job->IsOver()) {
            ForgetJobPassword(id);
        }
    }
}

std::string RunMoveJob(long long id, const std::function<bool()>& shouldStop) {
    const auto job = Claim(id);
    if (!job) {
        return "";
    }
    const auto share = FindShareByToken(job->shareToken);
    if (!share) {
        GiveUp(*job);
        return "its share is gone";
    }
    return JobRun(*job, *share, shouldStop).Run();
}

}  // namespace korv
