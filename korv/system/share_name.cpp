#include "korv/system/share_name.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <stdexcept>

#include <unicode/bytestream.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

namespace korv {

namespace {

constexpr std::size_t kLongestName_bytes = 64;
// Names that file services give a meaning of their own; written as their keys.
constexpr std::array<const char*, 2> kReservedKeys{"homes", "netbackup"};

bool IsAllowedCharacter(UChar32 character) {
    switch (u_charType(character)) {
        case U_CONTROL_CHAR:
        case U_LINE_SEPARATOR:
        case U_PARAGRAPH_SEPARATOR:
            return false;
        default:
            return character != '/';
    }
}

// Checks each character, and the blanks at the ends.
bool IsAllowedText(const std::string& name) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(name.data());
    const auto length = static_cast<std::int32_t>(name.size());
    UChar32 character = 0;
    for (std::int32_t i = 0; i < length;) {
        const bool isFirst = i == 0;
        U8_NEXT(bytes, i, length, character);
        const bool isEnd = isFirst || i == length;
        if (character < 0 || !IsAllowedCharacter(character) || (isEnd && u_isUWhiteSpace(character) != 0)) {
            return false;
        }
    }
    return true;
}

void Check(UErrorCode status) {
    if (U_FAILURE(status)) {
        throw std::runtime_error(std::string("case folding failed: ") + u_errorName(status));
    }
}

}  // namespace

bool IsValidShareName(const std::string& name) {
    if (name.empty() || name.size() > kLongestName_bytes || name.front() == '.' || !IsAllowedText(name)) {
        return false;
    }
    return std::find(kReservedKeys.begin(), kReservedKeys.end(), ShareNameKey(name)) == kReservedKeys.end();
}

std::string ShareNameKey(const std::string& name) {
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* decomposer = icu::Normalizer2::getNFDInstance(status);
    Check(status);
    icu::UnicodeString folded = decomposer->normalize(icu::UnicodeString::fromUTF8(name), status);
    folded.foldCase(U_FOLD_CASE_DEFAULT);
    const icu::UnicodeString key = decomposer->normalize(folded, status);
    Check(status);
    std::string result;
    key.toUTF8String(result);
    return result;
}

}  // namespace korv
