#include "korv/framework/http_exchange.h"

#include <soci/soci.h>

#include "korv/framework/api_call.h"
#include "korv/framework/error_code.h"
#include "korv/framework/host.h"
#include "korv/framework/json_text.h"
#include "korv/framework/log.h"
#include "korv/framework/multipart.h"
#include "korv/framework/request_state.h"
#include "korv/framework/session_cookie.h"
#include "korv/framework/session_store.h"
#include "korv/framework/upload_files.h"
#include "korv/framework/wire_request.h"
#include "korv/system/database.h"

namespace korv {
namespace {

constexpr int kStatusOk = 200;
constexpr int kStatusBadRequest = 400;
constexpr int kStatusUnauthorized = 401;
constexpr int kStatusForbidden = 403;
constexpr int kStatusNotFound = 404;
constexpr int kStatusWrongMethod = 405;
constexpr int kStatusTooLarge = 413;
constexpr int kStatusInternal = 500;
constexpr int kStatusUnavailable = 503;

// nginx sends a client on to this location of its own once it may listen.
constexpr const char* kEventLocation = "/korv-internal/events";
constexpr const char* kRequestPart = "request";
constexpr const char* kJson = "application/json";

using State = KORV::APIRequest::State;

HttpAnswer JsonAnswer(int status, std::string body) {
    return {status, {{"Content-Type", kJson}, {"Cache-Control", "no-store"}}, std::move(body)};
}

HttpAnswer Refusal(int status, int code) {
    TextAnswer answer;
    answer.Error(code, Json::Value());
    return JsonAnswer(status, answer.Text());
}

int StatusOf(CallEnd end) {
    switch (end) {
        case CallEnd::kAnswered:
            return kStatusOk;
        case CallEnd::kNoSuchApi:
        case CallEnd::kNoSuchMethod:
            return kStatusNotFound;
        case CallEnd::kMalformed:
            return kStatusBadRequest;
        case CallEnd::kFailed:
            break;
    }
    return kStatusInternal;
}

// A part of an upload that may not be a parameter: it would replace another or hide what the request asks
// for.
bool IsNameTaken(const WireRequest& request, const std::string& name) {
    return request.params.isMember(name) || name == "api" || name == "version" || name == "method";
}

std::optional<WireRequest> ParseUpload(const HttpRequest& http, const std::string& boundary,
                                       UploadFiles& files) {
    const auto parts = ParseMultipart(http.body, boundary);
    if (!parts) {
        return std::nullopt;
    }
    std::optional<WireRequest> request;
    for (const FormPart& part : *parts) {
        if (part.name == kRequestPart) {
            if (request || part.content.size() > static_cast<std::size_t>(kMaxBodyBytes)) {
                return std::nullopt;
            }
            request = ParseWireRequest(part.content);
            if (!request) {
                return std::nullopt;
            }
        }
    }
    if (!request) {
        return std::nullopt;
    }
    for (const FormPart& part : *parts) {
        if (part.name == kRequestPart) {
            continue;
        }
        const std::string name(part.name);
        if (!IsCleanText(name) || IsNameTaken(*request, name)) {
            return std::nullopt;
        }
        request->params[name] = files.Store(part.content);
    }
    return request;
}

std::optional<WireRequest> ParseBody(const HttpRequest& http, UploadFiles& files) {
    const std::optional<std::string> boundary = MultipartBoundary(http.contentType);
    return boundary ? ParseUpload(http, *boundary, files) : ParseWireRequest(http.body);
}

// Fills in who calls; false when the caller's proof of it does not hold. Without any proof a public request
// passes: its method decides.
bool IdentifyClient(State& state, const std::string& csrf) {
    const auto cookie = state.cookies.find(kSessionCookie);
    const bool isLogin = state.api == kSessionApi && state.method == kLoginMethod;
    if (cookie == state.cookies.end() || isLogin) {
        return true;
    }
    const std::optional<std::string> account = SessionAccount(cookie->second, &csrf);
    if (!account) {
        return false;
    }
    state.sessionId = cookie->second;
    state.user = *account;
    state.isAuthorized = true;
    return true;
}

bool IdentifyPeer(State& state) {
    const Json::Value& key = state.params["cookie"];
    const auto stamp = state.cookies.find("timestamp");
    state.user = kAdminAccount;
    return key.isString() && stamp != state.cookies.end() &&
           IsPairedPeer(key.asString(), stamp->second, state.api, state.params);
}

HttpAnswer ServeWebApi(Pool pool, const HttpRequest& http) {
    if (http.method != "POST") {
        return Refusal(kStatusWrongMethod, kErrorMalformed);
    }
    if (http.isTooLarge) {
        return Refusal(kStatusTooLarge, kErrorMalformed);
    }
    UploadFiles files;
    std::optional<WireRequest> wire = ParseBody(http, files);
    if (!wire) {
        return Refusal(kStatusBadRequest, kErrorMalformed);
    }
    auto state = std::make_unique<State>();
    state->api = std::move(wire->api);
    state->version = wire->version;
    state->method = std::move(wire->method);
    state->params.swap(wire->params);
    state->cookies = ParseCookies(http.cookies);
    state->remoteIp = http.remoteIp;
    if (pool == Pool::kPeer ? !IdentifyPeer(*state) : !IdentifyClient(*state, http.csrf)) {
        return pool == Pool::kPeer ? Refusal(kStatusForbidden, kErrorNotAllowed)
                                   : Refusal(kStatusUnauthorized, kErrorSessionEnded);
    }
    TextAnswer answer;
    const CallEnd end = CallMethod(std::move(state), answer);
    HttpAnswer reply = JsonAnswer(StatusOf(end), answer.TakeText());
    if (const std::optional<std::string> cookie = CookieChange::TakeHeader()) {
        reply.headers.emplace_back("Set-Cookie", *cookie);
    }
    return reply;
}

// A browser's event source can send no header of its own, so the cookie alone admits a listener; SameSite
// keeps other sites from using it.
HttpAnswer ServeEvents(const HttpRequest& http) {
    const auto cookies = ParseCookies(http.cookies);
    const auto cookie = cookies.find(kSessionCookie);
    if (cookie == cookies.end() || !SessionAccount(cookie->second, nullptr)) {
        return Refusal(kStatusUnauthorized, kErrorSessionEnded);
    }
    return {kStatusOk, {{"X-Accel-Redirect", kEventLocation}}, ""};
}

HttpAnswer ServeHealth() {
    std::string problem;
    try {
        int version = 0;
        Database() << "pragma user_version", soci::into(version);
        problem = FailedHealthCheck();
    } catch (const soci::soci_error& error) {
        problem = "korv.db: " + error.get_error_message();
    }
    if (!problem.empty()) {
        LogLine("not healthy: " + problem);
        return Refusal(kStatusUnavailable, kErrorBusy);
    }
    return JsonAnswer(kStatusOk, R"({"success":true})");
}

HttpAnswer Dispatch(Pool pool, const HttpRequest& http) {
    if (http.target == (pool == Pool::kPublic ? "/webapi" : "/peer")) {
        return ServeWebApi(pool, http);
    }
    if (http.target == "/events" && pool == Pool::kPublic) {
        return ServeEvents(http);
    }
    if (http.target == "/healthz" && pool == Pool::kPublic) {
        return ServeHealth();
    }
    return Refusal(kStatusNotFound, kErrorMalformed);
}

}  // namespace

long BodyLimit(const std::string& contentType) {
    return MultipartBoundary(contentType) ? kMaxUploadBytes : kMaxBodyBytes;
}

HttpAnswer Serve(Pool pool, const HttpRequest& request) {
    try {
        return Dispatch(pool, request);
    } catch (const std::exception& error) {
        LogLine(std::string("a request failed: ") + error.what());
        return Refusal(kStatusInternal, kErrorInternal);
    }
}

}  // namespace korv
