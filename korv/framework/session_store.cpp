#include "korv/framework/session_store.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <stdexcept>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <soci/soci.h>

#include "korv/system/database.h"
#include "korv/system/settings.h"

namespace korv {
namespace {

constexpr std::size_t kSecretBytes = 32;
constexpr int kMaxSeenPause_s = 60;  // how long a use of a session may stay unwritten
constexpr int kSeenPauseShare = 10;  // ... and that as a part of the idle time

using Bytes = std::array<unsigned char, kSecretBytes>;

std::string Hex(const Bytes& bytes) {
    constexpr const char* kDigits = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : bytes) {
        text += kDigits[byte >> 4U];
        text += kDigits[byte & 0xFU];
    }
    return text;
}

std::string NewSecret() {
    Bytes bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        throw std::runtime_error("no random bytes for a session");
    }
    return Hex(bytes);
}

std::string HashOf(const std::string& secret) {
    Bytes digest{};
    if (EVP_Digest(secret.data(), secret.size(), digest.data(), nullptr, EVP_sha256(), nullptr) != 1) {
        throw std::runtime_error("a session secret could not be hashed");
    }
    return Hex(digest);
}

bool IsEqual(const std::string& left, const std::string& right) {
    return left.size() == right.size() && CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

long long Now() { return static_cast<long long>(std::time(nullptr)); }

// Runs `work` on the database; the full text of its errors may hold bound values.
template <class Work>
auto OnDatabase(Work work) {
    try {
        return work(Database());
    } catch (const soci::soci_error& error) {
        throw std::runtime_error("sessions: database: " + error.get_error_message());
    }
}

struct SessionRow {
    std::string account;
    std::string csrfHash;
    long long lastSeen_s = 0;
};

std::optional<SessionRow> FindSession(soci::session& database, const std::string& idHash) {
    SessionRow row;
    database << "select account, csrf_hash, last_seen_s from session where id_hash = :id_hash",
        soci::into(row.account), soci::into(row.csrfHash), soci::into(row.lastSeen_s), soci::use(idHash);
    return database.got_data() ? std::optional<SessionRow>(row) : std::nullopt;
}

}  // namespace

NewSession OpenSession(const std::string& account, const std::string& remoteIp) {
    NewSession session{NewSecret(), NewSecret()};
    const std::string idHash = HashOf(session.id);
    const std::string csrfHash = HashOf(session.csrf);
    const long long now_s = Now();
    const long long expired_s = now_s - GetSettings().session.idle_s;
    OnDatabase([&](soci::session& database) {
        WriteTransaction transaction(database);
        database << "delete from session where last_seen_s < :expired_s", soci::use(expired_s);
        database << "insert into session (id_hash, account, csrf_hash, created_s, last_seen_s, remote_ip)"
                    " values (:id_hash, :account, :csrf_hash, :created_s, :last_seen_s, :remote_ip)",
            soci::use(idHash), soci::use(account), soci::use(csrfHash), soci::use(now_s), soci::use(now_s),
            soci::use(remoteIp);
        transaction.Commit();
    });
    return session;
}

std::optional<std::string> SessionAccount(const std::string& id, const std::string* csrf) {
    const std::string idHash = HashOf(id);
    const int idle_s = GetSettings().session.idle_s;
    const long long now_s = Now();
    return OnDatabase([&](soci::session& database) -> std::optional<std::string> {
        const std::optional<SessionRow> row = FindSession(database, idHash);
        if (!row) {
            return std::nullopt;
        }
        if (row->lastSeen_s + idle_s < now_s) {
            database << "delete from session where id_hash = :id_hash", soci::use(idHash);
            return std::nullopt;
        }
        if (csrf != nullptr && !IsEqual(HashOf(*csrf), row->csrfHash)) {
            return std::nullopt;
        }
        if (now_s - row->lastSeen_s >= std::min(kMaxSeenPause_s, idle_s / kSeenPauseShare)) {
            database << "update session set last_seen_s = :now_s where id_hash = :id_hash", soci::use(now_s),
                soci::use(idHash);
        }
        return row->account;
    });
}

void CloseSession(const std::string& id) {
    const std::string idHash = HashOf(id);
    OnDatabase([&](soci::session& database) {
        database << "delete from session where id_hash = :id_hash", soci::use(idHash);
    });
}

bool IsLockedOut(const std::string& remoteIp) {
    const long long since_s = Now() - GetSettings().session.loginWindow_s;
    int failures = 0;
    OnDatabase([&](soci::session& database) {
        database << "select count(*) from login_failure where remote_ip = :remote_ip and at_s > :since_s",
            soci::into(failures), soci::use(remoteIp), soci::use(since_s);
    });
    return failures >= GetSettings().session.loginFailures;
}

void NoteLoginFailure(const std::string& remoteIp) {
    const long long now_s = Now();
    const long long since_s = now_s - GetSettings().session.loginWindow_s;
    OnDatabase([&](soci::session& database) {
        WriteTransaction transaction(database);
        database << "delete from login_failure where at_s <= :since_s", soci::use(since_s);
        database << "insert into login_failure (remote_ip, at_s) values (:remote_ip, :at_s)",
            soci::use(remoteIp), soci::use(now_s);
        transaction.Commit();
    });
}

}  // namespace korv
