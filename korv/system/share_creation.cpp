#include "korv/system/share_creation.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <system_error>

#include <sys/random.h>

#include "korv/system/database.h"
#include "korv/system/encrypted_share.h"
#include "korv/system/share_folder.h"
#include "korv/system/tree_remove.h"

namespace korv {

namespace {

CreationStep StepOf(FolderStep step) {
    switch (step) {
        case FolderStep::kMade:
            return CreationStep::kFolderMade;
        case FolderStep::kSecured:
            return CreationStep::kFolderSecured;
        case FolderStep::kMarked:
            break;
    }
    return CreationStep::kFolderMarked;
}

std::string NewToken() {
    constexpr std::size_t kTokenBytes = 16;
    std::array<std::uint8_t, kTokenBytes> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw std::system_error(errno, std::generic_category(), "no random bytes");
    }
    constexpr const char* kDigits = "0123456789abcdef";
    constexpr unsigned kBitsPerDigit = 4;
    constexpr unsigned kDigitMask = 0xF;
    std::string token;
    for (const std::uint8_t byte : bytes) {
        token += kDigits[byte >> kBitsPerDigit];
        token += kDigits[byte & kDigitMask];
    }
    return token;
}

long long Now_s() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::seconds>(now).count();
}

CreationEnd EndOf(const std::system_error& error) {
    switch (error.code().value()) {
        case ENOSPC:
        case EDQUOT:
            return CreationEnd::kNoSpace;
        case EROFS:
        case ENODEV:
        case ENOENT:
            return CreationEnd::kVolumeUnusable;
        default:
            return CreationEnd::kFailed;
    }
}

// A process makes one share at a time, so that a row of its own is one that it has given up.
bool IsAbandoned(const ProcessIdentity& maker) { return maker.pid == ThisProcess().pid || !IsRunning(maker); }

// The journal row is the claim on the name.
bool Claim(const ShareRow& share) {
    WriteTransaction transaction(Database());
    if (IsShareNameTaken(share.name)) {
        return false;
    }
    AddShareCreation({share, ThisProcess()});
    transaction.Commit();
    return true;
}

void Record(const ShareRow& share) {
    WriteTransaction transaction(Database());
    AddShare(share);
    DropShareCreation(share.token);
    transaction.Commit();
}

struct EncryptionFailure {
    CreationEnd end = CreationEnd::kFailed;
    std::string reason;
};

bool IsEncrypted(const ShareRow& share) { return share.encryption != ShareEncryption::kNone; }

void CheckCipher(CipherEnd end, const char* what) {
    switch (end) {
        case CipherEnd::kDone:
            return;
        case CipherEnd::kNoSpace:
            throw EncryptionFailure{CreationEnd::kNoSpace, what};
        case CipherEnd::kBadPassword:
        case CipherEnd::kToolMissing:
            throw EncryptionFailure{CreationEnd::kEncryptionRefused, what};
        default:
            throw EncryptionFailure{CreationEnd::kFailed, what};
    }
}

// Removes the encrypted files of a share that is not there yet, or no more.
void RemoveEncryption(int volume, const ShareRow& share) {
    if (!IsEncrypted(share)) {
        return;
    }
    const CipherFolder cipher = CipherOf(share);
    CipherEnd end = CipherEnd::kDone;
    while (end == CipherEnd::kDone) {
        end = cipher.Unmount(std::chrono::milliseconds(0), true);
    }
    const std::string path = cipher.CipherPath().substr(share.volPath.size() + 1);
    if (end != CipherEnd::kNotMounted || !RemoveTree(volume, path).isGone) {
        throw std::system_error(EBUSY, std::generic_category(), "cannot remove an encrypted folder");
    }
}

// Called with the write lock held, so that no two processes recover the same creation.
void FinishOrUndo(const ShareRow& share) {
    const FileDescriptor volume = OpenVolume(share.volPath);
    RemoveEncryption(volume.Get(), share);
    const bool isPublished = IsFolderOfToken(volume.Get(), share.name, share.token);
    if (isPublished && IsEncrypted(share)) {
        RemoveShareFolder(volume.Get(), share.name);
    } else if (isPublished) {
        AddShare(share);
    } else {
        RemoveStagedFolder(volume.Get(), share.token);
    }
    DropShareCreation(share.token);
}

