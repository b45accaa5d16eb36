#include "korv/framework/session_cookie.h"

#include <utility>

#include "korv/system/settings.h"

namespace korv {
namespace {

std::optional<std::string> g_sessionId;

}  // namespace

void CookieChange::Set(const std::string& sessionId) { g_sessionId = sessionId; }

std::optional<std::string> CookieChange::TakeHeader() {
    const std::optional<std::string> sessionId = std::exchange(g_sessionId, std::nullopt);
    if (!sessionId) {
        return std::nullopt;
    }
    std::string header =
        std::string(kSessionCookie) + "=" + *sessionId + "; Path=/; HttpOnly; SameSite=Strict";
    if (!GetSettings().tls.certificate.empty()) {
        header += "; Secure";
    }
    if (sessionId->empty()) {
        header += "; Max-Age=0";
    }
    return header;
}

}  // namespace korv
