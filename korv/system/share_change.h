#pragma once

#include <exception>
#include <functional>
#include <string>
#include <vector>

#include "korv/system/process_identity.h"

namespace korv {

// How a change of a share ended. Texts of a database: never renumber.
enum class ChangeEnd : int {
    kDone,
    kNameTaken,
    kBusy,               // files of it are open, something is mounted in it, or another change is under way
    kEncryptionRefused,  // a bad password, a locked share, or this machine can't encrypt
    kVolumeUnusable,
    kNoSpace,
    kFailed,
};

struct ChangeOutcome {
    ChangeEnd end = ChangeEnd::kFailed;
    std::string reason;  // for the log; empty when nothing went wrong
};

// What a recovery has done.
struct Recovery {
    bool hasChangedShares = false;
    std::vector<std::string> troubles;  // what could not be done, for the log
};

// Thrown by parts of a change.
struct ChangeFailure {
    ChangeEnd end = ChangeEnd::kFailed;
    std::string reason;
};

// Runs a part of a change; what goes wrong in it, as std::system_error, soci::soci_error or ChangeFailure, is
// its outcome.
ChangeOutcome TryChange(const std::function<void()>& part);

// True when nobody works any more on what `maker` has written into a journal. A process makes one change at a
// time, so that a row of its own is one that it has given up.
bool IsGivenUp(const ProcessIdentity& maker);

}  // namespace korv
