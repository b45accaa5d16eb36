#include "pavane/cms/pairing.h"

#include <array>
#include <charconv>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <soci/soci.h>

#include "platform/pavane/cms.h"

#include "pavane/cms/server_registry.h"
#include "pavane/cms/server_state.h"
#include "pavane/log_line.h"
#include "pavane/store/database.h"

namespace pavane {

namespace {

constexpr const char* kSource = "pavane/cms/pairing";
constexpr std::size_t kNonceBytes = 8;

std::string Hex(const unsigned char* bytes, std::size_t size) {
    constexpr const char* kDigits = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        text += kDigits[bytes[i] >> 4U];
        text += kDigits[bytes[i] & 0xFU];
    }
    return text;
}

bool IsHex(std::string_view text) {
    return text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

// The stamp's time in unix seconds, or false for a text that is not a stamp.
bool ParseStamp(std::string_view stamp, std::int64_t& time_s) {
    const std::size_t dot = stamp.find('.');
    if (dot == std::string_view::npos || stamp.size() - dot - 1 != 2 * kNonceBytes ||
        !IsHex(stamp.substr(dot + 1))) {
        return false;
    }
    const char* const end = stamp.data() + dot;
    const auto [rest, error] = std::from_chars(stamp.data(), end, time_s);
    return error == std::errc() && rest == end && time_s > 0;
}

struct Pair {
    std::string serial;  // of its recording server
    std::string secret;
};

// Those of the servers that this one's role gives a say. One that was a host keeps its pairings, but what its
// servers still relay to it would meet its own shares under their ids.
std::vector<Pair> Pairs(CmsRole role) {
    std::vector<Pair> pairs;
    if (role == CmsRole::kNone) {
        return pairs;
    }
    Pair pair;
    soci::statement statement =
        (AppDatabase().Session().prepare
             << (role == CmsRole::kHost ? "select serial, pair_secret from rec_server"
                                        : "select own_serial, pair_secret from cms_host")
             << " where pair_secret <> ''",
         soci::into(pair.serial), soci::into(pair.secret));
    for (bool more = statement.execute(true); more; more = statement.fetch()) {
        pairs.push_back(pair);
    }
    return pairs;
}

// What a host takes from the recording server `serial`: what that one relays in its own name, and the calls
// of central management. With anything else a server's key would be worth as much as an administrator.
bool MayRecServerAsk(const std::string& serial, const std::string& api, const Json::Value& params) {
    return params["recSerialNum"] == serial && (api == kCmsApi || params["relayedCmd"] == true);
}

// Every secret is tried whatever the others gave, and each comparison takes the same time.
bool IsMadeWithAny(const std::vector<Pair>& pairs, const std::string& pairKey, const std::string& stamp) {
    bool matches = false;
    for (const Pair& pair : pairs) {
        const std::string expected = MakePairKey(pair.secret, stamp);
        const bool same = expected.size() == pairKey.size() &&
                          CRYPTO_memcmp(expected.data(), pairKey.data(), expected.size()) == 0;
        matches = matches || same;
    }
    return matches;
}

// False when the stamp was used before, by whichever process.
bool UseStamp(const std::string& stamp, std::int64_t time_s, std::int64_t now_s) {
    const long long now = now_s;
    const long long expires = time_s + kStampTolerance_s;
    Database& database = AppDatabase();
    WriteTransaction transaction(database);
    database.Session() << "delete from pair_stamp where expires_s < :now", soci::use(now);
    soci::statement insert =
        (database.Session().prepare << "insert into pair_stamp (stamp, expires_s)"
                                       " values (:stamp, :expires) on conflict do nothing",
         soci::use(stamp), soci::use(expires));
    insert.execute(true);
    const bool isFirst = insert.get_affected_rows() == 1;
    transaction.Commit();
    return isFirst;
}

// Only pairs that `mayAsk` names with this server's role count.
bool Accept(const std::string& pairKey, const std::string& stamp,
            const std::function<bool(CmsRole, const Pair&)>& mayAsk) {
    std::int64_t time_s = 0;
    const std::int64_t now_s = std::time(nullptr);
    if (!ParseStamp(stamp, time_s)) {
        return false;
    }
    try {
        const CmsRole role = GetCmsRole();
        std::vector<Pair> pairs = Pairs(role);
        std::erase_if(pairs, [&](const Pair& pair) { return !mayAsk(role, pair); });
        if (!IsMadeWithAny(pairs, pairKey, stamp)) {
            return false;
        }
        if (std::llabs(now_s - time_s) > kStampTolerance_s) {
            PV_LOG_LINE(kSource, "Refused a paired server whose stamp is %lld s %s this server's clock.\n",
                        std::llabs(time_s - now_s), time_s > now_s ? "ahead of" : "behind");
            return false;
        }
        return UseStamp(stamp, time_s, now_s);
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to check a peer: %s\n", DescribeFailure(failure).c_str());
        throw std::runtime_error("the pairing can't be checked");
    }
}

// What AdmitPeer accepted and IsAuthPairMatch has not asked for yet.
struct Admitted {
    std::string pairKey;
    std::string stamp;
};

Admitted& LastAdmitted() {
    static Admitted admitted;
    return admitted;
}

}  // namespace

std::string RandomHex(std::size_t bytes) {
    std::vector<unsigned char> random(bytes);
    if (RAND_bytes(random.data(), static_cast<int>(random.size())) != 1) {
        throw std::runtime_error("no random numbers");
    }
    return Hex(random.data(), random.size());
}

std::string MakeStamp() { return std::to_string(std::time(nullptr)) + "." + RandomHex(kNonceBytes); }

std::string MakePairKey(const std::string& secret, const std::string& stamp) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (HMAC(EVP_sha256(), secret.data(), static_cast<int>(secret.size()),
             reinterpret_cast<const unsigned char*>(stamp.data()), stamp.size(), digest.data(),
             &length) == nullptr) {
        throw std::runtime_error("the pairing key could not be computed");
    }
    return Hex(digest.data(), length);
}

bool AdmitPeer(const std::string& pairKey, const std::string& stamp, const std::string& api,
               const Json::Value& params) {
    LastAdmitted() = {};
    const bool isAccepted = Accept(pairKey, stamp, [&](CmsRole role, const Pair& pair) {
        return role != CmsRole::kHost || MayRecServerAsk(pair.serial, api, params);
    });
    if (!isAccepted) {
        return false;
    }
    LastAdmitted() = {pairKey, stamp};
    return true;
}

}  // namespace pavane

bool IsAuthPairMatch(const std::string& pairKey, const std::string& stamp) {
    const pavane::Admitted admitted = std::exchange(pavane::LastAdmitted(), {});
    if (!admitted.stamp.empty() && admitted.stamp == stamp && admitted.pairKey == pairKey) {
        return true;
    }
    return pavane::Accept(pairKey, stamp, [](pavane::CmsRole, const pavane::Pair&) { return true; });
}

bool SlaveRVAuthentication::IsAuthByPairMatch(const std::string& pairKey, const std::string& stamp) {
    return IsAuthPairMatch(pairKey, stamp);
}
