#include "pavane/recorder/rotation_job.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <exception>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>

#include <sys/file.h>

#include "platform/korv/configuration.h"
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
constexpr const char* kUnderWay = "rotation_under_way";
constexpr const char* kNobody = "SYSTEM";
constexpr std::chrono::minutes kPause(5);
constexpr std::chrono::seconds kLongestRun(10);
constexpr int kLeastLimitGB = 1;
constexpr std::uint64_t kBytesPerGb = std::uint64_t{1024} * 1024 * 1024;
constexpr std::uint64_t kBytesPerMb = std::uint64_t{1024} * 1024;

// Held while rotations run: two of one share would remove too much. Other processes' accounts can't reach it.
class Turn {
public:
    Turn() {
        constexpr mode_t kMode = 0600;
        const std::string path = KORV::GetConfiguration().stateDir + "/rotation.lock";
        m_file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kMode);
        if (m_file < 0) {
            throw std::system_error(errno, std::generic_category(), "cannot open the lock of rotations");
        }
        m_isTaken = flock(m_file, LOCK_EX | LOCK_NB) == 0;
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn() { close(m_file); }
    // False while another process rotates.
    explicit operator bool() const { return m_isTaken; }

private:
    int m_file = -1;
    bool m_isTaken = false;
};

std::string TimeText(std::int64_t time_s) {
    std::array<char, sizeof "2026-01-01 00:00:00 UTC"> text{};
    const time_t moment = time_s;
    tm fields{};
    gmtime_r(&moment, &fields);
    strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &fields);
    return text.data();
}

// Noted before the first removal and forgotten after the event: what a process removed that died meanwhile
// would else stand nowhere.
void NoteUnderWay(const RecShare& share) {
    SetSetting(kUnderWay, std::to_string(share.GetId()) + " " + TimeText(time(nullptr)));
}

void ReportCut(const std::list<RecShare>& shares) {
    std::istringstream note(GetSetting(kUnderWay, ""));
    int id = 0;
    std::string begin;
    if (!(note >> id >> std::ws) || !std::getline(note, begin)) {
        return;
    }
    const auto share =
        std::find_if(shares.begin(), shares.end(), [id](const RecShare& each) { return each.GetId() == id; });
    PVLog(PV_LOG_REC_SHARE_ROTATION_CUT, kNobody, id,
          {share == shares.end() ? "#" + std::to_string(id) : share->GetName(), begin}, 0);
    SetSetting(kUnderWay, "");
}

// Says so when a rotation has removed for long enough. Its clock starts with the first removal: the walk
// before takes its time too, and a rotation that never came to removing would never get done.
std::function<bool()> LongEnough(const RecShare& share, bool& isNoted) {
    return [&share, &isNoted, end = std::optional<Clock::time_point>()]() mutable {
        if (!end.has_value()) {
            NoteUnderWay(share);
            isNoted = true;
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
               std::to_string(result.removed_bytes / kBytesPerMb), TimeText(result.oldest_s),
               TimeText(result.newest_s)},
              0);
    }
    const auto inUse = static_cast<unsigned long long>(result.inUse);
    const auto failed = static_cast<unsigned long long>(result.failed);
    if (result.end == RotationEnd::kNothingLeft) {
        PV_LOG_LINE(kSource, "Share %d stays above its limit: %llu recordings in use, %llu not removable\n",
                    share.GetId(), inUse, failed);
    } else if (failed > 0) {
        PV_LOG_LINE(kSource, "Share %d has %llu recordings that can't be counted or removed\n", share.GetId(),
                    failed);
    }
}

// All shares, those first that come after the last one that was rotated: a share that takes long must not
// keep the others waiting for ever.
std::list<RecShare> SharesInTurn(std::list<RecShare> shares, int lastId) {
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
    const Turn turn;
    if (!turn) {
        return;
    }
    const std::list<RecShare> shares = LoadRecShareFromDB(0);
    ReportCut(shares);
    auto& due = DueTimes();
    if (TakeRequest()) {
        due.clear();
    }
    const Clock::time_point end = Clock::now() + kLongestRun;
    static int lastId = 0;
    for (const RecShare& share : SharesInTurn(shares, lastId)) {
        if (!HasLimit(share) || due[share.GetId()] > Clock::now()) {
            continue;
        }
        const std::uint64_t limit_bytes = static_cast<std::uint64_t>(share.GetRecLimitGB()) * kBytesPerGb;
        RotationOptions options;
        bool isNoted = false;
        options.shouldStop = LongEnough(share, isNoted);
        const RotationResult result = RotateShare(share.GetPath(), limit_bytes, options);
        Report(share, result);
        if (isNoted) {
            SetSetting(kUnderWay, "");
        }
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
