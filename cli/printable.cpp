#include "cli/printable.h"

#include <algorithm>
#include <array>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cwchar>

namespace cli {

namespace {

constexpr char32_t kInvalid = 0xFFFFFFFF;

struct Character {
    char32_t code = kInvalid;  // kInvalid: no valid UTF-8 begins here
    std::size_t length = 1;    // bytes
};

std::uint8_t ByteAt(std::string_view text, std::size_t position) {
    return static_cast<std::uint8_t>(text[position]);
}

// How many bytes the character that begins with `lead` has; 0 when none begins so.
std::size_t LengthOf(std::uint8_t lead) {
    if (lead < 0x80) {
        return 1;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
        return 2;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        return 3;
    }
    return lead >= 0xF0 && lead <= 0xF4 ? 4 : 0;
}

Character Decode(std::string_view text, std::size_t position) {
    constexpr std::array<char32_t, 5> kLeastCode{0, 0, 0x80, 0x800, 0x10000};
    constexpr char32_t kMostCode = 0x10FFFF;
    const std::uint8_t lead = ByteAt(text, position);
    const std::size_t length = LengthOf(lead);
    if (length == 0 || length > text.size() - position) {
        return {};
    }
    char32_t code = length == 1 ? lead : lead & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        const std::uint8_t byte = ByteAt(text, position + i);
        if ((byte & 0xC0U) != 0x80) {
            return {};
        }
        code = (code << 6U) | (byte & 0x3FU);
    }
    const bool isSurrogate = code >= 0xD800 && code <= 0xDFFF;
    if (code < kLeastCode.at(length) || code > kMostCode || isSurrogate) {
        return {};
    }
    return {code, length};
}

struct CodeRange {
    char32_t first;
    char32_t last;
};

// Controls, separators, blanks other than the common one, what changes direction, and what is drawn as
// nothing (Unicode's default-ignorable code points and the empty Braille pattern). A name made of such, or
// with them, could look empty or like another one. Combining marks are drawn and stay, one without a letter
// before it, too.
constexpr std::array<CodeRange, 23> kShownByCode{{
    {0x0000, 0x001F},   {0x007F, 0x00A0},   {0x00AD, 0x00AD},   {0x034F, 0x034F}, {0x061C, 0x061C},
    {0x115F, 0x1160},   {0x1680, 0x1680},   {0x17B4, 0x17B5},   {0x180B, 0x180F}, {0x2000, 0x200F},
    {0x2028, 0x202F},   {0x205F, 0x206F},   {0x2800, 0x2800},   {0x3000, 0x3000}, {0x3164, 0x3164},
    {0xFE00, 0xFE0F},   {0xFEFF, 0xFEFF},   {0xFFA0, 0xFFA0},   {0xFFF0, 0xFFFB}, {0x1BCA0, 0x1BCA3},
    {0x1D159, 0x1D159}, {0x1D173, 0x1D17A}, {0xE0000, 0xE0FFF},
}};

bool MustBeShown(char32_t code) {
    return std::any_of(kShownByCode.begin(), kShownByCode.end(),
                       [code](const CodeRange& range) { return code >= range.first && code <= range.last; });
}

std::string Escape(const char* format, unsigned value) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), format, value);
    return text.data();
}

// Columns of a character that is shown as itself; -1 when the C library knows none.
int ColumnsOf(char32_t code) {
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (utf8 == nullptr) {
        return 1;
    }
    const locale_t before = uselocale(utf8);
    const int columns = wcwidth(static_cast<wchar_t>(code));
    uselocale(before);
    return columns;
}

}  // namespace

Printable MakePrintable(std::string_view text) {
    Printable shown;
    for (std::size_t position = 0; position < text.size();) {
        const Character character = Decode(text, position);
        const int columns = character.code == kInvalid ? -1 : ColumnsOf(character.code);
        std::string piece(text.substr(position, character.length));
        std::size_t width = columns > 0 ? static_cast<std::size_t>(columns) : 0;
        if (character.code == kInvalid || character.code < 0x80) {
            if (character.code == kInvalid || MustBeShown(character.code)) {
                piece = Escape("\\x%02x", ByteAt(text, position));
                width = piece.size();
            }
        } else if (columns < 0 || MustBeShown(character.code)) {
            piece = Escape("\\u%04x", static_cast<unsigned>(character.code));
            width = piece.size();
        }
        shown.text += piece;
        shown.width += width;
        position += character.length;
    }
    return shown;
}

}  // namespace cli
