#include "korv/system/encrypted_share.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <system_error>

#include <sys/mount.h>
#include <sys/stat.h>

#include "include/run_as_scope.h"
#include "korv/system/share_change.h"
#include "korv/system/share_folder.h"

namespace korv {

namespace {

constexpr std::chrono::seconds kBusyPatience(3);
constexpr int kMostMounts = 8;
constexpr mode_t kPrivateMode = S_IRWXU;

void Check(bool isRight, const char* what) {
    if (!isRight) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

// The same place that a move of the share uses for the same purpose; the two never go on at once.
std::string ViewOf(const ShareRow& share) { return share.volPath + "/.korv/view/" + share.token; }

CipherFolder CipherAtView(const ShareRow& share) {
    return {CipherFolder::PathFor(share.volPath, share.token), ViewOf(share)};
}

void MakeView(const ShareRow& share) {
    for (const std::string& path : {share.volPath + "/.korv", share.volPath + "/.korv/view", ViewOf(share)}) {
        Check(mkdir(path.c_str(), kPrivateMode) == 0 || errno == EEXIST, "cannot make a folder");
    }
}

void ClearView(const ShareRow& share) {
    CipherEnd end = CipherEnd::kDone;
    for (int i = 0; i < kMostMounts && end == CipherEnd::kDone; ++i) {
        end = CipherAtView(share).Unmount(kBusyPatience, true);
    }
    Check(end == CipherEnd::kNotMounted, "cannot unmount a hidden folder");
    rmdir(ViewOf(share).c_str());
}

void ClearBroken(const CipherFolder& cipher) {
    for (int i = 0; i < kMostMounts && cipher.State() == CipherState::kBroken; ++i) {
        cipher.Unmount(std::chrono::milliseconds(0), true);
    }
}

void Bind(const std::string& from, const std::string& at) {
    Check(mount(from.c_str(), at.c_str(), nullptr, MS_BIND, nullptr) == 0, "cannot mount a folder");
}

}  // namespace

CipherFolder CipherOf(const ShareRow& share) {
    return {CipherFolder::PathFor(share.volPath, share.token), share.Path()};
}

ShareEncryption EncryptionOf(const ShareRow& share) {
    if (share.encryption == ShareEncryption::kNone) {
        return ShareEncryption::kNone;
    }
    return CipherOf(share).State() == CipherState::kUnlocked ? ShareEncryption::kUnlocked
                                                             : ShareEncryption::kLocked;
}

CipherEnd UnlockShare(const ShareRow& share, const std::string& password) {
    const CipherFolder cipher = CipherOf(share);
    ClearBroken(cipher);
    const CipherEnd end = cipher.Mount(password);
    return end == CipherEnd::kMounted ? CipherEnd::kDone : end;
}

CipherEnd LockShare(const ShareRow& share) {
    const CipherFolder cipher = CipherOf(share);
    ClearBroken(cipher);
    const CipherEnd end = cipher.Unmount(kBusyPatience, false);
    return end == CipherEnd::kNotMounted ? CipherEnd::kDone : end;
}

bool TakeMountAside(const ShareRow& share) {
    const RunAsScope root = IF_RUN_AS;
    if (share.encryption == ShareEncryption::kNone) {
        return false;
    }
    const CipherFolder cipher = CipherOf(share);
    ClearBroken(cipher);
    if (cipher.State() != CipherState::kUnlocked) {
        return false;
    }
    MakeView(share);
    ClearView(share);
    MakeView(share);
    Bind(share.Path(), ViewOf(share));
    const CipherEnd end = cipher.Unmount(kBusyPatience, false);
    if (end != CipherEnd::kDone) {
        ClearView(share);
        throw ChangeFailure{end == CipherEnd::kBusy ? ChangeEnd::kBusy : ChangeEnd::kFailed,
                            "the plain files are in use"};
    }
    return true;
}

void PutMountBack(const ShareRow& share) {
    const RunAsScope root = IF_RUN_AS;
    if (share.encryption == ShareEncryption::kNone) {
        return;
    }
    if (CipherAtView(share).State() == CipherState::kUnlocked &&
        CipherOf(share).State() != CipherState::kUnlocked) {
        Bind(ViewOf(share), share.Path());
    }
    ClearView(share);
}

}  // namespace korv
