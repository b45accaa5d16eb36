#include "korv/system/address_range.h"

#include <algorithm>
#include <charconv>

#include <arpa/inet.h>

namespace korv {

namespace {

constexpr unsigned kBitsPerByte = 8;
constexpr std::size_t kIpv4Size = 4;
constexpr std::array<std::uint8_t, 12> kMappedPrefix{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
constexpr unsigned kMappedPrefixBits = kMappedPrefix.size() * kBitsPerByte;

bool IsMapped(const IpAddress& address) {
    return address.size == IpAddress::kLargestSize &&
           std::equal(kMappedPrefix.begin(), kMappedPrefix.end(), address.bytes.begin());
}

IpAddress Unmapped(const IpAddress& address) {
    IpAddress result;
    result.size = kIpv4Size;
    std::copy_n(address.bytes.begin() + kMappedPrefix.size(), kIpv4Size, result.bytes.begin());
    return result;
}

std::optional<IpAddress> ParseAsWritten(const std::string& text) {
    IpAddress address;
    if (text.find('\0') != std::string::npos) {
        return std::nullopt;
    }
    if (inet_pton(AF_INET, text.c_str(), address.bytes.data()) == 1) {
        address.size = kIpv4Size;
        return address;
    }
    if (inet_pton(AF_INET6, text.c_str(), address.bytes.data()) == 1) {
        address.size = IpAddress::kLargestSize;
        return address;
    }
    return std::nullopt;
}

std::optional<unsigned> ParsePrefix(const std::string& text, unsigned largest) {
    unsigned bits = 0;
    const char* end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, bits);
    if (failure != std::errc() || stop != end || bits > largest) {
        return std::nullopt;
    }
    return bits;
}

// The bits of byte `index` that belong to a prefix of `prefixBits`.
std::uint8_t PrefixMask(std::size_t index, unsigned prefixBits) {
    const unsigned before = static_cast<unsigned>(index) * kBitsPerByte;
    const unsigned bits = prefixBits <= before ? 0 : std::min(prefixBits - before, kBitsPerByte);
    return static_cast<std::uint8_t>(0xFF00U >> bits);
}

}  // namespace

std::optional<IpAddress> ParseAddress(const std::string& text) {
    auto address = ParseAsWritten(text);
    return address && IsMapped(*address) ? Unmapped(*address) : address;
}

std::optional<AddressRange> ParseAddressRange(const std::string& text) {
    const std::size_t slash = text.find('/');
    const auto address = ParseAsWritten(text.substr(0, slash));
    if (!address) {
        return std::nullopt;
    }
    AddressRange range{*address, static_cast<unsigned>(address->size) * kBitsPerByte};
    if (slash != std::string::npos) {
        const auto bits = ParsePrefix(text.substr(slash + 1), range.prefixBits);
        if (!bits) {
            return std::nullopt;
        }
        range.prefixBits = *bits;
    }
    if (IsMapped(range.first) && range.prefixBits >= kMappedPrefixBits) {
        range = AddressRange{Unmapped(range.first), range.prefixBits - kMappedPrefixBits};
    }
    for (std::size_t i = 0; i < range.first.size; ++i) {
        range.first.bytes[i] &= PrefixMask(i, range.prefixBits);
    }
    return range;
}

std::string AddressRangeText(const AddressRange& range) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    const int family = range.first.size == kIpv4Size ? AF_INET : AF_INET6;
    inet_ntop(family, range.first.bytes.data(), text.data(), text.size());
    return std::string(text.data()) + "/" + std::to_string(range.prefixBits);
}

bool Contains(const AddressRange& range, const IpAddress& address) {
    if (range.first.size != address.size) {
        return false;
    }
    for (std::size_t i = 0; i < address.size; ++i) {
        if (((range.first.bytes[i] ^ address.bytes[i]) & PrefixMask(i, range.prefixBits)) != 0) {
            return false;
        }
    }
    return true;
}

}  // namespace korv
