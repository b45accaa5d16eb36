#include "platform/korv/api_table.h"

#include "korv/framework/builtin_tables.h"
#include "korv/framework/error_code.h"
#include "korv/framework/password_check.h"
#include "korv/framework/session_cookie.h"
#include "korv/framework/session_store.h"
#include "korv/system/accounts.h"

namespace {

constexpr int kErrorWrongPassword = 400;

Json::Value AccountData(const std::string& account, bool isAdmin) {
    Json::Value data(Json::objectValue);
    data["account"] = account;
    data["admin"] = isAdmin;
    return data;
}

// An in-process caller has no browser to hand a session to.
bool IsOverTheWire(const KORV::APIRequest& request) { return !request.GetRemoteIP().empty(); }

void Login(KORV::APIRequest* request, KORV::APIResponse* response) {
    const Json::Value account = request->GetParam("account", Json::Value());
    const Json::Value password = request->GetParam("passwd", Json::Value());
    if (!account.isString() || !password.isString() || !IsOverTheWire(*request)) {
        response->SetError(korv::kErrorBadParameter, Json::Value());
        return;
    }
    const std::string remoteIp = request->GetRemoteIP();
    if (korv::IsLockedOut(remoteIp)) {
        response->SetError(korv::kErrorBusy, Json::Value());
        return;
    }
    const std::optional<std::string> name =
        korv::CheckPassword(account.asString(), password.asString(), remoteIp);
    if (!name) {
        korv::NoteLoginFailure(remoteIp);
        response->SetError(kErrorWrongPassword, Json::Value());
        return;
    }
    const korv::NewSession session = korv::OpenSession(*name, remoteIp);
    korv::CookieChange::Set(session.id);
    Json::Value data = AccountData(*name, korv::IsAdministrator(*name));
    data["csrf"] = session.csrf;
    response->SetSuccess(data);
}

void Logout(KORV::APIRequest* request, KORV::APIResponse* response) {
    const std::string sessionId = request->GetSessionID();
    if (sessionId.empty()) {
        response->SetError(korv::kErrorNotAllowed, Json::Value());
        return;
    }
    korv::CloseSession(sessionId);
    korv::CookieChange::Remove();
    response->SetSuccess(Json::Value());
}

void WhoAmI(KORV::APIRequest* request, KORV::APIResponse* response) {
    if (!request->IsAuthorized()) {
        response->SetError(korv::kErrorNotAllowed, Json::Value());
        return;
    }
    response->SetSuccess(AccountData(request->GetLoginUserName(), request->IsAdmin()));
}

const KORV::APITableRow kTable[] = {
    {korv::kSessionApi, 1, korv::kLoginMethod, Login},
    {korv::kSessionApi, 1, "logout", Logout},
    {korv::kSessionApi, 1, "whoami", WhoAmI},
    {nullptr, 0, nullptr, nullptr},
};

}  // namespace

const KORV::APITableRow* korv::SessionTable() { return kTable; }
