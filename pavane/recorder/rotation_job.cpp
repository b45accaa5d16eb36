#include "pavane/recorder/rotation_job.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>

#include "platform/pavane/archive.h"
#include "platform/pavane/events.h"
#include "platform/pavane/rec_share.h"

#include "pavane/log_line.h"
#include "pavane/recorder/rotation.h"
#include "pavane/store/database.h"
#include "pavane/store/settings_table.h"

namespace pavane {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kSource = "pavane/recorder/rotation_job";
constexpr const char* kAsked = "rotation_asked";
constexpr const char* kNobody = "SYSTEM";
constexpr std::chrono::minutes kPause(5);
constexpr std::chrono::seconds kLongestRun(10);
constexpr int kLeastLimitGB = 1;
constexpr std::uint64_t kBytesPerGb = std::uint64_t{1024} * 1024 * 1024;
constexpr std::uint64_t kBytesPerMb = std::uint64_t{1024} * 1024;

// Says so when a rotation has removed for long enough. Its clock starts with the first removal: the walk
// before takes its time too, and a rotation that never came to removing would never get done.
std::function<bool()> LongEnough() {
    return [end = std::optional<Clock::time_point>()]() mutable {
        if (!end.has_value()) {
            end = Clock::now() + kLongestRun;
        }
        return Clock::now() > *end;
    };
}

// When each share, by id, is due again in this process; a share that isn't there is due.
std::map<int, Clock::time_point>& DueTimes() {
    static std::map<int, Clock::time_point> due;
    return due;
}

// A limit that would leave nothing at all is none.
bool HasLimit(const RecShare& share) {
    return share.GetOwnerRvId() == 0 && share.IsEnableRecLimit() && share.GetRecLimitGB() >= kLeastLimitGB;
}

void Report(const RecShare& share, const RotationResult& result) {
    if (result.removedFiles > 0) {
        PVLog(PV_LOG_REC_SHARE_ROTATED, kNobody, share.GetId(),
              {share.GetName(), std::to_string(result.removedFiles),
               std::to_string(result.removed_bytes / kBytesPerMb)},
              0);
    }
    if (result.failed > 0 || result.end == RotationEnd::kNothingLeft) {
        PV_LOG_LINE(kSource, "Share %d stays above its limit: %llu recordings in use, %llu not removable\n",
                    share.GetId(), static_cast<unsigned long long>(result.inUse),
                    static_cast<unsigned long long>(result.failed));
    }
}

// All shares, those first that come after the last one that was rotated: a share that takes long must not
// keep the others waiting for ever.
std::list<RecShare> SharesInTurn(int lastId) {
    std::list<RecShare> shares = LoadRecShareFromDB(0);
    const auto next = std::find_if(shares.begin(), shares.end(),
                                   [lastId](const RecShare& share) { return share.GetId() > lastId; });
    shares.splice(shares.end(), shares, shares.begin(), next);
    return shares;
}

// A request is taken before the work, so that one that comes meanwhile is served by the next run.
bool TakeRequest() {
    const bool isAsked = GetSetting(kAsked, "") == "1";
    if (isAsked) {
        SetSetting(kAsked, "");
    }
    return isAsked;
}

}  // namespace

void RotateDueShares() {
    auto& due = DueTimes();
    if (TakeRequest()) {
        due.clear();
    }
    const Clock::time_point end = Clock::now() + kLongestRun;
    static int lastId = 0;
    for (const RecShare& share : SharesInTurn(lastId)) {
        if (!HasLimit(share) || due[share.GetId()] > Clock::now()) {
            continue;
        }
        const std::uint64_t limit_bytes = static_cast<std::uint64_t>(share.GetRecLimitGB()) * kBytesPerGb;
        RotationOptions options;
        options.shouldStop = LongEnough();
        const RotationResult result = RotateShare(share.GetPath(), limit_bytes, options);
        Report(share, result);
        lastId = share.GetId();
        if (result.end != RotationEnd::kStopped) {  // one that was stopped stays due
            due[share.GetId()] = Clock::now() + kPause;
        }
        if (Clock::now() > end) {
            return;  // the shares that are left stay due
        }
    }
}

}  // namespace pavane

void PvRotateApi::StartRotate(int rvId) {
    if (rvId != 0) {
        return;  // a recording server rotates its own shares
    }
    try {
        pavane::SetSetting(pavane::kAsked, "1");
    } catch (const std::exception& failure) {
        PV_LOG_LINE(pavane::kSource, "Failed to ask for a rotation: %s\n",
                    pavane::DescribeFailure(failure).c_str());
    }
}
