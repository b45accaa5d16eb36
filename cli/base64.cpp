#include "cli/base64.h"

#include <cstdint>
#include <stdexcept>
#include <string_view>

namespace cli {

std::string DecodeBase64(const std::string& text) {
    constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    constexpr unsigned kDigitBits = 6;
    constexpr unsigned kByteBits = 8;
    constexpr unsigned kByteMask = 0xFF;
    constexpr std::size_t kGroup = 4;
    const std::size_t end = text.find('=');
    const std::size_t digits = end == std::string::npos ? text.size() : end;
    const bool isPadded =
        text.find_first_not_of('=', digits) == std::string::npos && text.size() - digits < kGroup - 1;
    if (text.size() % kGroup != 0 || !isPadded) {
        throw std::runtime_error("the server's file is damaged");
    }
    std::string bytes;
    std::uint32_t pending = 0;
    unsigned bits = 0;
    for (std::size_t i = 0; i < digits; ++i) {
        const std::size_t value = kDigits.find(text[i]);
        if (value == std::string_view::npos) {
            throw std::runtime_error("the server's file is damaged");
        }
        pending = (pending << kDigitBits) | static_cast<std::uint32_t>(value);
        bits += kDigitBits;
        if (bits >= kByteBits) {
            bits -= kByteBits;
            bytes += static_cast<char>((pending >> bits) & kByteMask);
        }
    }
    return bytes;
}

}  // namespace cli
