#pragma once

#include <optional>
#include <string>

namespace korv {

inline constexpr const char* kSessionCookie = "korv_session";

// The API that makes and ends sessions, and its method that needs none, not even a live one.
inline constexpr const char* kSessionApi = "KORV.Core.Session";
inline constexpr const char* kLoginMethod = "login";

// What the answer to the current request does to the client's session cookie: the methods of
// "KORV.Core.Session" set it, the HTTP side takes it. One per process, since a process serves one request at
// a time; an in-process call by another method acts on the same.
class CookieChange {
public:
    static void Set(const std::string& sessionId);
    static void Remove() { Set(""); }

    // The value of the header Set-Cookie, or nothing; forgets it.
    static std::optional<std::string> TakeHeader();
};

}  // namespace korv
