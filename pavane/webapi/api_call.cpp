#include "pavane/webapi/api_call.h"

#include <algorithm>
#include <exception>

#include "platform/korv/app_privilege.h"
#include "platform/pavane/cms.h"

#include "pavane/log_line.h"
#include "pavane/store/database.h"

namespace pavane {

namespace {

constexpr const char* kSource = "pavane/webapi/api_call";
constexpr const char* kApplication = "KORV.KRX.Pavane";
constexpr int kErrorNotAllowed = 105;
constexpr int kErrorFailed = 400;
constexpr int kErrorBadParameter = 401;

// Judged here too, not only before the peer pool: a method must not depend on where it is reached.
bool IsPairedServer(const KORV::APIRequest& request) {
    const Json::Value key = request.GetParam("cookie", "");
    return key.isString() && IsAuthPairMatch(key.asString(), request.GetCookie("timestamp", ""));
}

bool IsAdmitted(Access access, const KORV::APIRequest& request) {
    if (access == Access::kPeer) {
        return IsPairedServer(request);
    }
    if (!request.IsAuthorized()) {
        return false;
    }
    if (request.IsAdmin()) {
        return true;
    }
    return access == Access::kUse &&
           (request.HasAppPriv(kApplication) ||
            SDKUser::AppPrivUserHas(request.GetLoginUserName(), kApplication, request.GetRemoteIP()));
}

Json::Value ErrorData(const std::string& param1, const std::string& param2) {
    Json::Value data(Json::objectValue);
    data["param1"] = param1;
    data["param2"] = param2;
    return data;
}

int ReadNumber(const KORV::APIRequest& request, const char* name, int fallback, int least, int most) {
    const int number = request.GetParam(name, fallback).asInt();
    if (number < least || number > most) {
        throw BadParameter(name, "must be from " + std::to_string(least) + " to " + std::to_string(most));
    }
    return number;
}

// The length of the UTF-8 character at `at`; 0 when there is none. Refuses what is longer than need be,
// halves of surrogate pairs and what lies beyond Unicode.
std::size_t CharacterLength(const std::string& text, std::size_t at) {
    struct Form {
        std::size_t length;
        unsigned least;
        unsigned char mask;
        unsigned char lead;
    };
    constexpr Form kForms[] = {
        {1, 0, 0x80, 0x00}, {2, 0x80, 0xE0, 0xC0}, {3, 0x800, 0xF0, 0xE0}, {4, 0x10000, 0xF8, 0xF0}};
    constexpr unsigned kLast = 0x10FFFF;
    constexpr unsigned kTailMask = 0x3F;
    constexpr unsigned kTailBits = 6;
    const auto first = static_cast<unsigned char>(text[at]);
    for (const Form& form : kForms) {
        if ((first & form.mask) != form.lead || at + form.length > text.size()) {
            continue;
        }
        unsigned code = first & static_cast<unsigned char>(~form.mask);
        for (std::size_t i = 1; i < form.length; ++i) {
            const auto tail = static_cast<unsigned char>(text[at + i]);
            if (tail >> kTailBits != 2) {
                return 0;
            }
            code = (code << kTailBits) | (tail & kTailMask);
        }
        const bool isSurrogate = code >= 0xD800 && code <= 0xDFFF;
        return code >= form.least && code <= kLast && !isSurrogate ? form.length : 0;
    }
    return 0;
}

// Whether the character at `at`, which there is, is U+0000 to U+001F or U+007F to U+009F.
bool IsControl(const std::string& text, std::size_t at) {
    constexpr unsigned char kFirstPrintable = 0x20;
    constexpr unsigned char kDelete = 0x7F;
    constexpr unsigned char kLeadOfUpper = 0xC2;  // and a second byte below 0xA0
    constexpr unsigned char kFirstPrintableUpper = 0xA0;
    const auto byte = static_cast<unsigned char>(text[at]);
    return byte < kFirstPrintable || byte == kDelete ||
           (byte == kLeadOfUpper && static_cast<unsigned char>(text[at + 1]) < kFirstPrintableUpper);
}

}  // namespace

void Serve(Access access, ApiMethod method, const KORV::APIRequest& request, KORV::APIResponse& response) {
    if (!IsAdmitted(access, request)) {
        response.SetError(kErrorNotAllowed, Json::Value());
        return;
    }
    try {
        response.SetSuccess(method(request));
    } catch (const BadParameter& bad) {
        response.SetError(kErrorBadParameter, ErrorData(bad.Name(), bad.what()));
    } catch (const MethodFailure& failure) {
        response.SetError(failure.Code(), ErrorData(failure.what(), failure.Param2()));
    } catch (const Json::Exception&) {
        throw;
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "%s %s failed: %s\n", request.GetAPIClass().c_str(),
                    request.GetAPIMethod().c_str(), DescribeFailure(failure).c_str());
        response.SetError(kErrorFailed, ErrorData("", ""));
    }
}

PageRequest ReadPage(const KORV::APIRequest& request) {
    constexpr int kMostOffset = 1000000000;
    constexpr int kDefaultLimit = 100;
    constexpr int kMostLimit = 1000;
    return {ReadNumber(request, "offset", 0, 0, kMostOffset),
            ReadNumber(request, "limit", kDefaultLimit, 1, kMostLimit)};
}

bool IsPlainText(const std::string& text) {
    std::size_t at = 0;
    while (at < text.size()) {
        const std::size_t length = CharacterLength(text, at);
        if (length == 0 || IsControl(text, at)) {
            return false;
        }
        at += length;
    }
    return true;
}

bool IsCleanPath(const std::string& path) {
    constexpr std::size_t kLongest = 4096;
    if (path.empty() || path.front() != '/' || path.size() > kLongest || !IsPlainText(path)) {
        return false;
    }
    std::size_t begin = 1;
    while (begin <= path.size()) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string component = path.substr(begin, end - begin);
        if (component.empty() || component == "." || component == "..") {
            return false;
        }
        begin = end + 1;
    }
    return true;
}

}  // namespace pavane
