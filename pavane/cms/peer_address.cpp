#include "pavane/cms/peer_address.h"

#include <cstdlib>
#include <string_view>

#include "platform/korv/configuration.h"

namespace pavane {

namespace {

constexpr std::string_view kTls = "https://";
constexpr std::string_view kPlain = "http://";
constexpr std::size_t kLongestHost = 253;

bool IsPort(std::string_view text) {
    constexpr std::size_t kMostDigits = 5;
    constexpr long kMostPort = 65535;
    if (text.empty() || text.size() > kMostDigits ||
        text.find_first_not_of("0123456789") != std::string_view::npos) {
        return false;
    }
    const long port = std::strtol(std::string(text).c_str(), nullptr, 10);
    return port >= 1 && port <= kMostPort;
}

bool IsHost(std::string_view text) {
    if (text.size() > 2 && text.front() == '[' && text.back() == ']') {
        return text.substr(1, text.size() - 2).find_first_not_of("0123456789abcdefABCDEF:.") ==
               std::string_view::npos;
    }
    constexpr const char* kNameCharacters =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-";
    return !text.empty() && text.size() <= kLongestHost && text.front() != '-' &&
           text.find_first_not_of(kNameCharacters) == std::string_view::npos;
}

bool IsLoopback(std::string_view host) {
    return host == "localhost" || host == "[::1]" ||
           (host.rfind("127.", 0) == 0 && host.find_first_not_of("0123456789.") == std::string_view::npos);
}

}  // namespace

bool IsPeerAddress(const std::string& address) {
    std::string_view rest = address;
    const bool isTls = rest.rfind(kTls, 0) == 0;
    if (!isTls && rest.rfind(kPlain, 0) != 0) {
        return false;
    }
    rest.remove_prefix((isTls ? kTls : kPlain).size());
    const std::size_t colon = rest.rfind(':');
    if (colon == std::string_view::npos || !IsPort(rest.substr(colon + 1))) {
        return false;
    }
    const std::string_view host = rest.substr(0, colon);
    return IsHost(host) && (isTls || IsLoopback(host));
}

std::string OwnPeerAddress(const std::string& ip) {
    const KORV::Configuration& node = KORV::GetConfiguration();
    if (node.peerListen.empty() || !node.peerAddress.empty()) {
        return node.peerAddress;
    }
    const std::string host = ip.find(':') != std::string::npos ? "[" + ip + "]" : ip;
    return std::string(kTls) + host + node.peerListen.substr(node.peerListen.rfind(':'));
}

}  // namespace pavane
