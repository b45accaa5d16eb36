#pragma once

#include <optional>
#include <string>

// Sessions of people who logged in, kept in korv.db; only hashes of their secrets are stored.
// Every function throws std::runtime_error, whose text holds no secret, when the database fails.
namespace korv {

// What a client needs to go on: both are secrets of 256 random bits, as hexadecimal digits.
struct NewSession {
    std::string id;
    std::string csrf;
};

// Opens a session and removes those that have expired.
NewSession OpenSession(const std::string& account, const std::string& remoteIp);

// The account of the live session `id`; nothing when there is none or when it was idle for too long. Counts
// as use of the session. Checks the token `csrf` too unless it is null.
std::optional<std::string> SessionAccount(const std::string& id, const std::string* csrf);

// Ends the session `id`, if there is one.
void CloseSession(const std::string& id);

// Refused logins, to slow down guessing. An address that had too many lately is locked out for a while.
bool IsLockedOut(const std::string& remoteIp);
void NoteLoginFailure(const std::string& remoteIp);

}  // namespace korv
