#include "korvd/peer_certificate.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include "korv/system/file_descriptor.h"

namespace {

constexpr mode_t kOwnerOnly = 0600;
constexpr mode_t kReadable = 0644;
constexpr long kVersion3 = 2;
constexpr long kBackdated_s = 86400;           // a peer's clock may be behind
constexpr long kValid_s = 86400L * 365 * 100;  // peers trust the key, not a date

struct OpenSslDeleter {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(X509* certificate) const { X509_free(certificate); }
    void operator()(BIO* bio) const { BIO_free(bio); }
};

using Key = std::unique_ptr<EVP_PKEY, OpenSslDeleter>;
using Certificate = std::unique_ptr<X509, OpenSslDeleter>;
using Bio = std::unique_ptr<BIO, OpenSslDeleter>;

void Check(bool isGood) {
    if (!isGood) {
        throw std::runtime_error("the certificate for paired servers could not be made");
    }
}

Certificate MakeCertificate(EVP_PKEY* key) {
    Certificate certificate(X509_new());
    Check(certificate != nullptr);
    X509* const x509 = certificate.get();
    std::uint64_t serial = 0;
    Check(RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial) == 1);
    X509_NAME* const name = X509_get_subject_name(x509);
    Check(X509_set_version(x509, kVersion3) == 1 &&
          ASN1_INTEGER_set_uint64(X509_get_serialNumber(x509), serial) == 1 &&
          X509_gmtime_adj(X509_getm_notBefore(x509), -kBackdated_s) != nullptr &&
          X509_gmtime_adj(X509_getm_notAfter(x509), kValid_s) != nullptr && X509_set_pubkey(x509, key) == 1 &&
          X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                     reinterpret_cast<const unsigned char*>("recorder"), -1, -1, 0) == 1 &&
          X509_set_issuer_name(x509, name) == 1 && X509_sign(x509, key, EVP_sha256()) > 0);
    return certificate;
}

std::string TextOf(BIO* bio) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return {data, static_cast<std::size_t>(size)};
}

// Written beside and renamed, so that a crash leaves no half of it.
void WriteFile(const std::string& path, const std::string& text, mode_t mode) {
    const std::string unfinished = path + ".new";
    if (unlink(unfinished.c_str()) != 0 && errno != ENOENT) {
        throw std::system_error(errno, std::generic_category(), "cannot replace " + unfinished);
    }
    const korv::FileDescriptor file(
        open(unfinished.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode));
    if (!file || fchmod(file.Get(), mode) != 0 ||
        write(file.Get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        fsync(file.Get()) != 0 || rename(unfinished.c_str(), path.c_str()) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot write " + path);
    }
}

Key ReadKey(const std::string& path) {
    const Bio file(BIO_new_file(path.c_str(), "r"));
    const auto askNobody = [](char*, int, int, void*) { return -1; };
    Key key(file ? PEM_read_bio_PrivateKey(file.get(), nullptr, askNobody, nullptr) : nullptr);
    if (!key) {
        throw std::runtime_error("cannot read " + path + "; remove it to have a new key made, and pair anew");
    }
    return key;
}

bool IsThere(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

}  // namespace

void MakePeerCertificate(const korv::TlsSettings& files) {
    if (IsThere(files.certificate) && IsThere(files.key)) {
        return;
    }
    const bool hasKey = IsThere(files.key);  // which peers have pinned
    const Key key(hasKey ? ReadKey(files.key) : Key(EVP_EC_gen("P-256")));
    Check(key != nullptr);
    const Certificate certificate = MakeCertificate(key.get());
    const Bio keyText(BIO_new(BIO_s_secmem()));
    const Bio certificateText(BIO_new(BIO_s_mem()));
    Check(keyText != nullptr && certificateText != nullptr &&
          PEM_write_bio_PrivateKey(keyText.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1 &&
          PEM_write_bio_X509(certificateText.get(), certificate.get()) == 1);
    if (!hasKey) {
        WriteFile(files.key, TextOf(keyText.get()), kOwnerOnly);
    }
    WriteFile(files.certificate, TextOf(certificateText.get()), kReadable);
}
