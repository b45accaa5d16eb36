#include "cli/session_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

#include <json/json.h>
#include <sys/stat.h>

namespace cli {

namespace {

constexpr mode_t kOwnerOnly = 0600;
constexpr auto kFolderOwnerOnly = std::filesystem::perms::owner_all;

std::string WithoutSlashes(std::string url) {
    url.erase(url.find_last_not_of('/') + 1);
    return url;
}

Json::Value ReadAll(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        return Json::Value(Json::objectValue);
    }
    Json::Value sessions;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), file, &sessions, nullptr) || !sessions.isObject()) {
        throw std::runtime_error(path + " is damaged; remove it and log in again");
    }
    return sessions;
}

// Replaces the file by one that was never readable for others.
void WriteAll(const std::string& path, const Json::Value& sessions) {
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    if (std::filesystem::create_directories(folder)) {
        std::filesystem::permissions(folder, kFolderOwnerOnly);
    }
    const std::string unfinished = path + ".new." + std::to_string(getpid());
    const std::string text = sessions.toStyledString();
    const int file =
        open(unfinished.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kOwnerOnly);
    const bool isWritten =
        file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const bool isClosed = file >= 0 && close(file) == 0;
    if (!isWritten || !isClosed || rename(unfinished.c_str(), path.c_str()) != 0) {
        const int error = errno;
        unlink(unfinished.c_str());
        throw std::system_error(error, std::generic_category(), "cannot write " + path);
    }
}

}  // namespace

SessionFile SessionFile::OfThisUser() {
    const char* const configured = std::getenv("XDG_CONFIG_HOME");
    if (configured != nullptr && *configured == '/') {
        return SessionFile(std::string(configured) + "/pavane/session.json");
    }
    const char* const home = std::getenv("HOME");
    if (home == nullptr || *home == '\0') {
        throw std::runtime_error(
            "neither HOME nor XDG_CONFIG_HOME is set, so there is no place for the session");
    }
    return SessionFile(std::string(home) + "/.config/pavane/session.json");
}

SessionFile::SessionFile(std::string path) : m_path(std::move(path)) {}

Session SessionFile::Load(const std::string& url) const {
    const Json::Value session = ReadAll(m_path)[WithoutSlashes(url)];
    if (!session.isObject()) {
        return {};
    }
    return {session["account"].asString(), session["cookie"].asString(), session["csrf"].asString()};
}

void SessionFile::Store(const std::string& url, const Session& session) const {
    Json::Value sessions = ReadAll(m_path);
    Json::Value& stored = sessions[WithoutSlashes(url)];
    stored["account"] = session.account;
    stored["cookie"] = session.cookie;
    stored["csrf"] = session.csrf;
    WriteAll(m_path, sessions);
}

void SessionFile::Forget(const std::string& url) const {
    Json::Value sessions = ReadAll(m_path);
    if (sessions.isMember(WithoutSlashes(url))) {
        sessions.removeMember(WithoutSlashes(url));
        WriteAll(m_path, sessions);
    }
}

}  // namespace cli
