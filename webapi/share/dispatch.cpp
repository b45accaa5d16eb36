#include <string>

#include "webapi/share/share_handler.h"

namespace {

constexpr int kProcessLogLine = 1966;
constexpr int kProcessRelayLogLine = 1998;

struct LocalMethod {
    const char* name;
    void (ShareHandler::*handle)();
};

struct RelayMethod {
    const char* name;
    ShareAction act;
};

constexpr LocalMethod kLocalMethods[] = {
    {"List", &ShareHandler::HandleList},
    {"ListRecShare", &ShareHandler::HandleListRecShare},
    {"ListUsingCam", &ShareHandler::HandleListUsingCam},
    {"CheckStorageMigrating", &ShareHandler::HandleCheckStorageMigrating},
    {"ListMountedFolder", &ShareHandler::HandleListMountedFolder},
    {"ReconnetRemoteMount", &ShareHandler::HandleReconnetRemoteMount},
    {"DecryptByFile", &ShareHandler::HandleDecryptByFile},
    {"ListShareUsage", &ShareHandler::HandleListShareUsage},
};

constexpr RelayMethod kRelayMethods[] = {
    {"CreateRecShare", &ShareHandler::HandleCreateRecShare},
    {"CreateRemoteRecShare", &ShareHandler::HandleCreateRemoteRecShare},
    {"DelRecShare", &ShareHandler::HandleDelRecShare},
    {"EditRecShare", &ShareHandler::HandleEditRecShare},
};

}  // namespace

void ShareHandler::HandleProcess() {
    if (!Authenticate()) {
        response->SetError(PV_WEBAPI_ERR_NO_PRIVILEGE, Json::Value());
        return;
    }
    const std::string method = request->GetAPIMethod();
    LogRequest(method, "HandleProcess", kProcessLogLine);
    for (const LocalMethod& known : kLocalMethods) {
        if (method == known.name) {
            (this->*known.handle)();
            return;
        }
    }
    response->SetError(PV_WEBAPI_ERR_BAD_PARAMETER, Json::Value());
}

void ShareHandler::HandleProcessRelay() {
    if (!Authenticate()) {
        response->SetError(PV_WEBAPI_ERR_NO_PRIVILEGE, Json::Value());
        return;
    }
    const std::string method = request->GetAPIMethod();
    LogRequest(method, "HandleProcessRelay", kProcessRelayLogLine);
    for (const RelayMethod& known : kRelayMethods) {
        if (method == known.name) {
            CmsRelayWebApi(known.act, nullptr, nullptr);
            return;
        }
    }
    response->SetError(PV_WEBAPI_ERR_BAD_PARAMETER, Json::Value());
}

// The parameter without a name is all of them together; they are read only when somebody wants to see them.
void ShareHandler::LogRequest(const std::string& method, const char* function, int line) {
    PV_LOG_AT(LOG_CATEG_SHARE, LOG_LEVEL_DEBUG, kShareSource, line, function, "Method [%s], Params [%s]\n",
              method.c_str(), JsonText(request->GetParam("", Json::Value())).c_str());
}

void ShareHandler::AnswerUnlessFailed(const Json::Value& data) {
    if (errorCode == PV_WEBAPI_ERR_NONE) {
        response->SetSuccess(data);
    } else {
        WriteErrorResponse(Json::Value());
    }
}

std::string ShareHandler::GetLoginUserName() {
    if (request->GetParam("isRedirectCgi", false).asBool() ||
        request->GetParam("client", "").asString() == "NVR") {
        return "admin";
    }
    return request->GetLoginUserName();
}
