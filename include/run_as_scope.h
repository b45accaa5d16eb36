#pragma once

#include <syslog.h>
#include <unistd.h>

#include <sys/types.h>

// Runs the code of one scope with effective uid 0 and gid 0 and gives the ids back when the scope is left, by
// an exception too. Needs saved uid 0. The ids are those of the whole process: open it only on the request's
// own thread, for short stretches.
//
//     RunAsScope root = IF_RUN_AS;
//     if (!root) { ... the ids could not be switched ... }
class RunAsScope {
public:
    // `file` and `line` stand in the messages that a failed switch leaves in the system's authentication log.
    RunAsScope(const char* file, int line) noexcept
        : m_file(file), m_line(line), m_savedUid(geteuid()), m_savedGid(getegid()) {
        m_ok = (m_savedUid == kRootUid && m_savedGid == kRootGid) || SwitchToRoot();
        if (!m_ok) {
            syslog(LOG_AUTH | LOG_ERR, "%s:%d ERROR: %s(%d, %d)", m_file, m_line, kName, 0, 0);
        }
    }

    ~RunAsScope() {
        if (!SwitchBack()) {
            syslog(LOG_AUTH | LOG_CRIT, "%s:%d ERROR: ~%s(%d, %d)", m_file, m_line, kName,
                   static_cast<int>(m_savedUid), static_cast<int>(m_savedGid));
        }
    }

    RunAsScope(const RunAsScope&) = delete;
    RunAsScope& operator=(const RunAsScope&) = delete;

    // False when switching to root failed.
    explicit operator bool() const noexcept { return m_ok; }

private:
    static constexpr const char* kName = "IF_RUN_AS";
    static constexpr uid_t kRootUid = 0;
    static constexpr gid_t kRootGid = 0;
    static constexpr uid_t kKeepUid = static_cast<uid_t>(-1);
    static constexpr gid_t kKeepGid = static_cast<gid_t>(-1);

    static bool SetEffectiveUid(uid_t uid) noexcept { return setresuid(kKeepUid, uid, kKeepUid) == 0; }
    static bool SetEffectiveGid(gid_t gid) noexcept { return setresgid(kKeepGid, gid, kKeepGid) == 0; }

    // The uid goes first, since only root may change the gid; it is set once more after the gid.
    [[nodiscard]] bool SwitchToRoot() const noexcept {
        return (m_savedUid == kRootUid || SetEffectiveUid(kRootUid)) && SetEffectiveGid(kRootGid) &&
               SetEffectiveUid(kRootUid);
    }

    // Every step is tried even when one before it failed: a gid that stays must not keep the process at uid
    // 0.
    [[nodiscard]] bool SwitchBack() const noexcept {
        const uid_t uid = geteuid();
        const gid_t gid = getegid();
        bool ok = true;
        if (uid == m_savedUid && gid == m_savedGid) {
            return ok;
        }
        if (uid != kRootUid && uid != m_savedUid) {
            ok = SetEffectiveUid(kRootUid) && ok;
        }
        if (gid != m_savedGid && m_savedGid != kKeepGid) {
            ok = SetEffectiveGid(m_savedGid) && ok;
        }
        if (uid != m_savedUid && m_savedUid != kKeepUid) {
            ok = SetEffectiveUid(m_savedUid) && ok;
        }
        return ok;
    }

    const char* m_file;
    int m_line;
    uid_t m_savedUid;
    gid_t m_savedGid;
    bool m_ok = false;
};

#define IF_RUN_AS RunAsScope(__FILE_NAME__, __LINE__)
