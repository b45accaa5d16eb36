#pragma once

#include <string>

// The keys that servers show to each other, by their fingerprints: "sha256//" and the base64 text of the
// SHA-256 hash of the public key.
namespace pavane {

// True for a text of that form.
bool IsFingerprint(const std::string& text);

// The fingerprint of this server's own key; throws std::runtime_error when its certificate can't be read.
std::string OwnFingerprint();

// What the server at `address` (pavane/cms/peer_address.h) shows as its key at the moment, without sending it
// anything. Empty when it can't be reached or speaks no TLS. Blocks for seconds at most.
std::string ShownFingerprint(const std::string& address);

}  // namespace pavane
