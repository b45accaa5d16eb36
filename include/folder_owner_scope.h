#pragma once

#include <unistd.h>

#include <cerrno>
#include <exception>
#include <string>
#include <system_error>

#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/types.h>

// Where this process is root, runs the code of one scope with the effective ids of a folder's owner, so that
// what it makes there is the owner's from the first moment on: a file that is given away afterwards shuts the
// owner's other processes out meanwhile, and for good when its maker is killed in between. Does nothing for
// others, and for a folder of root's. The ids are those of the whole process: for short stretches, as
// RunAsScope. Throws std::system_error when the ids can't be switched.
class FolderOwnerScope {
public:
    explicit FolderOwnerScope(const std::string& folder) : m_rootsGroup(getegid()) {
        struct stat status {};
        if (geteuid() != 0 || stat(folder.c_str(), &status) != 0 || status.st_uid == 0) {
            return;
        }
        prctl(PR_GET_PDEATHSIG, &m_signalOfParentsDeath);
        m_isSwitched = setresgid(kKeepGid, status.st_gid, kKeepGid) == 0;
        if (!m_isSwitched || setresuid(kKeepUid, status.st_uid, kKeepUid) != 0) {
            const int error = errno;
            SwitchBack();
            throw std::system_error(error, std::generic_category(), "cannot become a folder's owner");
        }
    }

    ~FolderOwnerScope() { SwitchBack(); }

    FolderOwnerScope(const FolderOwnerScope&) = delete;
    FolderOwnerScope& operator=(const FolderOwnerScope&) = delete;

private:
    static constexpr uid_t kKeepUid = static_cast<uid_t>(-1);
    static constexpr gid_t kKeepGid = static_cast<gid_t>(-1);

    // With other ids than root's nothing would work any more that this process is for.
    void SwitchBack() noexcept {
        if (!m_isSwitched) {
            return;
        }
        if (setresuid(kKeepUid, 0, kKeepUid) != 0 || setresgid(kKeepGid, m_rootsGroup, kKeepGid) != 0) {
            std::terminate();
        }
        prctl(PR_SET_PDEATHSIG, m_signalOfParentsDeath);  // the kernel forgets it when ids change
        m_isSwitched = false;
    }

    gid_t m_rootsGroup;
    int m_signalOfParentsDeath = 0;
    bool m_isSwitched = false;
};
