#include "korv/system/share_move.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <optional>
#include <system_error>
#include <thread>

#include "include/run_as_scope.h"

namespace korv {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kMostCatchUps = 5;
constexpr int kMostRepeats = 3;
constexpr std::uint64_t kSmallCatchUp_bytes = std::uint64_t{64} << 20;
constexpr std::chrono::milliseconds kShortestFollowPause(500);
constexpr std::chrono::milliseconds kLongestFollowPause(30'000);
constexpr int kFollowPasses = 5;  // a pass every so many times of its length
constexpr std::int64_t kClockSlack_s = 2;
// What encryption adds: 32 bytes to each 4 KiB, and up to two blocks to each entry.
constexpr std::uint64_t kContentPerExtra = 100;
constexpr std::uint64_t kEntryExtra_bytes = 8192;

struct Wished {
    MoveWish wish = MoveWish::kGoOn;
};

MoveFailure Explain(const CopyError& error) {
    MoveFailure failure;
    failure.reason = std::string("cannot ") + error.action + " of the " +
                     (error.where == CopyError::Where::kSource ? "source: " : "target: ") +
                     std::generic_category().message(error.error);
    if (error.where == CopyError::Where::kTarget && (error.error == ENOSPC || error.error == EDQUOT)) {
        failure.end = MoveEnd::kNoSpace;
    } else if (error.where == CopyError::Where::kSource && error.error == EXDEV) {
        failure.end = MoveEnd::kMountInside;
    } else if (error.where == CopyError::Where::kTarget && error.error == EIO) {
        failure.end = MoveEnd::kDiffers;
    }
    return failure;
}

bool IsOver(MoveStep step) { return step == MoveStep::kDone || step == MoveStep::kUndone; }

bool CanBeUndone(MoveStep step) { return step < MoveStep::kFollow; }

void WaitAfter(Clock::duration pass) {
    std::this_thread::sleep_for(
        std::clamp<Clock::duration>(pass * kFollowPasses, kShortestFollowPause, kLongestFollowPause));
}

class Mover {
public:
    Mover(MovePlaces& places, MoveState state, const MoveObserver& observer, const MoveLimits& limits)
        : m_places(places), m_state(state), m_observer(observer), m_limits(limits) {}

    MoveResult Run() {
        while (!IsOver(m_state.step)) {
            MoveFailure failure;
            try {
                DoStep();
                continue;
            } catch (const Wished& wished) {
                failure.end = wished.wish == MoveWish::kCancel ? MoveEnd::kCancelled : MoveEnd::kPaused;
            } catch (const CopyError& error) {
                failure = Explain(error);
            } catch (const MoveFailure& thrown) {
                failure = thrown;
            } catch (const std::system_error& error) {
                if (m_isSaving) {
                    throw;
                }
                failure.reason = error.what();
                failure.end = error.code().value() == ENOSPC || error.code().value() == EDQUOT
                                  ? MoveEnd::kNoSpace
                                  : MoveEnd::kFailed;
            }
            m_reason = failure.reason.empty() ? m_reason : failure.reason;
            if (!BeginUndo(failure.end)) {
                return {failure.end, Reason()};
            }
        }
        return {m_state.step == MoveStep::kDone ? MoveEnd::kDone : m_state.reason, Reason()};
    }

private:
    std::string Reason() const {
        return m_reason + (m_reason.empty() || m_note.empty() ? "" : "; ") + m_note;
    }

    // False when the move has to stay as it is.
    bool BeginUndo(MoveEnd end) {
        const bool mayGoOnLater =
            end == MoveEnd::kPaused || end == MoveEnd::kSourceBusy || end == MoveEnd::kLocked;
        if (mayGoOnLater || !CanBeUndone(m_state.step) || MayHaveSwitched(m_state.step, m_places)) {
            return false;
        }
        m_state.reason = end;
        GoTo(MoveStep::kUndo);
        return true;
    }

    void DoStep() {
        switch (m_state.step) {
            case MoveStep::kMeasure:
                return Measure();
            case MoveStep::kPrepare:
                m_places.PrepareTarget();
                return GoTo(MoveStep::kCopy);
            case MoveStep::kCopy:
                return Copy();
            case MoveStep::kVerify:
                return Verify();
            case MoveStep::kCatchUp:
                return CatchUp();
            case MoveStep::kSwitch:
                return Switch();
            case MoveStep::kSettle:
                return Settle();
            case MoveStep::kFollow:
                return Follow();
            case MoveStep::kRemoveSource:
                return RemoveOld(m_places.RemoveSource(), MoveStep::kDone);
            case MoveStep::kUndo:
                return RemoveOld(m_places.RemoveTarget(), MoveStep::kUndone);
            case MoveStep::kDone:
            case MoveStep::kUndone:
                return;
        }
    }

    void Measure() {
        const TreeSize size =
            Repeat([&] { return MeasureTree(m_places.OpenSource().Get(), Observe(nullptr)); });
        const std::uint64_t needed_bytes = NeededBytes(size, m_limits.spare_bytes);
        if (m_places.FreeBytes() < needed_bytes) {
            throw MoveFailure{MoveEnd::kNoSpace, "the copy needs " + std::to_string(needed_bytes) + " bytes"};
        }
        m_state.total_bytes = size.content_bytes;
        GoTo(MoveStep::kPrepare);
    }

    void Copy() {
        Sync(SyncMode::kCopy, &m_state.copied_bytes);
        m_places.Flush();
        GoTo(MoveStep::kVerify);
    }

    void Verify() {
        const std::int64_t start_s = Now();
        Sync(SyncMode::kVerify, &m_state.verified_bytes);
        SetChangedSince(start_s);
        GoTo(MoveStep::kCatchUp);
    }

    void CatchUp() {
        std::uint64_t copied_bytes = 0;
        int passes = 0;
        do {
            copied_bytes = CatchUpOnce();
        } while (copied_bytes > kSmallCatchUp_bytes && ++passes < kMostCatchUps);
        GoTo(MoveStep::kSwitch);
    }

    std::uint64_t CatchUpOnce() {
        const std::int64_t start_s = Now();
        const SyncCounts counts = Sync(SyncMode::kCatchUp);
        SetChangedSince(start_s);
        Save();
        return counts.copied_bytes;
    }

    // What an earlier pass has copied isn't looked at any more, so that it must be on the disk by then.
    void SetChangedSince(std::int64_t start_s) {
        m_places.Flush();
        m_state.changedSince_s = start_s;
        m_clock = ClockOffset();
    }

    void Switch() {
        if (!m_places.HasSwitched()) {
            Detach();
            CatchUpOnce();
            m_state.switched_s = time(nullptr);
            Save();
        }
        m_places.Switch();
        SendAway();
        GoTo(MoveStep::kSettle);
    }

    // Those who use the share over the network hold it, too, and come back by themselves.
    void Detach() {
        try {
            m_places.Detach();
        } catch (const MoveFailure& failure) {
            if (failure.end != MoveEnd::kSourceBusy || m_places.IsUsedLocally()) {
                throw;
            }
            SendAway();
            m_places.Detach();
        }
    }

    // People worked on during the last pass, and could rename behind its back.
    void Settle() {
        if (!m_places.HasSwitched()) {
            return GoTo(MoveStep::kSwitch);  // a power failure has taken the exchange back
        }
        if (m_places.HasToSettle()) {
            m_state.switched_s = time(nullptr);
            Sync(SyncMode::kSettle);
            m_places.Flush();
        } else {
            m_state.switched_s = std::min(m_state.switched_s, m_state.changedSince_s);
        }
        GoTo(MoveStep::kFollow);
    }

    void Follow() {
        const Clock::time_point end = Clock::now() + m_limits.followPatience;
        if (m_places.Show()) {
            SendAway();
        }
        WrittenFiles written;
        while (true) {
            const Clock::time_point start = Clock::now();
            const std::int64_t start_s = time(nullptr);
            const bool isHeld =
                m_places.IsSourceHeld();  // before the pass, which sees what was made till then
            const SyncCounts counts = Sync(SyncMode::kFollow, nullptr, &written);
            NoteBeside(counts);
            written.isKnown = true;
            SetChangedSince(start_s);
            m_state.switched_s = start_s;
            if (counts.beingWritten == 0 && !isHeld) {
                return GoTo(MoveStep::kRemoveSource);
            }
            Save();
            if (Clock::now() >= end) {
                throw MoveFailure{MoveEnd::kSourceBusy, "the old folder is still in use"};
            }
            Observe(nullptr)(0);
            WaitAfter(Clock::now() - start);
        }
    }

    void NoteBeside(const SyncCounts& counts) {
        if (counts.carriedBeside > 0) {
            m_note = "what was written into the old folder stands beside entries of another kind, as *.old-*";
        }
    }

    void SendAway() {
        if (m_observer.sendAway) {
            m_observer.sendAway();
        }
    }

    void RemoveOld(bool isGone, MoveStep next) {
        if (!isGone) {
            throw MoveFailure{MoveEnd::kBlocked, "something of the old folder can't be removed"};
        }
        GoTo(next);
    }

    SyncCounts Sync(SyncMode mode, std::uint64_t* progress = nullptr, WrittenFiles* written = nullptr) {
        return Repeat([&] {
            if (progress != nullptr) {
                *progress = 0;
            }
            const FileDescriptor source = m_places.OpenSource();
            const FileDescriptor target = m_places.OpenTarget();
            FollowClock();
            return SyncTree(source.Get(), target.Get(), mode, {m_state.changedSince_s, m_state.switched_s},
                            Observe(progress), written);
        });
    }

    // A pass finds no way up from a deep folder that somebody has moved meanwhile. As after a crash it is
    // made once more, by the same times.
    template <class Pass>
    auto Repeat(const Pass& pass) -> decltype(pass()) {
        for (int passes = 1;; ++passes) {
            try {
                return pass();
            } catch (const CopyError& error) {
                const bool isPeoples = error.where == CopyError::Where::kSource || IsSwitched(m_state.step);
                if (error.error != ESTALE || !isPeoples) {
                    throw;
                }
                if (passes == kMostRepeats) {
                    throw MoveFailure{MoveEnd::kSourceBusy, "folders are moved again and again"};
                }
            }
        }
    }

    // The real time less the time since the machine was started: smaller after the clock was set back.
    static std::chrono::nanoseconds ClockOffset() {
        const auto read = [](clockid_t clock) {
            timespec time{};
            clock_gettime(clock, &time);
            return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
        };
        return read(CLOCK_REALTIME) - read(CLOCK_BOOTTIME);
    }

    // After the clock was set back, changes have earlier times than they would have had. The times that
    // passes go by are saved before one goes by them: a pass that is cut short must be repeated by the same.
    // What an earlier process saved can only be seen to be later than now.
    void FollowClock() {
        const auto setBack = m_clock ? *m_clock - ClockOffset() : std::chrono::nanoseconds(0);
        const bool isSetBack = setBack > kClockJitter;
        const bool isAhead = m_state.changedSince_s > time(nullptr);
        if (!isSetBack && !isAhead) {
            return;
        }
        const std::int64_t by_s = std::chrono::ceil<std::chrono::seconds>(setBack).count();
        m_state.changedSince_s = isAhead ? 0 : m_state.changedSince_s - by_s;
        m_state.switched_s = isAhead ? 0 : m_state.switched_s - by_s;
        m_clock = ClockOffset();
        Save();
    }

    // Adds to `progress`, asks for wishes and saves now and then.
    CopyObserver Observe(std::uint64_t* progress) {
        return [this, progress](std::uint64_t bytes) {
            if (progress != nullptr) {
                *progress += bytes;
            }
            const Clock::time_point now = Clock::now();
            if (now < m_nextQuestion) {
                return;
            }
            m_nextQuestion = now + kBetweenQuestions;
            const MoveWish wish = m_observer.wish ? m_observer.wish() : MoveWish::kGoOn;
            if (wish == MoveWish::kPause || (wish == MoveWish::kCancel && CanBeUndone(m_state.step))) {
                throw Wished{wish};
            }
            if (progress != nullptr && now >= m_nextSave) {
                Save();
            }
        };
    }

    void GoTo(MoveStep step) {
        m_state.step = step;
        Save();
    }

    void Save() {
        m_nextSave = Clock::now() + m_limits.saveInterval;
        m_isSaving = true;
        m_observer.save(m_state);
        m_isSaving = false;
    }

    static std::int64_t Now() { return time(nullptr) - kClockSlack_s; }

    static constexpr std::chrono::milliseconds kBetweenQuestions{20};
    static constexpr std::chrono::milliseconds kClockJitter{500};  // this process may wait between two looks

    MovePlaces& m_places;
    MoveState m_state;
    const MoveObserver& m_observer;
    const MoveLimits& m_limits;
    std::string m_reason;
    std::string m_note;                               // what people should know, whatever becomes of the move
    std::optional<std::chrono::nanoseconds> m_clock;  // ClockOffset() when changedSince_s was set
    bool m_isSaving = false;
    Clock::time_point m_nextQuestion{};
    Clock::time_point m_nextSave{};
};

}  // namespace

bool IsSwitched(MoveStep step) {
    return step == MoveStep::kSettle || (step >= MoveStep::kFollow && step <= MoveStep::kDone);
}

bool MayHaveSwitched(MoveStep step, MovePlaces& places) {
    try {
        return IsSwitched(step) || (step == MoveStep::kSwitch && places.HasSwitched());
    } catch (const std::system_error&) {
        return true;
    }
}

int MoveState::Percent() const {
    constexpr std::uint64_t kAll = 100;
    constexpr std::uint64_t kNearly = 99;
    if (IsOver(step)) {
        return static_cast<int>(kAll);
    }
    // Sources grow while they are copied.
    const std::uint64_t done_bytes =
        std::min(copied_bytes, total_bytes) + std::min(verified_bytes, total_bytes);
    if (step > MoveStep::kVerify && step != MoveStep::kUndo) {
        return static_cast<int>(kNearly);
    }
    return total_bytes == 0 ? 0
                            : static_cast<int>(std::min(done_bytes * kNearly / (2 * total_bytes), kNearly));
}

std::uint64_t NeededBytes(const TreeSize& size, std::uint64_t spare_bytes) {
    return size.content_bytes + size.content_bytes / kContentPerExtra + size.entries * kEntryExtra_bytes +
           spare_bytes;
}

MoveResult RunMove(MovePlaces& places, MoveState state, const MoveObserver& observer,
                   const MoveLimits& limits) {
    const RunAsScope root = IF_RUN_AS;
    if (!root) {
        return {MoveEnd::kPaused, "cannot become root"};
    }
    return Mover(places, state, observer, limits).Run();
}

}  // namespace korv
