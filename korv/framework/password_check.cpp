#include "korv/framework/password_check.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

#include <security/pam_appl.h>

#include "include/run_as_scope.h"
#include "korv/framework/log.h"
#include "korv/system/settings.h"

namespace korv {
namespace {

constexpr std::chrono::milliseconds kRefusalStep(250);

// Answers every hidden prompt with the password; PAM frees the answers.
int Converse(int count, const pam_message** messages, pam_response** responses, void* data) {
    if (count <= 0 || count > PAM_MAX_NUM_MSG) {
        return PAM_CONV_ERR;
    }
    auto* const answers =
        static_cast<pam_response*>(std::calloc(static_cast<std::size_t>(count), sizeof(pam_response)));
    if (answers == nullptr) {
        return PAM_BUF_ERR;
    }
    for (int index = 0; index < count; ++index) {
        if (messages[index]->msg_style == PAM_PROMPT_ECHO_OFF) {
            answers[index].resp = strdup(static_cast<const std::string*>(data)->c_str());
        }
    }
    *responses = answers;
    return PAM_SUCCESS;
}

// PAM would sleep for two seconds after a failure; refusals are evened out below instead.
void NoDelay(int /*status*/, unsigned /*delay_us*/, void* /*data*/) {}

// One PAM transaction, ended when the object goes.
class PamLogin {
public:
    PamLogin(const std::string& account, const std::string& password) {
        m_conversation = {Converse, const_cast<std::string*>(&password)};
        m_status =
            pam_start(GetSettings().session.pamService.c_str(), account.c_str(), &m_conversation, &m_handle);
        if (m_status != PAM_SUCCESS) {
            throw std::runtime_error("PAM could not be started");
        }
    }
    ~PamLogin() { pam_end(m_handle, m_status); }
    PamLogin(const PamLogin&) = delete;
    PamLogin& operator=(const PamLogin&) = delete;

    bool Check(const std::string& remoteIp) {
        pam_set_item(m_handle, PAM_FAIL_DELAY, reinterpret_cast<const void*>(NoDelay));
        pam_set_item(m_handle, PAM_RHOST, remoteIp.c_str());
        m_status = pam_authenticate(m_handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
        if (m_status == PAM_SUCCESS) {
            m_status = pam_acct_mgmt(m_handle, PAM_SILENT);
        }
        if (m_status == PAM_SYSTEM_ERR || m_status == PAM_ABORT || m_status == PAM_BUF_ERR ||
            m_status == PAM_SERVICE_ERR) {
            LogLine(std::string("PAM failed: ") + pam_strerror(m_handle, m_status));
        }
        return m_status == PAM_SUCCESS;
    }

    std::string Account() {
        const void* name = nullptr;
        m_status = pam_get_item(m_handle, PAM_USER, &name);
        if (m_status != PAM_SUCCESS || name == nullptr) {
            throw std::runtime_error("PAM gave no account name");
        }
        return static_cast<const char*>(name);
    }

private:
    pam_conv m_conversation{};
    pam_handle_t* m_handle = nullptr;
    int m_status = PAM_SUCCESS;
};

// Names that no account can have never reach PAM, nor the system's log through it.
bool IsUsableName(const std::string& account) {
    constexpr std::size_t kLongest = 255;
    return !account.empty() && account.size() <= kLongest &&
           std::none_of(account.begin(), account.end(), [](unsigned char c) { return c < ' ' || c == 0x7F; });
}

std::optional<std::string> AskPam(const std::string& account, const std::string& password,
                                  const std::string& remoteIp) {
    const RunAsScope root = IF_RUN_AS;
    if (!root) {
        throw std::runtime_error("a password can't be checked without root rights");
    }
    PamLogin login(account, password);
    if (!login.Check(remoteIp)) {
        return std::nullopt;
    }
    return login.Account();
}

}  // namespace

std::optional<std::string> CheckPassword(const std::string& account, const std::string& password,
                                         const std::string& remoteIp) {
    const auto start = std::chrono::steady_clock::now();
    std::optional<std::string> name =
        IsUsableName(account) ? AskPam(account, password, remoteIp) : std::nullopt;
    if (!name) {
        // An unknown account is refused sooner than a wrong password; answers go out at whole steps only.
        const auto steps = (std::chrono::steady_clock::now() - start) / kRefusalStep + 1;
        std::this_thread::sleep_until(start + steps * kRefusalStep);
    }
    return name;
}

}  // namespace korv
