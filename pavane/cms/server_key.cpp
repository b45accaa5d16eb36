#include "pavane/cms/server_key.h"

#include <array>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include <curl/curl.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/sha.h>
#include <openssl/x509.h>

#include "platform/korv/configuration.h"

#include "pavane/cms/peer_address.h"

namespace pavane {

namespace {

constexpr std::string_view kPrefix = "sha256//";
constexpr std::size_t kBase64Length = 44;
constexpr long kTimeout_ms = 5000;

struct Deleter {
    void operator()(BIO* bio) const { BIO_free(bio); }
    void operator()(X509* certificate) const { X509_free(certificate); }
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};

using Bio = std::unique_ptr<BIO, Deleter>;
using Certificate = std::unique_ptr<X509, Deleter>;

// Empty for a text that is no certificate.
std::string FingerprintOf(const std::string& pem) {
    const Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    const Certificate certificate(bio != nullptr ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)
                                                 : nullptr);
    unsigned char* key = nullptr;
    const int length =
        certificate != nullptr ? i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate.get()), &key) : -1;
    if (length <= 0) {
        return "";
    }
    std::array<unsigned char, SHA256_DIGEST_LENGTH> hash{};
    SHA256(key, static_cast<std::size_t>(length), hash.data());
    OPENSSL_free(key);
    std::array<unsigned char, kBase64Length + 1> text{};
    EVP_EncodeBlock(text.data(), hash.data(), static_cast<int>(hash.size()));
    return std::string(kPrefix) + reinterpret_cast<const char*>(text.data());
}

std::size_t Ignore(char* /*data*/, std::size_t size, std::size_t count, void* /*context*/) {
    return size * count;
}

// The certificate among what the library tells of a connection, which are lines "Name:value".
std::string CertificateOf(CURL* handle) {
    constexpr std::string_view kName = "Cert:";
    curl_certinfo* chain = nullptr;
    if (curl_easy_getinfo(handle, CURLINFO_CERTINFO, &chain) != CURLE_OK || chain == nullptr ||
        chain->num_of_certs < 1) {
        return "";
    }
    for (const curl_slist* line = chain->certinfo[0]; line != nullptr; line = line->next) {
        if (std::strncmp(line->data, kName.data(), kName.size()) == 0) {
            return line->data + kName.size();
        }
    }
    return "";
}

}  // namespace

bool IsFingerprint(const std::string& text) {
    constexpr const char* kBase64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
    return text.size() == kPrefix.size() + kBase64Length && text.rfind(kPrefix, 0) == 0 &&
           text.find_first_not_of(kBase64, kPrefix.size()) == std::string::npos;
}

std::string OwnFingerprint() {
    std::ostringstream pem;
    pem << std::ifstream(KORV::GetConfiguration().peerCertificate).rdbuf();
    std::string fingerprint = FingerprintOf(pem.str());
    if (fingerprint.empty()) {
        throw std::runtime_error("this server's own certificate for paired servers can't be read");
    }
    return fingerprint;
}

std::string ShownFingerprint(const std::string& address) {
    if (!IsPeerAddress(address)) {
        return "";
    }
    const std::unique_ptr<CURL, Deleter> handle(curl_easy_init());
    if (handle == nullptr) {
        return "";
    }
    // A whole exchange, for a request that says and changes nothing: the library tells nothing of a
    // connection alone.
    const std::string url = address + "/";
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(handle.get(), CURLOPT_NOBODY, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_PROXY, "");
    curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT_MS, kTimeout_ms);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, &Ignore);
    curl_easy_setopt(handle.get(), CURLOPT_CERTINFO, 1L);
    // Whose key it is has to be found out first; a person compares it.
    curl_easy_setopt(handle.get(), CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(handle.get(), CURLOPT_SSL_VERIFYHOST, 0L);
    return curl_easy_perform(handle.get()) == CURLE_OK ? FingerprintOf(CertificateOf(handle.get())) : "";
}

}  // namespace pavane
