// "DecryptByFile": unlocks an encrypted shared folder with an exported key file.

#include <string.h>

#include <array>
#include <cstdlib>
#include <string>

#include <json/json.h>

#include "platform/korv/api_runner.h"
#include "platform/korv/share_key.h"
#include "platform/pavane/cms.h"
#include "platform/pavane/json.h"
#include "platform/pavane/services.h"

#include "webapi/share/share_handler.h"

namespace {

constexpr const char* kFunction = "HandleDecryptByFile";
constexpr const char* kCryptoApi = "KORV.Core.Share.Crypto";
constexpr int kCryptoVersion = 1;
constexpr int kNoShareLogLine = 1777;
constexpr int kReadLogLine = 1781;
constexpr int kSendLogLine = 1801;

// A key in memory, wiped when it is no longer needed.
class KeyBuffer {
public:
    KeyBuffer() = default;
    ~KeyBuffer() { explicit_bzero(m_bytes.data(), m_bytes.size()); }
    KeyBuffer(const KeyBuffer&) = delete;
    KeyBuffer& operator=(const KeyBuffer&) = delete;
    char* Data() { return m_bytes.data(); }
    static constexpr std::size_t kSize = 4096;

private:
    std::array<char, kSize> m_bytes{};
};

}  // namespace

bool ShareHandler::ReadKeyFile(const std::string& file, const std::string& name, Json::Value& wanted) {
    KeyBuffer key;
    if (KORVShareEncKeyFileRead(file.c_str(), KORVShareEncExportKeySaltGet(), key.Data(), KeyBuffer::kSize) >=
        0) {
        wanted["name"] = name;
        wanted["password"] = key.Data();
        return true;
    }
    if (KLIBCErrGet() == kKlibErrNoSuchShare) {
        PV_LOG_AT(LOG_CATEG_SHARE, LOG_LEVEL_ERR, kShareSource, kNoShareLogLine, kFunction,
                  "Share [%s] doesn't exists.\n", name.c_str());
        SetErrorCode(PV_WEBAPI_ERR_KEY_WITHOUT_SHARE, "", "");
    } else {
        PV_LOG_AT(LOG_CATEG_SHARE, LOG_LEVEL_ERR, kShareSource, kReadLogLine, kFunction,
                  "Share [%s] get failed.\n", name.c_str());
        SetErrorCode(PV_WEBAPI_ERR_OPERATION_FAILED, "", "");
    }
    return false;
}

// The crypto service reads its parameters from the environment when it finds an upload's content type there.
bool ShareHandler::SendDecrypt(int rvId, Json::Value& wanted, Json::Value& reply) {
    if (rvId == 0) {
        unsetenv("HTTP_CONTENT_TYPE");
        unsetenv("CONTENT_TYPE");
        KORV::APIRunner::Exec(reply, kCryptoApi, kCryptoVersion, "decrypt", wanted, "admin");
        return true;
    }
    PVJson::CopyProps(wanted, GetJsonAPIInfo(kCryptoApi, "decrypt", kCryptoVersion));
    if (SendWebAPIToRecServerByJson(rvId, wanted, false, reply) != 0) {
        PV_LOG_AT(LOG_CATEG_SHARE, LOG_LEVEL_ERR, kShareSource, kSendLogLine, kFunction,
                  "Failed to send webapi to slave [%d]\n", rvId);
        SetErrorCode(PV_WEBAPI_ERR_OPERATION_FAILED, "", "");
        return false;
    }
    return true;
}

void ShareHandler::HandleDecryptByFile() {
    const int rvId = request->GetParam("rvId", 0).asInt();
    const std::string name = request->GetParam("name", "").asString();
    const std::string file = request->GetParam("password_file_tmp", "").asString();
    Json::Value wanted(Json::objectValue);
    Json::Value reply;
    if (ReadKeyFile(file, name, wanted) && SendDecrypt(rvId, wanted, reply)) {
        SetErrorCode(static_cast<PV_WEBAPI_ERR_CODE>(GetAPIErrCode(reply)), "", "");
    }
    AnswerUnlessFailed(Json::Value());
}
