#pragma once

#include <string>

namespace pavane {

// True for an address that a paired server may have: "https://HOST:PORT", or "http://HOST:PORT" when HOST is
// this machine's loopback (127.x.x.x, [::1] or localhost), where nobody can listen in. HOST is a name, an
// IPv4 address or an IPv6 address in brackets; nothing may follow the port.
bool IsPeerAddress(const std::string& address);

// The address under which others reach this server: the configured one, else the port of its peer listener at
// `ip`, the address of this machine that a connection to them uses. Empty without a peer listener.
std::string OwnPeerAddress(const std::string& ip);

}  // namespace pavane
