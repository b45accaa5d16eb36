#include "korv/system/mount_failure.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>

namespace korv {

namespace {

// Stands for a name that nobody knows; the kernel has no number for that.
constexpr int kNoSuchHost = -1;

struct Words {
    const char* words;
    int error;
};

// What helpers write instead of a number, in lower case; the first that is found decides, so that the
// particular stands before the general.
constexpr std::array<Words, 22> kWords{{
    {"could not resolve address", kNoSuchHost},
    {"name or service not known", kNoSuchHost},
    {"failed to resolve server", kNoSuchHost},
    {"no route to host", EHOSTUNREACH},
    {"network is unreachable", EHOSTUNREACH},
    {"connection timed out", ETIMEDOUT},
    {"connection refused", ECONNREFUSED},
    {"logon failure", EACCES},
    {"access denied by server", EPERM},
    {"access denied", EPERM},
    {"permission denied", EACCES},
    {"operation not permitted", EPERM},
    {"bad network name", ENOENT},
    {"no such file or directory", ENOENT},
    {"requested nfs version or transport protocol is not supported", EPROTONOSUPPORT},
    {"protocol not supported", EPROTONOSUPPORT},
    {"stale file handle", ESTALE},
    {"unknown filesystem type", ENODEV},
    {"no such device", ENODEV},
    {"operation now in progress", ETIMEDOUT},
    {"incorrect mount option", EINVAL},
    {"is busy or already mounted", EBUSY},
}};

// The number in "mount error(N)", 0 when there is none.
int NumberIn(const std::string& text) {
    constexpr const char* kStart = "mount error(";
    const auto start = text.find(kStart);
    if (start == std::string::npos) {
        return 0;
    }
    int number = 0;
    const char* const digits = text.c_str() + start + std::string(kStart).size();
    std::from_chars(digits, text.c_str() + text.size(), number);
    return number;
}

}  // namespace

MountFailure FailureOfErrno(bool isCifs, int error) {
    switch (error) {
        case EACCES:
            return isCifs ? MountFailure::kWrongAccount : MountFailure::kAccessDenied;
        case EKEYEXPIRED:
        case EKEYREVOKED:
        case EKEYREJECTED:
        case ENOKEY:
            return MountFailure::kWrongAccount;
        case EPERM:
            return MountFailure::kAccessDenied;
        case kNoSuchHost:
            return MountFailure::kUnknownHost;
        case EHOSTDOWN:
        case ETIMEDOUT:
        case EINPROGRESS:
        case EHOSTUNREACH:
        case ENETUNREACH:
            return MountFailure::kNoAnswer;
        case ECONNREFUSED:
        case ECONNRESET:
            return MountFailure::kRefused;
        case ENOENT:
        case ENXIO:
            return MountFailure::kNoSuchFolder;
        case EPROTONOSUPPORT:
        case EOPNOTSUPP:
        case EPROTO:
            return MountFailure::kProtocol;
        case EINVAL:
            return MountFailure::kBadOption;
        case EBUSY:
            return MountFailure::kBusy;
        case ENODEV:
            return MountFailure::kNoDriver;
        case ESTALE:
            return MountFailure::kStale;
        default:
            return MountFailure::kFailed;
    }
}

MountFailure FailureOfHelper(bool isCifs, const std::string& output) {
    std::string text = output;
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    if (const int number = NumberIn(text); number != 0) {
        return FailureOfErrno(isCifs, number);
    }
    for (const Words& each : kWords) {
        if (text.find(each.words) != std::string::npos) {
            return FailureOfErrno(isCifs, each.error);
        }
    }
    return MountFailure::kFailed;
}

}  // namespace korv
