#include "platform/korv/share_key.h"

#include <fcntl.h>
#include <sodium.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <string>

#include <sys/stat.h>

#include "korv/framework/log.h"
#include "korv/system/exported_key.h"
#include "korv/system/file_descriptor.h"
#include "korv/system/share_store.h"

namespace {

constexpr int kNoError = 0;
constexpr int kUnreadable = 0x0900;  // no such file, or not one that may be read
constexpr int kNotAKeyFile = 0x1100;
constexpr int kTooSmall = 0x1200;  // the caller's buffer
constexpr int kInternal = 0x2000;

int g_error = kNoError;

int Fail(int error) {
    g_error = error;
    return -1;
}

// At most one byte more than a key file may have, so that a longer one is seen to be too long.
bool ReadContent(const char* path, std::string& content) {
    const korv::FileDescriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat facts {};
    if (!file || fstat(file.Get(), &facts) != 0 || !S_ISREG(facts.st_mode)) {
        return false;
    }
    content.resize(korv::kLongestKeyFile + 1);
    std::size_t used = 0;
    ssize_t length = 0;
    while (used < content.size() &&
           (length = read(file.Get(), content.data() + used, content.size() - used)) > 0) {
        used += static_cast<std::size_t>(length);
    }
    content.resize(used);
    return length >= 0;
}

// A share of another node can't be looked up here; its own node will tell.
bool IsShareGone(const korv::ExportedKey& key) {
    if (key.nodeId != korv::NodeId()) {
        return false;
    }
    const auto shares = korv::ListShares();
    return std::none_of(shares.begin(), shares.end(),
                        [&key](const korv::ShareRow& share) { return share.token == key.shareToken; });
}

int Read(const char* path, const char* salt, char* buffer, std::size_t size) {
    std::string content;
    if (path == nullptr || salt == nullptr || !ReadContent(path, content)) {
        return Fail(kUnreadable);
    }
    auto key = korv::OpenKey(content, salt);
    if (!key) {
        return Fail(kNotAKeyFile);
    }
    std::string text = korv::KeyText(*key);
    const bool isGone = IsShareGone(*key);
    const bool isFitting = text.size() < size;
    if (isFitting && !isGone) {
        std::copy(text.begin(), text.end(), buffer);
    }
    sodium_memzero(text.data(), text.size());
    sodium_memzero(key->password.data(), key->password.size());
    if (isGone) {
        return Fail(kKlibErrNoSuchShare);
    }
    return isFitting ? kNoError : Fail(kTooSmall);
}

}  // namespace

const char* KORVShareEncExportKeySaltGet() { return "korv share key export v1"; }

int KORVShareEncKeyFileRead(const char* path, const char* salt, char* buffer, std::size_t size) {
    g_error = kNoError;
    if (buffer == nullptr || size == 0) {
        return Fail(kTooSmall);
    }
    explicit_bzero(buffer, size);
    try {
        return Read(path, salt, buffer, size);
    } catch (const std::exception& error) {
        korv::LogLine(std::string("a key file could not be read: ") + error.what());
        return Fail(kInternal);
    }
}

int KLIBCErrGet() { return g_error; }
