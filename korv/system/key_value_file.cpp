#include "korv/system/key_value_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <vector>

#include <sys/mount.h>
#include <sys/stat.h>

#include "platform/korv/configuration.h"
#include "platform/korv/key_value_file.h"

#include "korv/framework/log.h"
#include "korv/system/accounts.h"
#include "korv/system/file_descriptor.h"
#include "korv/system/mount_table.h"

namespace korv {

namespace {

constexpr std::size_t kLargestFile = std::size_t{1024} * 1024;
constexpr const char* kBlanks = " \t\r";

std::string Trimmed(const std::string& text) {
    const std::size_t begin = text.find_first_not_of(kBlanks);
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

std::string Unquoted(const std::string& value) {
    const char quote = value.empty() ? '\0' : value.front();
    if (value.size() < 2 || (quote != '"' && quote != '\'') || value.back() != quote) {
        return value;
    }
    std::string inner = value.substr(1, value.size() - 2);
    if (quote == '\'') {
        return inner;
    }
    std::string result;
    for (std::size_t i = 0; i < inner.size(); ++i) {
        const bool isEscape =
            inner[i] == '\\' && i + 1 < inner.size() && (inner[i + 1] == '"' || inner[i + 1] == '\\');
        result += inner[isEscape ? ++i : i];
    }
    return result;
}

std::string Quoted(const std::string& value) {
    std::string result = "\"";
    for (const char character : value) {
        if (character == '"' || character == '\\') {
            result += '\\';
        }
        result += character;
    }
    return result + "\"";
}

[[noreturn]] void Fail(const char* what) { throw std::system_error(errno, std::generic_category(), what); }

void WriteAll(int file, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t length = write(file, text.data() + written, text.size() - written);
        if (length < 0 && errno != EINTR) {
            Fail("cannot write a key-value file");
        }
        written += length > 0 ? static_cast<std::size_t>(length) : 0;
    }
}

// A folder at `path` gets a name of its own beside it, with whatever is in it. False when it can't be, or
// when there is no folder any more.
bool MoveFolderAside(const std::string& path) {
    std::string aside = path + ".XXXXXX";
    if (mkdtemp(aside.data()) == nullptr) {
        return false;
    }
    if (rename(path.c_str(), aside.c_str()) != 0) {
        rmdir(aside.c_str());
        return false;
    }
    LogLine("a folder lay in the place of " + path + " and is " + aside + " now");
    return true;
}

// What somebody else has mounted at `path`; false when it is still there.
bool Unmount(const std::string& path) {
    const std::vector<Mount>& mounts = ListMounts();
    const auto found = std::find_if(mounts.rbegin(), mounts.rend(),
                                    [&path](const Mount& mount) { return mount.mountPoint == path; });
    if (found == mounts.rend()) {
        return true;
    }
    return IsFromAnybody(*found) && umount2(path.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) == 0;
}

// In a folder where anybody may make files, anybody may have made a folder of that name while there was
// none, and mounted something on it.
void Replace(const std::string& unfinished, const std::string& path) {
    constexpr int kAttempts = 3;  // somebody may be as quick again
    int attempts = kAttempts;
    while (rename(unfinished.c_str(), path.c_str()) != 0) {
        const int error = errno;
        const bool isInTheWay = (error == EISDIR || error == EBUSY) && --attempts > 0 && Unmount(path);
        if (!isInTheWay || (error == EISDIR && !MoveFolderAside(path))) {
            errno = error;
            Fail("cannot replace a key-value file");
        }
    }
}

bool IsInAnybodysFolder(const std::string& path) {
    const std::string folder = path.substr(0, path.rfind('/') + 1);
    struct stat status {};
    return stat(folder.empty() ? "." : folder.c_str(), &status) == 0 && (status.st_mode & S_IWOTH) != 0;
}

bool IsTrusted(uid_t owner) {
    if (owner == 0 || owner == geteuid()) {
        return true;
    }
    const auto service = FindUser(KORV::GetConfiguration().serviceUser);
    return service && service->uid == owner;
}

}  // namespace

KeyValues ParseKeyValues(const std::string& text) {
    KeyValues values;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const std::string trimmed = Trimmed(line);
        const std::size_t equals = trimmed.find('=');
        const std::string key = equals == std::string::npos ? "" : Trimmed(trimmed.substr(0, equals));
        if (!key.empty() && key.front() != '#') {
            values[key] = Unquoted(Trimmed(trimmed.substr(equals + 1)));
        }
    }
    return values;
}

std::string KeyValueText(const KeyValues& values) {
    std::string text;
    for (const auto& [key, value] : values) {
        const bool isKey =
            !key.empty() && key.front() != '#' && key.find_first_of("= \t\r\n\"'") == std::string::npos;
        if (!isKey || value.find_first_of("\r\n") != std::string::npos) {
            throw std::invalid_argument("this can't stand in a key-value file");
        }
        text += key;
        text += "=" + Quoted(value) + "\n";
    }
    return text;
}

std::optional<KeyValues> ReadKeyValues(const std::string& path) {
    // Anything may lie there: what isn't a file must not block.
    const bool isAnybodys = IsInAnybodysFolder(path);
    const int noLink = isAnybodys ? O_NOFOLLOW : 0;
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | noLink));
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        (isAnybodys && !IsTrusted(status.st_uid))) {
        return std::nullopt;
    }
    constexpr std::size_t kBlock = 4096;
    std::array<char, kBlock> block{};
    std::string text;
    while (text.size() < kLargestFile) {
        const ssize_t length = read(file.Get(), block.data(), block.size());
        if (length == 0) {
            return ParseKeyValues(text);
        }
        if (length < 0 && errno != EINTR) {
            return std::nullopt;
        }
        text.append(block.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    }
    return std::nullopt;
}

void WriteKeyValues(const std::string& path, const KeyValues& values) {
    const std::string text = KeyValueText(values);
    std::string unfinished = path + ".XXXXXX";
    const FileDescriptor file(mkostemp(unfinished.data(), O_CLOEXEC));
    if (!file) {
        Fail("cannot make a key-value file");
    }
    try {
        WriteAll(file.Get(), text);
        constexpr mode_t kMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;
        if (fchmod(file.Get(), kMode) != 0) {
            Fail("cannot replace a key-value file");
        }
        Replace(unfinished, path);
    } catch (const std::system_error&) {
        unlink(unfinished.c_str());
        throw;
    }
}

}  // namespace korv

int KLIBCFileGetKeyValue(const char* path, const char* key, char* value, std::size_t size, int /*flags*/) {
    const auto values = korv::ReadKeyValues(path);
    const auto found = values ? values->find(key) : korv::KeyValues::const_iterator();
    if (!values || found == values->end() || found->second.size() >= size) {
        return -1;
    }
    std::memcpy(value, found->second.c_str(), found->second.size() + 1);
    return static_cast<int>(found->second.size());
}

int KLIBCFileCheckKeyValue(const char* path, const char* key, const char* value, int /*flags*/) {
    const auto values = korv::ReadKeyValues(path);
    const auto found = values ? values->find(key) : korv::KeyValues::const_iterator();
    return values && found != values->end() && found->second == value ? 1 : 0;
}
