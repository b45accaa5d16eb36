#include "platform/korv/api_request.h"

#include "korv/framework/request_state.h"
#include "korv/system/accounts.h"
#include "korv/system/app_privilege.h"

// Nobody else has this name without being authorized: a public request without a session has no name.
bool korv::IsFromPairedServer(const KORV::APIRequest& request) {
    return !request.IsAuthorized() && request.GetLoginUserName() == kAdminAccount;
}

namespace KORV {

APIRequest::APIRequest(std::unique_ptr<State> state) : m_state(std::move(state)) {}

APIRequest::~APIRequest() = default;

Json::Value APIRequest::GetParam(const std::string& name, const Json::Value& defaultValue) const {
    if (name.empty()) {
        return m_state->params;
    }
    const Json::Value* const value = m_state->params.find(name.data(), name.data() + name.size());
    return value != nullptr ? *value : defaultValue;
}

std::string APIRequest::GetCookie(const std::string& name, const std::string& defaultValue) const {
    const auto found = m_state->cookies.find(name);
    return found != m_state->cookies.end() ? found->second : defaultValue;
}

std::string APIRequest::GetSessionID() const { return m_state->sessionId; }

std::string APIRequest::GetAPIClass() const { return m_state->api; }

std::string APIRequest::GetAPIMethod() const { return m_state->method; }

int APIRequest::GetAPIVersion() const { return m_state->version; }

std::string APIRequest::GetLoginUserName() const { return m_state->user; }

std::string APIRequest::GetRemoteIP() const { return m_state->remoteIp; }

bool APIRequest::IsAuthorized() const { return m_state->isAuthorized; }

bool APIRequest::HasAppPriv(const std::string& app) const {
    return m_state->isAuthorized && korv::HasAppPrivilege(m_state->user, app);
}

bool APIRequest::IsAdmin() const {
    if (!m_state->isAuthorized) {
        return false;
    }
    return (m_state->isInProcess && m_state->user == korv::kAdminAccount) ||
           korv::IsAdministrator(m_state->user);
}

}  // namespace KORV
