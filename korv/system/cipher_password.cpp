#include "korv/system/cipher_password.h"

#include <chrono>
#include <filesystem>
#include <system_error>

#include "platform/korv/configuration.h"

#include "include/run_as_scope.h"
#include "korv/system/clear_mount_point.h"
#include "korv/system/lock_file.h"

namespace korv {

namespace {

constexpr const char* kLocks = "key-locks";
constexpr std::chrono::seconds kPatience(30);

std::string ProofsFolder() { return KORV::GetConfiguration().runDir + "/key-proofs"; }

bool MakePlace(const std::string& place) {
    const RunAsScope root = IF_RUN_AS;
    std::error_code failed;
    std::filesystem::create_directories(ProofsFolder(), failed);
    if (!failed) {
        std::filesystem::permissions(ProofsFolder(), std::filesystem::perms::owner_all, failed);
    }
    if (!failed) {
        std::filesystem::create_directory(place, failed);
    }
    return !failed;
}

std::vector<std::string> ListProofs() {
    const RunAsScope root = IF_RUN_AS;
    std::vector<std::string> tokens;
    std::error_code noneYet;
    for (const auto& entry : std::filesystem::directory_iterator(ProofsFolder(), noneYet)) {
        tokens.push_back(entry.path().filename());
    }
    return tokens;
}

}  // namespace

CipherEnd ProvePassword(const CipherFolder& folder, const std::string& token, const std::string& password) {
    const FileDescriptor lock = TakeLock(kLocks, token, kPatience);
    if (!lock) {
        return CipherEnd::kBusy;
    }
    const std::string place = ProofsFolder() + "/" + token;
    if (!ClearMountPoint(place) || !MakePlace(place)) {
        return CipherEnd::kFailed;
    }
    const CipherEnd end = CipherFolder(folder.CipherPath(), place).Mount(password, CipherUse::kProve);
    return ClearMountPoint(place) ? end : CipherEnd::kFailed;
}

std::vector<std::string> ClearLeftProofs() {
    std::vector<std::string> troubles;
    for (const std::string& token : ListProofs()) {
        // One that is under way is cleared by whoever makes it.
        const FileDescriptor lock = TakeLock(kLocks, token, std::chrono::seconds(0));
        if (lock && !ClearMountPoint(ProofsFolder() + "/" + token)) {
            troubles.push_back("the proof of a key could not be taken away: " + token);
        }
    }
    return troubles;
}

}  // namespace korv