// Takes back a creation that failed, since its caller is told so.
void Undo(int volume, const ShareRow& share) {
    WriteTransaction transaction(Database());
    RemoveEncryption(volume, share);
    RemoveStagedFolder(volume, share.token);
    if (IsFolderOfToken(volume, share.name, share.token)) {
        RemoveShareFolder(volume, share.name);
    }
    DropShareCreation(share.token);
    transaction.Commit();
}

// As Undo; what can't be undone now is left to a later recovery. Returns what went wrong.
std::string TryUndo(int volume, const ShareRow& share) {
    std::string trouble;
    try {
        Undo(volume, share);
        return trouble;
    } catch (const std::system_error& error) {
        trouble = error.what();
    } catch (const soci::soci_error& error) {
        trouble = error.get_error_message();
    }
    try {
        AbandonShareCreation(share.token);
    } catch (const soci::soci_error& error) {
        // The row stays this process's, whose next recovery counts it as given up.
        trouble += "; " + error.get_error_message();
    }
    return " (not undone yet: " + trouble + ")";
}

void Unlock(int volume, const ShareRow& share, const std::string& password) {
    CheckCipher(UnlockShare(share, password), "cannot mount an encrypted folder");
    SecureShareFolder(OpenShareFolder(volume, share.name).Get(), share.token);
}

CreationOutcome MakeFolderAndRecord(int volume, const ShareRow& share, const CreationObserver& observer,
                                    const std::string& password) {
    MakeStagedFolder(volume, share.token, share.isCow,
                     [&observer](FolderStep step) { observer(StepOf(step)); });
    if (IsEncrypted(share)) {
        CloseStagedFolder(volume, share.token);
        CheckCipher(CipherOf(share).Init(password), "cannot make an encrypted folder");
        observer(CreationStep::kEncrypted);
    }
    if (!PublishStagedFolder(volume, share.token, share.name)) {
        return {CreationEnd::kNameTaken, ""};
    }
    observer(CreationStep::kPublished);
    if (IsEncrypted(share)) {
        Unlock(volume, share, password);
        observer(CreationStep::kUnlocked);
    }
    Record(share);
    observer(CreationStep::kRecorded);
    return {CreationEnd::kCreated, ""};
}

// Runs a part of a creation; what goes wrong in it is its outcome.
template <class Part>
CreationOutcome Try(const Part& part) {
    try {
        return part();
    } catch (const EncryptionFailure& failure) {
        return {failure.end, failure.reason};
    } catch (const std::system_error& error) {
        return {EndOf(error), error.what()};
    } catch (const soci::soci_error& error) {
        const bool isFull = IsOutOfSpace(Database(), error);
        return {isFull ? CreationEnd::kNoSpace : CreationEnd::kFailed, error.get_error_message()};
    }
}

CreationOutcome CreateOnVolume(int volume, const ShareRow& share, const CreationObserver& observer,
                               const std::string& password) {
    if (!Claim(share)) {
        return {CreationEnd::kNameTaken, ""};
    }
    observer(CreationStep::kJournalled);
    CreationOutcome outcome = Try([&] { return MakeFolderAndRecord(volume, share, observer, password); });
    if (outcome.end != CreationEnd::kCreated) {
        outcome.reason += TryUndo(volume, share);
    }
    return outcome;
}

}  // namespace

CreationOutcome CreateShare(ShareRow wanted, const CreationObserver& observer, const std::string& password) {
    wanted.token = NewToken();
    wanted.created_s = Now_s();
    const CreationObserver notify = observer ? observer : [](CreationStep) {};
    return Try([&] {
        const FileDescriptor volume = OpenVolume(wanted.volPath);
        return CreateOnVolume(volume.Get(), wanted, notify, password);
    });
}

std::vector<std::string> RecoverShareCreations(const std::vector<std::string>& volumes) {
    std::vector<std::string> troubles;
    for (const ShareCreationRow& seen : ListShareCreations()) {
        if (!IsAbandoned(seen.maker)) {
            continue;
        }
        WriteTransaction transaction(Database());
        // Another process may have been faster.
        if (!FindShareCreation(seen.share.token)) {
            continue;
        }
        try {
            if (std::find(volumes.begin(), volumes.end(), seen.share.volPath) == volumes.end()) {
                DropShareCreation(seen.share.token);
            } else {
                FinishOrUndo(seen.share);
            }
            transaction.Commit();
        } catch (const std::system_error& error) {
            troubles.push_back("a creation on " + seen.share.volPath + " is kept for later: " + error.what());
        }
    }
    return troubles;
}

}  // namespace korv
