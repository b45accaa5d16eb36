#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace korv {

// An IPv4 or IPv6 address; an IPv4 address that comes in IPv6's clothes (::ffff:1.2.3.4) is an IPv4 address.
struct IpAddress {
    static constexpr std::size_t kLargestSize = 16;

    std::array<std::uint8_t, kLargestSize> bytes{};
    std::size_t size = 0;  // bytes in use: 4 or 16
};

// Addresses that share their first `prefixBits` bits.
struct AddressRange {
    IpAddress first;
    unsigned prefixBits = 0;
};

// Reads "192.0.2.7" or "2001:db8::7"; none for any other text (a port, a zone, blanks).
std::optional<IpAddress> ParseAddress(const std::string& text);

// Reads a single address or CIDR notation: "192.0.2.0/24", "2001:db8::/32". Bits after the prefix are
// cleared.
std::optional<AddressRange> ParseAddressRange(const std::string& text);

// The one way of writing a range, so that equal ranges have equal texts: "192.0.2.0/24".
std::string AddressRangeText(const AddressRange& range);

bool Contains(const AddressRange& range, const IpAddress& address);

}  // namespace korv
