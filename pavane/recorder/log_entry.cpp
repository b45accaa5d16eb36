#include "pavane/recorder/log_entry.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <optional>
#include <utility>

namespace pavane {

namespace {

constexpr std::size_t kStampSize = 64;

void AppendStamp(std::string& entry) {
    constexpr long kNsPerMs = 1000000;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    std::array<char, kStampSize> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
    entry.append(text.data(), length);
    const int written =
        std::snprintf(text.data(), text.size(), ".%03ldZ [%d]", now.tv_nsec / kNsPerMs, getpid());
    entry.append(text.data(), static_cast<std::size_t>(written));
}

void AppendEscaped(std::string& entry, unsigned char byte) {
    constexpr const char* kHex = "0123456789abcdef";
    switch (byte) {
        case '\n':
            entry += "\\n";
            return;
        case '\r':
            entry += "\\r";
            return;
        case '\t':
            entry += "\\t";
            return;
        default:
            entry += "\\x";
            entry += kHex[byte >> 4U];
            entry += kHex[byte & 0xFU];
    }
}

// C0 controls, DEL, and the C1 controls as UTF-8 encodes them (0xc2, then 0x80 to 0x9f).
void AppendText(std::string& entry, std::string_view text) {
    constexpr unsigned char kFirstPrintable = 0x20;
    constexpr unsigned char kDelete = 0x7F;
    constexpr unsigned char kC1Lead = 0xC2;
    constexpr unsigned char kC1End = 0xA0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const unsigned char next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
        if (byte == kC1Lead && next > kDelete && next < kC1End) {
            AppendEscaped(entry, byte);
            AppendEscaped(entry, next);
            ++i;
        } else if (byte < kFirstPrintable || byte == kDelete) {
            AppendEscaped(entry, byte);
        } else {
            entry += text[i];
        }
    }
}

// Values of these keys in a JSON text are secrets.
constexpr std::array<std::string_view, 7> kSecretKeys{"enc_passwd", "encPasswd", "passwd",      "password",
                                                      "cookie",     "secret",    "korv_session"};
constexpr std::string_view kBlanks = " \t\r\n";

// Where the value of a secret key begins, its opening quote included, and the first byte behind it.
std::optional<std::pair<std::size_t, std::size_t>> FindSecret(std::string_view text, std::size_t from) {
    for (std::size_t quote = text.find('"', from); quote != std::string_view::npos;
         quote = text.find('"', quote + 1)) {
        const auto isKey = [&](std::string_view key) {
            return text.substr(quote + 1, key.size()) == key &&
                   text.substr(quote + 1 + key.size(), 1) == "\"";
        };
        const auto* const key = std::find_if(kSecretKeys.begin(), kSecretKeys.end(), isKey);
        if (key == kSecretKeys.end()) {
            continue;
        }
        const std::size_t colon = text.find_first_not_of(kBlanks, quote + key->size() + 2);
        if (colon == std::string_view::npos || text[colon] != ':') {
            continue;
        }
        const std::size_t start = text.find_first_not_of(kBlanks, colon + 1);
        if (start == std::string_view::npos || text[start] != '"') {
            continue;
        }
        std::size_t end = start + 1;
        while (end < text.size() && text[end] != '"') {
            end += text[end] == '\\' ? 2 : 1;
        }
        return std::pair(start, std::min(end + 1, text.size()));
    }
    return std::nullopt;
}

void AppendTextWithoutSecrets(std::string& entry, std::string_view text) {
    std::size_t done = 0;
    while (const auto secret = FindSecret(text, done)) {
        AppendText(entry, text.substr(done, secret->first - done));
        entry += "\"***\"";
        done = secret->second;
    }
    AppendText(entry, text.substr(done));
}

void AppendTag(std::string& entry, const char* name) {
    if (name != nullptr) {
        entry += " [";
        AppendText(entry, name);
        entry += ']';
    }
}

}  // namespace

std::string FormatLogEntry(const LogOrigin& origin, std::string_view text) {
    constexpr std::size_t kHeadRoom = 160;
    while (!text.empty() && text.back() == '\n') {
        text.remove_suffix(1);
    }
    const std::size_t dropped = text.size() > kLogTextLimit ? text.size() - kLogTextLimit : 0;
    text.remove_suffix(dropped);

    std::string entry;
    entry.reserve(text.size() + kHeadRoom);
    AppendStamp(entry);
    AppendTag(entry, origin.category);
    AppendTag(entry, origin.level);
    entry += ' ';
    AppendText(entry, origin.file != nullptr ? origin.file : "");
    entry += ':';
    entry += std::to_string(origin.line);
    entry += ' ';
    AppendText(entry, origin.function != nullptr ? origin.function : "");
    entry += ": ";
    AppendTextWithoutSecrets(entry, text);
    if (dropped > 0) {
        entry += " ... (" + std::to_string(dropped) + " bytes left out)";
    }
    entry += '\n';
    return entry;
}

}  // namespace pavane
