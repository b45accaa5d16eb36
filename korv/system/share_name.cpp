#include "korv/system/share_name.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <stdexcept>

#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include "korv/system/external_share.h"

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

bool IsBlankAt(const icu::UnicodeString& text, std::int32_t index) {
    return u_isUWhiteSpace(text.char32At(index)) != 0;
}

// Checks each character, and the blanks at the ends, of a name that is not empty.
bool IsAllowedText(const std::string& name) {
    const icu::UnicodeString text = icu::UnicodeString::fromUTF8(name);
    std::string wellFormed;
    text.toUTF8String(wellFormed);
    if (wellFormed != name || IsBlankAt(text, 0) || IsBlankAt(text, text.length() - 1)) {
        return false;
    }
    for (std::int32_t i = 0; i < text.length(); i = text.moveIndex32(i, 1)) {
        if (!IsAllowedCharacter(text.char32At(i))) {
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
    if (IsExternalShareName(name)) {
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
