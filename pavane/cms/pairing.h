#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <json/json.h>

// How two paired servers prove themselves to each other: a key over a stamp.
//   stamp  "<unix seconds>.<16 hexadecimal digits>"; the digits are random
//   key    HMAC-SHA256 of the stamp, keyed with the bytes of the pair's secret text; lower-case hexadecimal
namespace pavane {

// How far a stamp may be from this server's clock, in seconds, before or after.
inline constexpr std::int64_t kStampTolerance_s = 300;

// Sizes of what is made at random, in bytes.
inline constexpr std::size_t kSecretBytes = 32;
inline constexpr std::size_t kSerialBytes = 8;

// So many random bytes in lower-case hexadecimal. Throws std::runtime_error when there are none.
std::string RandomHex(std::size_t bytes);

// A fresh stamp of the present time. Throws std::runtime_error when there are no random numbers.
std::string MakeStamp();

// Throws std::runtime_error when the hash can't be computed.
std::string MakePairKey(const std::string& secret, const std::string& stamp);

// IsAuthPairMatch for whoever stands before the web API methods and judges a request first (KORV::PairCheck):
// a stamp that it has accepted is accepted once more by the next IsAuthPairMatch of this process, which
// judges the same request. A host also refuses a request that does not name the serial of the very server
// whose key it carries, and one that is neither relayed nor of central management. Throws like
// IsAuthPairMatch.
bool AdmitPeer(const std::string& pairKey, const std::string& stamp, const std::string& api,
               const Json::Value& params);

}  // namespace pavane
