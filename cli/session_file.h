#pragma once

#include <string>

namespace cli {

// What a login leaves behind. The cookie and the token are secrets.
struct Session {
    std::string account;
    std::string cookie;
    std::string csrf;
};

// The sessions of one person by server, in a file that nobody else can read.
class SessionFile {
public:
    // $XDG_CONFIG_HOME/pavane/session.json, or below ~/.config. Throws std::runtime_error without either.
    static SessionFile OfThisUser();

    explicit SessionFile(std::string path);

    // The session with the server at `url`; an empty one when there is none. A session never goes to
    // another server. Throws std::runtime_error when the file is damaged.
    [[nodiscard]] Session Load(const std::string& url) const;

    // Keeps or forgets the session with that server. The file is 0600 and replaced as a whole.
    void Store(const std::string& url, const Session& session) const;
    void Forget(const std::string& url) const;

private:
    std::string m_path;
};

}  // namespace cli
