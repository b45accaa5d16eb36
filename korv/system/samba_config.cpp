#include "korv/system/samba_config.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <sstream>

#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include "korv/system/share_name.h"

namespace korv {

namespace {

constexpr const char* kRefusedInNames = "%<>*?|/\\+=;:\",[]";
constexpr const char* kRefusedInPaths = "%\\\"\n\r";
// As keys: see ShareNameKey.
constexpr std::array<const char*, 6> kSambaNames{"global", "homes", "printers", "print$", "ipc$", "admin$"};
constexpr int kLongestComment_characters = 256;
constexpr UChar32 kFullWidthPercent = 0xFF05;

UChar32 InComment(UChar32 character) {
    if (character == '%') {
        return kFullWidthPercent;
    }
    const auto type = u_charType(character);
    const bool isBreak = type == U_CONTROL_CHAR || type == U_LINE_SEPARATOR || type == U_PARAGRAPH_SEPARATOR;
    return isBreak ? ' ' : character;
}

}  // namespace

bool IsSambaExportable(const ShareRow& share) {
    const std::string key = ShareNameKey(share.name);
    return share.name.find_first_of(kRefusedInNames) == std::string::npos &&
           share.name.find("  ") == std::string::npos &&
           share.volPath.find_first_of(kRefusedInPaths) == std::string::npos &&
           std::find(kSambaNames.begin(), kSambaNames.end(), key) == kSambaNames.end();
}

std::string SambaComment(const std::string& text) {
    const icu::UnicodeString source = icu::UnicodeString::fromUTF8(text);
    icu::UnicodeString line;
    std::int32_t i = 0;
    for (int count = 0; i < source.length() && count < kLongestComment_characters; ++count) {
        line.append(InComment(source.char32At(i)));
        i = source.moveIndex32(i, 1);
    }
    std::string comment;
    line.toUTF8String(comment);
    // A backslash at the end would join the next line.
    const std::size_t last = comment.find_last_not_of(" \\");
    return comment.substr(0, last == std::string::npos ? 0 : last + 1);
}

std::string SambaSections(const std::vector<ShareRow>& shares) {
    std::string text = "# Written by korv whenever a share changes; changes made here are lost.\n";
    for (const ShareRow& share : shares) {
        if (!IsSambaExportable(share)) {
            continue;
        }
        text += "\n[" + share.name + "]\n";
        text += "    path = " + share.Path() + "\n";
        text += "    comment = " + SambaComment(share.description) + "\n";
        text += std::string("    browseable = ") + (share.isHidden ? "no" : "yes") + "\n";
        // Who may do what stands in the folder's access control list.
        text += "    read only = no\n    inherit acls = yes\n";
    }
    return text;
}

std::vector<std::string> SectionsOfListing(const std::string& listing) {
    std::vector<std::string> names;
    std::istringstream lines(listing);
    for (std::string line; std::getline(lines, line);) {
        if (line.size() > 2 && line.front() == '[' && line.back() == ']' && line != "[global]") {
            names.push_back(line.substr(1, line.size() - 2));
        }
    }
    return names;
}

}  // namespace korv
