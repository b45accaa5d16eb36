#include "korv/system/mount_source.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <set>
#include <sstream>
#include <vector>

namespace korv {

namespace {

constexpr std::size_t kLongestSource = 1024;
constexpr std::size_t kLongestHost = 253;
constexpr std::size_t kLongestName = 256;
constexpr std::size_t kLongestPassword = 512;
constexpr int kCifsPort = 445;
constexpr int kNfsPort = 2049;
constexpr int kHighestPort = 65535;

bool HasControl(const std::string& text) {
    return std::any_of(text.begin(), text.end(),
                       [](unsigned char letter) { return letter < ' ' || letter == 0x7f; });
}

bool IsHost(const std::string& host, const char* others) {
    return !host.empty() && host.size() <= kLongestHost && host.front() != '-' && host.front() != '.' &&
           std::all_of(host.begin(), host.end(), [others](unsigned char letter) {
               return letter != '\0' &&
                      (std::isalnum(letter) != 0 ||
                       std::string(others).find(static_cast<char>(letter)) != std::string::npos);
           });
}

bool IsName(const std::string& host) { return IsHost(host, ".-_"); }
bool IsAddress6(const std::string& host) { return IsHost(host, ":.%"); }

bool HasParent(const std::string& path) {
    std::istringstream parts(path);
    for (std::string part; std::getline(parts, part, '/');) {
        if (part == "..") {
            return true;
        }
    }
    return false;
}

void DropTrailingSlashes(std::string& text, std::size_t keep) {
    while (text.size() > keep && text.back() == '/') {
        text.pop_back();
    }
}

std::optional<MountSource> ParseCifs(std::string text) {
    constexpr std::size_t kStart = 2;
    std::replace(text.begin(), text.end(), '\\', '/');
    DropTrailingSlashes(text, kStart);
    const auto slash = text.find('/', kStart);
    if (text.compare(0, kStart, "//") != 0 || slash == std::string::npos || text[slash + 1] == '/') {
        return std::nullopt;
    }
    const std::string host = text.substr(kStart, slash - kStart);
    if (!IsName(host) || HasParent(text)) {
        return std::nullopt;
    }
    return MountSource{text, host};
}

std::optional<MountSource> ParseNfs(std::string text) {
    const bool isBracketed = text.front() == '[';
    const auto end = isBracketed ? text.find("]:/") : text.find(":/");
    if (end == std::string::npos) {
        return std::nullopt;
    }
    const std::string host = isBracketed ? text.substr(1, end - 1) : text.substr(0, end);
    if (isBracketed ? !IsAddress6(host) : !IsName(host)) {
        return std::nullopt;
    }
    const std::string path = text.substr(text.find(":/", end) + 1);
    if (HasParent(path)) {
        return std::nullopt;
    }
    DropTrailingSlashes(text, text.size() - path.size() + 1);
    return MountSource{text, host};
}

bool IsNumber(const std::string& value) {
    constexpr std::size_t kMostDigits = 9;
    return !value.empty() && value.size() <= kMostDigits &&
           std::all_of(value.begin(), value.end(),
                       [](unsigned char digit) { return std::isdigit(digit) != 0; });
}

int NumberOf(const std::string& value) {
    int number = 0;
    std::from_chars(value.data(), value.data() + value.size(), number);
    return number;
}

bool IsPort(const std::string& value) {
    return IsNumber(value) && NumberOf(value) >= 1 && NumberOf(value) <= kHighestPort;
}

// A word that can't end an option or begin another.
bool IsWord(const std::string& value) { return IsName(value); }

enum class ValueKind { kNone, kNumber, kPort, kOneOf, kWord };

struct Option {
    const char* name;
    ValueKind kind;
    std::vector<std::string> values;
};

const std::vector<Option>& CifsOptions() {
    static const std::vector<Option> options{
        {"vers", ValueKind::kOneOf, {"1.0", "2.0", "2.1", "3", "3.0", "3.02", "3.0.2", "3.1.1", "default"}},
        {"sec", ValueKind::kOneOf, {"ntlmssp", "ntlmsspi", "ntlmv2", "ntlmv2i", "none"}},
        {"cache", ValueKind::kOneOf, {"none", "strict", "loose"}},
        {"iocharset", ValueKind::kWord, {}},
        {"domain", ValueKind::kWord, {}},
        {"port", ValueKind::kPort, {}},
        {"rsize", ValueKind::kNumber, {}},
        {"wsize", ValueKind::kNumber, {}},
        {"actimeo", ValueKind::kNumber, {}},
        {"echo_interval", ValueKind::kNumber, {}},
        {"ro", ValueKind::kNone, {}},
        {"rw", ValueKind::kNone, {}},
        {"soft", ValueKind::kNone, {}},
        {"hard", ValueKind::kNone, {}},
        {"seal", ValueKind::kNone, {}},
        {"nobrl", ValueKind::kNone, {}},
        {"serverino", ValueKind::kNone, {}},
        {"noserverino", ValueKind::kNone, {}},
        {"mapposix", ValueKind::kNone, {}},
        {"noatime", ValueKind::kNone, {}},
    };
    return options;
}

const std::vector<Option>& NfsOptions() {
    static const std::vector<Option> options{
        {"sec", ValueKind::kOneOf, {"sys", "krb5", "krb5i", "krb5p"}},
        {"port", ValueKind::kPort, {}},
        {"mountport", ValueKind::kPort, {}},
        {"rsize", ValueKind::kNumber, {}},
        {"wsize", ValueKind::kNumber, {}},
        {"timeo", ValueKind::kNumber, {}},
        {"retrans", ValueKind::kNumber, {}},
        {"actimeo", ValueKind::kNumber, {}},
        {"nconnect", ValueKind::kNumber, {}},
        {"ro", ValueKind::kNone, {}},
        {"rw", ValueKind::kNone, {}},
        {"soft", ValueKind::kNone, {}},
        {"hard", ValueKind::kNone, {}},
        {"lock", ValueKind::kNone, {}},
        {"nolock", ValueKind::kNone, {}},
        {"ac", ValueKind::kNone, {}},
        {"noac", ValueKind::kNone, {}},
        {"noatime", ValueKind::kNone, {}},
    };
    return options;
}

bool FitsOption(const Option& option, bool hasValue, const std::string& value) {
    switch (option.kind) {
        case ValueKind::kNone:
            return !hasValue;
        case ValueKind::kNumber:
            return IsNumber(value);
        case ValueKind::kPort:
            return IsPort(value);
        case ValueKind::kWord:
            return IsWord(value);
        case ValueKind::kOneOf:
            return std::find(option.values.begin(), option.values.end(), value) != option.values.end();
    }
    return false;
}

std::string Trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(' ');
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

void Add(std::string& options, const std::string& option) {
    options += (options.empty() ? "" : ",") + option;
}

bool AddNfsVersion(const MountWishes& wishes, std::string& options) {
    static const std::array<const char*, 6> kVersions{"", "3", "4", "4.0", "4.1", "4.2"};
    static const std::array<const char*, 3> kProtocols{"", "tcp", "udp"};
    if (std::find(kVersions.begin(), kVersions.end(), wishes.version) == kVersions.end() ||
        std::find(kProtocols.begin(), kProtocols.end(), wishes.protocol) == kProtocols.end()) {
        return false;
    }
    if (!wishes.version.empty()) {
        Add(options, "vers=" + wishes.version);
    }
    if (!wishes.protocol.empty()) {
        Add(options, "proto=" + wishes.protocol);
    }
    return true;
}

}  // namespace

const char* TextOf(RemoteType type) { return type == RemoteType::kCifs ? "cifs" : "nfs"; }

std::optional<RemoteType> RemoteTypeOf(const std::string& text) {
    if (text == "cifs") {
        return RemoteType::kCifs;
    }
    return text == "nfs" ? std::optional(RemoteType::kNfs) : std::nullopt;
}

std::optional<MountSource> ParseMountSource(RemoteType type, const std::string& text) {
    if (text.empty() || text.size() > kLongestSource || HasControl(text) ||
        text.find(',') != std::string::npos) {
        return std::nullopt;
    }
    return type == RemoteType::kCifs ? ParseCifs(text) : ParseNfs(text);
}

bool IsUsableAccount(const MountAccount& account) {
    return account.name.size() <= kLongestName && account.password.size() <= kLongestPassword &&
           !HasControl(account.name) && !HasControl(account.password);
}

std::optional<std::string> AllowedOptions(const MountWishes& wishes) {
    const auto& allowed = wishes.type == RemoteType::kCifs ? CifsOptions() : NfsOptions();
    std::string options;
    if (wishes.type == RemoteType::kNfs && !AddNfsVersion(wishes, options)) {
        return std::nullopt;
    }
    std::set<std::string> seen;
    std::istringstream texts(wishes.wanted);
    for (std::string text; std::getline(texts, text, ',');) {
        text = Trimmed(text);
        if (text.empty()) {
            continue;
        }
        const auto equals = text.find('=');
        const std::string name = text.substr(0, equals);
        const std::string value = equals == std::string::npos ? "" : text.substr(equals + 1);
        const auto option = std::find_if(allowed.begin(), allowed.end(),
                                         [&name](const Option& each) { return each.name == name; });
        if (option == allowed.end() || !FitsOption(*option, equals != std::string::npos, value) ||
            !seen.insert(name).second) {
            return std::nullopt;
        }
        Add(options, text);
    }
    return options;
}

int ServerPort(RemoteType type, const std::string& options) {
    constexpr const char* kPort = "port=";
    std::istringstream texts(options);
    for (std::string option; std::getline(texts, option, ',');) {
        if (option.rfind(kPort, 0) == 0) {
            return NumberOf(option.substr(std::string(kPort).size()));
        }
    }
    return type == RemoteType::kCifs ? kCifsPort : kNfsPort;
}

}  // namespace korv
