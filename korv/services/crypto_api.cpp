// The web API "KORV.Core.Share.Crypto": locking and unlocking encrypted shared folders, and exporting their
// keys.

#include <sodium.h>

#include <optional>
#include <string>

#include "platform/korv/api_table.h"
#include "platform/korv/share_key.h"

#include "korv/framework/builtin_tables.h"
#include "korv/framework/log.h"
#include "korv/services/request_values.h"
#include "korv/services/share_error.h"
#include "korv/system/cipher_password.h"
#include "korv/system/encrypted_share.h"
#include "korv/system/exported_key.h"
#include "korv/system/share_change_store.h"
#include "korv/system/share_store.h"

namespace {

constexpr const char* kApi = "KORV.Core.Share.Crypto";

int ErrorOf(korv::CipherEnd end) {
    switch (end) {
        case korv::CipherEnd::kDone:
            return 0;
        case korv::CipherEnd::kWrongPassword:
        case korv::CipherEnd::kBadPassword:
            return korv::kShareEncryptionRefused;
        case korv::CipherEnd::kBusy:
            return korv::kShareInUse;
        case korv::CipherEnd::kNoSpace:
            return korv::kShareNoSpace;
        default:
            return korv::kShareFailed;
    }
}

// The encrypted share that the request names; otherwise the error has been answered.
std::optional<korv::ShareRow> FindEncrypted(const Json::Value& params, KORV::APIResponse& response) {
    auto share = korv::FindShare(korv::StringOf(params, "name", ""));
    if (!share) {
        response.SetError(korv::kShareUnknown, Json::Value());
    } else if (share->encryption == korv::ShareEncryption::kNone) {
        response.SetError(korv::kShareNotEncrypted, Json::Value());
        share.reset();
    }
    return share;
}

// The password: as typed, or out of an exported key, which must be this share's.
std::optional<std::string> PasswordFor(const korv::ShareRow& share, const Json::Value& params,
                                       KORV::APIResponse& response) {
    const std::string given = korv::StringOf(params, "password", "");
    const auto key = korv::ParseKeyText(given);
    if (!key) {
        return given;
    }
    if (key->shareToken != share.token) {
        response.SetError(korv::kShareKeyOfAnother, Json::Value());
        return std::nullopt;
    }
    return key->password;
}

void Answer(KORV::APIResponse& response, const korv::ShareRow& share, korv::CipherEnd end) {
    const int code = ErrorOf(end);
    if (code != 0) {
        korv::LogLine("the share " + share.Path() + " could not be locked or unlocked, cause " +
                      std::to_string(static_cast<int>(end)));
        response.SetError(code, Json::Value());
        return;
    }
    response.SetSuccess(Json::Value());
}

// A host unlocks the shares of its recording servers, so a paired server may call it too.
void Decrypt(KORV::APIRequest* request, KORV::APIResponse* response) {
    if (!korv::AdmitAdministratorOrServer(*request, *response)) {
        return;
    }
    const Json::Value params = korv::ParamsOf(*request);
    const auto share = FindEncrypted(params, *response);
    // A job that moves its data may wait for just that.
    if (share && korv::IsShareBeingRenamedOrRemoved(share->token)) {
        response->SetError(korv::kShareInUse, Json::Value());
        return;
    }
    auto password = share ? PasswordFor(*share, params, *response) : std::nullopt;
    if (password) {
        const korv::CipherEnd end = korv::UnlockShare(*share, *password);
        sodium_memzero(password->data(), password->size());
        Answer(*response, *share, end);
    }
}

void Lock(KORV::APIRequest* request, KORV::APIResponse* response) {
    if (!korv::AdmitAdministrator(*request, *response)) {
        return;
    }
    const auto share = FindEncrypted(korv::ParamsOf(*request), *response);
    if (share && korv::IsShareChanging(share->token)) {
        response->SetError(korv::kShareInUse, Json::Value());
    } else if (share) {
        Answer(*response, *share, korv::LockShare(*share));
    }
}

std::string Base64(const std::string& bytes) {
    constexpr int kVariant = sodium_base64_VARIANT_ORIGINAL;
    std::string text(sodium_base64_encoded_len(bytes.size(), kVariant), '\0');
    sodium_bin2base64(text.data(), text.size(), reinterpret_cast<const unsigned char*>(bytes.data()),
                      bytes.size(), kVariant);
    text.pop_back();  // the NUL
    return text;
}

// The password is proven before it is put into a file that somebody will rely on.
void Export(KORV::APIRequest* request, KORV::APIResponse* response) {
    if (!korv::AdmitAdministrator(*request, *response)) {
        return;
    }
    const Json::Value params = korv::ParamsOf(*request);
    const auto share = FindEncrypted(params, *response);
    const std::string password = share ? korv::StringOf(params, "password", "") : "";
    if (!share) {
        return;
    }
    const korv::CipherEnd end = korv::ProvePassword(korv::CipherOf(*share), share->token, password);
    if (end != korv::CipherEnd::kDone) {
        response->SetError(ErrorOf(end), Json::Value());
        return;
    }
    const auto content =
        korv::SealKey({korv::NodeId(), share->token, share->name, password}, KORVShareEncExportKeySaltGet());
    if (!content) {
        response->SetError(korv::kShareEncryptionRefused, Json::Value());
        return;
    }
    Json::Value data(Json::objectValue);
    data["file_name"] = share->name + ".key";
    data["content"] = Base64(*content);
    response->SetSuccess(data);
}

}  // namespace

const KORV::APITableRow* korv::ShareCryptoTable() {
    static constexpr KORV::APITableRow kTable[] = {
        {kApi, 1, "decrypt", Decrypt},
        {kApi, 1, "lock", Lock},
        {kApi, 1, "export", Export},
        {nullptr, 0, nullptr, nullptr},
    };
    return kTable;
}
