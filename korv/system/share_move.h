#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "korv/system/file_descriptor.h"
#include "korv/system/tree_sync.h"

// Moving all of a share into another kind of folder while people use it: copy, verify, catch up with what
// changed meanwhile, switch by rename, and only then remove the source. The state is saved before each step,
// and each step may be done again, so that a move whose process was killed goes on where it was.
namespace korv {

// Texts of states in a database: never renumber.
enum class MoveStep {
    kMeasure = 0,  // nothing was made yet
    kPrepare = 1,
    kCopy = 2,
    kVerify = 3,
    kCatchUp = 4,
    kSwitch = 5,
    kFollow = 6,  // people are at the target; what some still write into the source is carried over
    kRemoveSource = 7,
    kDone = 8,
    kUndo = 9,  // the target is being removed, for `reason`
    kUndone = 10,
    kSettle = 11,  // between kSwitch and kFollow: nobody is at the source nor at the target
};

// From the switch on there is no way back.
bool IsSwitched(MoveStep step);

enum class MoveEnd {
    kDone = 0,
    kCancelled = 1,
    kNoSpace = 2,      // before or while copying
    kMountInside = 3,  // something is mounted in the source
    kDiffers = 4,      // the target does not give back what was written
    kFailed = 5,
    // The move is not over and goes on when it is run again:
    kPaused = 6,      // asked to
    kSourceBusy = 7,  // someone keeps files of the source open, or moves its folders all the time
    kLocked = 8,      // the encrypted side has to be unlocked first
    kBlocked = 9,     // something of the old folder can't be removed; the move itself is complete
};

struct MoveState {
    MoveStep step = MoveStep::kMeasure;
    MoveEnd reason = MoveEnd::kDone;  // for kUndo and kUndone
    std::uint64_t total_bytes = 0;
    std::uint64_t copied_bytes = 0;
    std::uint64_t verified_bytes = 0;
    std::int64_t changedSince_s = 0;  // what changed since then was not looked at yet
    std::int64_t switched_s = 0;      // not later than the switch

    // 0 to 99 while it goes on, 100 when it is over.
    int Percent() const;
};

enum class MoveWish { kGoOn, kCancel, kPause };

// Thrown by places. `reason` is for the log.
struct MoveFailure {
    MoveEnd end = MoveEnd::kFailed;
    std::string reason;
};

// The two folders of a move. Every call may come again after a crash at any moment, and finds or makes what
// it promises. Failures are thrown as MoveFailure or std::system_error.
class MovePlaces {
public:
    virtual ~MovePlaces() = default;

    // The root of the data, wherever it is now; of the copy.
    virtual FileDescriptor OpenSource() = 0;
    virtual FileDescriptor OpenTarget() = 0;

    // What the target's file system can still take.
    virtual std::uint64_t FreeBytes() = 0;
    // Makes the target ready to be filled.
    virtual void PrepareTarget() = 0;
    // Sends everybody away from the source where the switch needs that.
    virtual void Detach() = 0;
    // After Detach has failed by kSourceBusy: whether somebody keeps the source who doesn't go when those are
    // disconnected who use it over the network.
    virtual bool IsUsedLocally() = 0;
    // Puts the target in the source's place.
    virtual void Switch() = 0;
    // Whether it has the source's place. Throws while that can't be told, as when the volume is away.
    virtual bool HasSwitched() = 0;
    // After the switch: whether people could change the source up to it, and don't use the target yet.
    virtual bool HasToSettle() = 0;
    // Lets people at the target. True when they weren't before.
    virtual bool Show() = 0;
    // After the switch: whether somebody can still make files in the source without its name: in a folder of
    // it that he works in, keeps open or has mounted elsewhere.
    virtual bool IsSourceHeld() = 0;
    // Brings what the target holds to the disk.
    virtual void Flush() = 0;
    // After the switch. True when nothing of it is left.
    virtual bool RemoveSource() = 0;
    // Before the switch: lets people at the source again and removes all that the move has made.
    virtual bool RemoveTarget() = 0;
};

struct MoveObserver {
    // Saves the state for good; what it throws leaves RunMove, and the move goes on from the state saved
    // last.
    std::function<void(const MoveState&)> save;
    // Asked some times a second; may be empty. A wish to cancel after the switch comes too late and is
    // ignored.
    std::function<MoveWish()> wish;
    // Disconnects those who use the share over the network; they connect anew by themselves. Called when only
    // they may keep the share from being detached, after the switch, and when it is shown; may be empty.
    std::function<void()> sendAway;
};

struct MoveLimits {
    std::chrono::milliseconds saveInterval{1000};
    // How long kFollow waits for those who still hold something of the source.
    std::chrono::milliseconds followPatience{std::chrono::minutes(10)};
    std::uint64_t spare_bytes = std::uint64_t{64} << 20;  // to be left free
};

// Whether the target may have the source's place already: a crash between the rename and saving it leaves the
// step before. Also true while that can't be told, so that nothing is undone then.
bool MayHaveSwitched(MoveStep step, MovePlaces& places);

// What a tree of that size takes of the target's file system, encrypted, with `spare_bytes` left free.
std::uint64_t NeededBytes(const TreeSize& size, std::uint64_t spare_bytes);

struct MoveResult {
    MoveEnd end = MoveEnd::kFailed;
    std::string reason;  // for the log
};

// Runs the move from `state` on to its end. Before the switch a cancellation or a failure undoes it: the
// source was only read. While a switch that was begun can't be looked at, the move stays there.
// Blocks for as long as it takes; becomes root for its own length.
MoveResult RunMove(MovePlaces& places, MoveState state, const MoveObserver& observer,
                   const MoveLimits& limits = {});

}  // namespace korv
