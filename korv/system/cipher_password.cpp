#include "korv/system/cipher_password.h"

#include <chrono>
#include <filesystem>
#include <system_error>

#include "platform/korv/configuration.h"

#include "include/run_as_scope.h"

namespace korv {

CipherEnd ProvePassword(const CipherFolder& folder, const std::string& token, const std::string& password) {
    constexpr std::chrono::seconds kPatience(5);
    const std::string parent = KORV::GetConfiguration().runDir + "/key-proofs";
    const std::string place = parent + "/" + token;
    std::error_code failed;
    {
        const RunAsScope root = IF_RUN_AS;
        std::filesystem::create_directories(place, failed);
        std::filesystem::permissions(parent, std::filesystem::perms::owner_all, failed);
    }
    if (failed) {
        return CipherEnd::kFailed;
    }
    const CipherFolder proof(folder.CipherPath(), place);
    const CipherEnd end = proof.Mount(password, CipherUse::kProve);
    if (end == CipherEnd::kDone) {
        proof.Unmount(kPatience, true);
    }
    const RunAsScope root = IF_RUN_AS;
    std::filesystem::remove(place, failed);
    return end;
}

}  // namespace korv
