#include "korv/system/exported_key.h"

#include <fcntl.h>
#include <sodium.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <vector>

#include <sys/stat.h>

#include "platform/korv/configuration.h"

#include "korv/system/file_descriptor.h"

namespace korv {

namespace {

constexpr std::size_t kNodeIdBytes = 16;
constexpr std::size_t kLongestText = 255;
constexpr std::size_t kLongestPassword = 2048;
constexpr std::size_t kNonceBytes = crypto_aead_xchacha20poly1305_ietf_NPUBBYTES;
constexpr std::size_t kTagBytes = crypto_aead_xchacha20poly1305_ietf_ABYTES;
constexpr std::size_t kKeyBytes = crypto_aead_xchacha20poly1305_ietf_KEYBYTES;
constexpr const char* kTextStart = "$korvkey$1$";

const std::string& Magic() {
    static const std::string magic("KORVKEY\x01", 8);
    return magic;
}

void Initialize() {
    if (sodium_init() < 0) {
        throw std::runtime_error("libsodium can't be used");
    }
}

unsigned char* Bytes(std::string& text) { return reinterpret_cast<unsigned char*>(text.data()); }
const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

// The key that one share's password is kept under; wiped at its end.
class SealingKey {
public:
    SealingKey(const std::string& token, const std::string& salt) {
        std::array<unsigned char, crypto_generichash_KEYBYTES> saltKey{};
        crypto_generichash(saltKey.data(), saltKey.size(), Bytes(salt), salt.size(), nullptr, 0);
        crypto_generichash(m_key.data(), m_key.size(), Bytes(token), token.size(), saltKey.data(),
                           saltKey.size());
    }
    ~SealingKey() { sodium_memzero(m_key.data(), m_key.size()); }
    SealingKey(const SealingKey&) = delete;
    SealingKey& operator=(const SealingKey&) = delete;
    const unsigned char* Data() const { return m_key.data(); }

private:
    std::array<unsigned char, kKeyBytes> m_key{};
};

void AppendText(std::string& content, const std::string& text) {
    content += static_cast<char>(static_cast<unsigned char>(text.size()));
    content += text;
}

// Reads one piece after the other; everything is refused from the first one on that isn't there.
class Reader {
public:
    explicit Reader(const std::string& content) : m_content(content) {}

    std::string Take(std::size_t length) {
        m_isGood = m_isGood && m_content.size() - m_position >= length;
        if (!m_isGood) {
            return {};
        }
        m_position += length;
        return m_content.substr(m_position - length, length);
    }
    std::string TakeText() {
        const std::string length = Take(1);
        return m_isGood ? Take(static_cast<unsigned char>(length.front())) : "";
    }
    bool IsGood() const { return m_isGood; }
    std::size_t Position() const { return m_position; }

private:
    const std::string& m_content;
    std::size_t m_position = 0;
    bool m_isGood = true;
};

std::string ToHex(const std::string& bytes) {
    std::string text(bytes.size() * 2 + 1, '\0');
    sodium_bin2hex(text.data(), text.size(), Bytes(bytes), bytes.size());
    text.pop_back();
    return text;
}

std::optional<std::string> FromHex(const std::string& text, std::size_t length) {
    std::string bytes(length, '\0');
    std::size_t found = 0;
    const bool isRead =
        text.size() == length * 2 &&
        sodium_hex2bin(Bytes(bytes), length, text.data(), text.size(), nullptr, &found, nullptr) == 0;
    return isRead && found == length ? std::optional(bytes) : std::nullopt;
}

std::string ReadFile(const std::string& path) {
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    std::string text(kNodeIdBytes * 2, '\0');
    const ssize_t length = file ? read(file.Get(), text.data(), text.size()) : -1;
    text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return text;
}

}  // namespace

std::optional<std::string> SealKey(const ExportedKey& key, const std::string& salt) {
    Initialize();
    const auto nodeId = FromHex(key.nodeId, kNodeIdBytes);
    if (!nodeId || key.shareToken.empty() || key.shareToken.size() > kLongestText ||
        key.shareName.size() > kLongestText || key.password.empty() ||
        key.password.size() > kLongestPassword) {
        return std::nullopt;
    }
    std::string content = Magic() + *nodeId;
    AppendText(content, key.shareToken);
    AppendText(content, key.shareName);
    std::string nonce(kNonceBytes, '\0');
    randombytes_buf(nonce.data(), nonce.size());
    content += nonce;
    const SealingKey sealing(key.shareToken, salt);
    std::string sealed(key.password.size() + kTagBytes, '\0');
    unsigned long long length = 0;
    crypto_aead_xchacha20poly1305_ietf_encrypt(Bytes(sealed), &length, Bytes(key.password),
                                               key.password.size(), Bytes(content), content.size(), nullptr,
                                               Bytes(nonce), sealing.Data());
    sealed.resize(static_cast<std::size_t>(length));
    content += sealed;
    return content;
}

std::optional<ExportedKey> OpenKey(const std::string& content, const std::string& salt) {
    Initialize();
    Reader reader(content);
    ExportedKey key;
    const std::string magic = reader.Take(Magic().size());
    key.nodeId = ToHex(reader.Take(kNodeIdBytes));
    key.shareToken = reader.TakeText();
    key.shareName = reader.TakeText();
    const std::string nonce = reader.Take(kNonceBytes);
    const std::size_t headLength = reader.Position();
    if (!reader.IsGood() || magic != Magic() || content.size() > kLongestKeyFile ||
        content.size() - headLength <= kTagBytes) {
        return std::nullopt;
    }
    const SealingKey sealing(key.shareToken, salt);
    key.password.resize(content.size() - headLength - kTagBytes);
    unsigned long long length = 0;
    const bool isGenuine =
        crypto_aead_xchacha20poly1305_ietf_decrypt(
            Bytes(key.password), &length, nullptr, Bytes(content) + headLength, content.size() - headLength,
            Bytes(content), headLength, Bytes(nonce), sealing.Data()) == 0;
    return isGenuine ? std::optional(key) : std::nullopt;
}

std::string KeyText(const ExportedKey& key) { return kTextStart + key.shareToken + "$" + key.password; }

std::optional<KeyTextParts> ParseKeyText(const std::string& text) {
    const std::string start = kTextStart;
    const auto end = text.find('$', start.size());
    if (text.rfind(start, 0) != 0 || end == std::string::npos) {
        return std::nullopt;
    }
    return KeyTextParts{text.substr(start.size(), end - start.size()), text.substr(end + 1)};
}

// Made under a name of its own and linked, so that of two processes that find none one wins.
std::string NodeId() {
    Initialize();
    const std::string path = KORV::GetConfiguration().stateDir + "/node-id";
    std::string id = ReadFile(path);
    if (FromHex(id, kNodeIdBytes)) {
        return id;
    }
    std::string bytes(kNodeIdBytes, '\0');
    randombytes_buf(bytes.data(), bytes.size());
    id = ToHex(bytes);
    const std::string fresh = path + "." + std::to_string(getpid());
    const FileDescriptor file(
        open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, S_IRUSR | S_IWUSR));
    const bool isWritten = file &&
                           write(file.Get(), id.data(), id.size()) == static_cast<ssize_t>(id.size()) &&
                           fsync(file.Get()) == 0;
    const bool isLinked = isWritten && (link(fresh.c_str(), path.c_str()) == 0 || errno == EEXIST);
    const int error = errno;
    unlink(fresh.c_str());
    if (!isLinked) {
        throw std::system_error(error, std::generic_category(), "cannot make this node's id");
    }
    return ReadFile(path);
}

}  // namespace korv
