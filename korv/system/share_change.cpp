#include "korv/system/share_change.h"

#include <cerrno>
#include <system_error>

#include "korv/system/database.h"

namespace korv {

namespace {

ChangeEnd EndOf(const std::system_error& error) {
    switch (error.code().value()) {
        case ENOSPC:
        case EDQUOT:
            return ChangeEnd::kNoSpace;
        case EROFS:
        case ENODEV:
            return ChangeEnd::kVolumeUnusable;
        case EBUSY:
            return ChangeEnd::kBusy;
        default:
            return ChangeEnd::kFailed;
    }
}

}  // namespace

ChangeOutcome TryChange(const std::function<void()>& part) {
    try {
        part();
        return {ChangeEnd::kDone, ""};
    } catch (const ChangeFailure& failure) {
        return {failure.end, failure.reason};
    } catch (const std::system_error& error) {
        return {EndOf(error), error.what()};
    } catch (const soci::soci_error& error) {
        return {IsOutOfSpace(Database(), error) ? ChangeEnd::kNoSpace : ChangeEnd::kFailed,
                error.get_error_message()};
    }
}

bool IsGivenUp(const ProcessIdentity& maker) { return IsThisProcess(maker) || !IsRunning(maker); }

}  // namespace korv
