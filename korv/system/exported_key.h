#pragma once

#include <optional>
#include <string>

// Exported keys of encrypted shares: the file that an administrator downloads, and the text that stands for
// its content on its way to the service that unlocks.
//
// The file: "KORVKEY", a version byte, the id of the node that made it (16 bytes), the length and the text of
// the share's token and of its name (one byte each), a nonce, and the password under XChaCha20-Poly1305 with
// all that stands before as associated data; the key is a hash of the token, keyed with the salt. The salt is
// a constant of the format, the same on every node, since a host has to read the files of its recording
// servers: it tells these files from others and binds the password to its share, but who has the file has the
// key.
namespace korv {

struct ExportedKey {
    std::string nodeId;      // 32 hexadecimal digits
    std::string shareToken;  // of the share's row
    std::string shareName;   // when it was exported
    std::string password;    // a secret
};

inline constexpr std::size_t kLongestKeyFile = 4096;

// The file's content; none when a part is too long for it.
std::optional<std::string> SealKey(const ExportedKey& key, const std::string& salt);

// Reads a file's content; none unless every byte is as SealKey wrote it with that salt.
std::optional<ExportedKey> OpenKey(const std::string& content, const std::string& salt);

// What a reader of a key file hands on instead of the bare password, so that the key of one share doesn't
// open another that happens to have the same password.
std::string KeyText(const ExportedKey& key);

struct KeyTextParts {
    std::string shareToken;
    std::string password;
};

// Reads what KeyText wrote; none for any other text, such as a password that somebody typed.
std::optional<KeyTextParts> ParseKeyText(const std::string& text);

// This node's id, made at first use: <stateDir>/node-id. Throws std::system_error.
std::string NodeId();

}  // namespace korv
