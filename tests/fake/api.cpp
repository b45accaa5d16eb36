#include "tests/fake/api.h"

#include <utility>

#include "platform/korv/api_runner.h"
#include "platform/korv/app_privilege.h"

#include "tests/fake/director.h"

namespace {

constexpr const char* kApp = "KORV.KRX.Pavane";

template <class... Values>
void Note(const Values&... values) {
    if (fake::CurrentDirector() != nullptr) {
        fake::CurrentDirector()->Read(fake::Args(values...));
    }
}

void Answer(const Json::Value& answer) {
    if (fake::CurrentDirector() != nullptr) {
        fake::CurrentDirector()->Answer(answer);
    }
}

}  // namespace

namespace KORV {

APIRequest::APIRequest(std::unique_ptr<State> state) : m_state(std::move(state)) {}
APIRequest::~APIRequest() = default;

Json::Value APIRequest::GetParam(const std::string& name, const Json::Value& defaultValue) const {
    Note("GetParam", name, defaultValue);
    if (name.empty()) {
        return m_state->params;
    }
    return m_state->params.isMember(name) ? m_state->params[name] : defaultValue;
}

std::string APIRequest::GetCookie(const std::string& name, const std::string& defaultValue) const {
    Note("GetCookie", name, defaultValue);
    const auto found = m_state->cookies.find(name);
    return found != m_state->cookies.end() ? found->second : defaultValue;
}

std::string APIRequest::GetSessionID() const {
    Note("GetSessionID");
    return m_state->session;
}

std::string APIRequest::GetAPIClass() const {
    Note("GetAPIClass");
    return m_state->api;
}

std::string APIRequest::GetAPIMethod() const {
    Note("GetAPIMethod");
    return m_state->method;
}

int APIRequest::GetAPIVersion() const {
    Note("GetAPIVersion");
    return m_state->version;
}

std::string APIRequest::GetLoginUserName() const {
    Note("GetLoginUserName");
    return m_state->user;
}

std::string APIRequest::GetRemoteIP() const {
    Note("GetRemoteIP");
    return m_state->remoteIp;
}

bool APIRequest::IsAuthorized() const {
    Note("IsAuthorized");
    return m_state->authorized;
}

bool APIRequest::HasAppPriv(const std::string& app) const {
    Note("HasAppPriv", app);
    return m_state->appPriv && app == kApp;
}

bool APIRequest::IsAdmin() const {
    Note("IsAdmin");
    return m_state->admin;
}

APIResponse::APIResponse(std::unique_ptr<State> state) : m_state(std::move(state)) {}
APIResponse::~APIResponse() = default;

void APIResponse::SetSuccess(const Json::Value& data) {
    Json::Value answer;
    answer["success"] = data;
    Answer(answer);
}

void APIResponse::SetError(int code, const Json::Value& data) {
    Json::Value answer;
    answer["error"]["code"] = code;
    answer["error"]["data"] = data;
    Answer(answer);
}

void APIRunner::Exec(Json::Value& response, const char* api, int version, const char* method,
                     const Json::Value& request, const char* user) {
    response = fake::Ask("KORV::APIRunner::Exec", fake::Args(api, version, method, request, user));
}

}  // namespace KORV

bool SDKUser::AppPrivUserHas(const std::string& user, const std::string& app, const std::string& ip) {
    return fake::Ask("SDKUser::AppPrivUserHas", fake::Args(user, app, ip)).asBool();
}
