#include "cli/client.h"

#include <strings.h>

#include <memory>
#include <utility>

#include <curl/curl.h>

namespace cli {

namespace {

constexpr const char* kSessionApi = "KORV.Core.Session";
constexpr const char* kEventsApi = "";  // its errors are those of every API
constexpr const char* kCookieName = "korv_session";
constexpr long kConnectTimeout_s = 10;
constexpr long kAnswerTimeout_s = 900;  // longer than the server lets a method take
constexpr long kStatusOk = 200;
constexpr int kNotLoggedIn = 105;
constexpr int kSessionEnded = 107;
constexpr int kBusy = 111;

using Take = std::function<bool(std::string_view)>;

struct CurlDeleter {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
    void operator()(curl_mime* form) const { curl_mime_free(form); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

// One HTTP exchange.
class Exchange {
public:
    Exchange(const std::string& url, const std::string& certificateFile) : m_curl(curl_easy_init()) {
        if (m_curl == nullptr) {
            throw std::runtime_error("cannot set up an HTTP client");
        }
        Set(CURLOPT_URL, url.c_str());
        Set(CURLOPT_PROTOCOLS_STR, "http,https");
        Set(CURLOPT_PROXY, "");  // a recorder stands on the own network
        Set(CURLOPT_NOSIGNAL, 1L);
        Set(CURLOPT_CONNECTTIMEOUT, kConnectTimeout_s);
        Set(CURLOPT_ERRORBUFFER, m_problem);
        if (!certificateFile.empty()) {
            Set(CURLOPT_CAINFO, certificateFile.c_str());
        }
    }

    void Header(const std::string& line) {
        curl_slist* const longer = curl_slist_append(m_headers.get(), line.c_str());
        if (longer == nullptr) {
            throw std::bad_alloc();
        }
        static_cast<void>(m_headers.release());
        m_headers.reset(longer);
    }

    void Post(const std::string& body) {
        Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
        Set(CURLOPT_COPYPOSTFIELDS, body.c_str());
        Set(CURLOPT_TIMEOUT, kAnswerTimeout_s);
        Header("Content-Type: application/json");
        Header("Expect:");
    }

    void PostWithFile(const std::string& request, const std::string& part, const std::string& file) {
        m_form.reset(curl_mime_init(m_curl.get()));
        curl_mimepart* const text = curl_mime_addpart(m_form.get());
        curl_mimepart* const upload = curl_mime_addpart(m_form.get());
        if (curl_mime_name(text, "request") != CURLE_OK ||
            curl_mime_data(text, request.data(), request.size()) != CURLE_OK ||
            curl_mime_name(upload, part.c_str()) != CURLE_OK ||
            curl_mime_filedata(upload, file.c_str()) != CURLE_OK) {
            throw std::runtime_error(file + " cannot be sent");
        }
        Set(CURLOPT_MIMEPOST, m_form.get());
        Set(CURLOPT_TIMEOUT, kAnswerTimeout_s);
        Header("Expect:");
    }

    // Returns the HTTP status. `take` returning false ends the exchange without an error.
    long Run(Take take) {
        m_take = std::move(take);
        Set(CURLOPT_HTTPHEADER, m_headers.get());
        Set(CURLOPT_WRITEFUNCTION, &Exchange::OnBody);
        Set(CURLOPT_WRITEDATA, this);
        Set(CURLOPT_HEADERFUNCTION, &Exchange::OnHeader);
        Set(CURLOPT_HEADERDATA, this);
        const CURLcode result = curl_easy_perform(m_curl.get());
        if (result != CURLE_OK && !(result == CURLE_WRITE_ERROR && m_isEnough)) {
            const std::string detail = *m_problem != '\0' ? m_problem : curl_easy_strerror(result);
            throw Unreachable(detail);
        }
        return Status();
    }

    [[nodiscard]] long Status() const {
        long status = 0;
        curl_easy_getinfo(m_curl.get(), CURLINFO_RESPONSE_CODE, &status);
        return status;
    }

    [[nodiscard]] const std::string& SessionCookie() const { return m_cookie; }

private:
    template <class Value>
    void Set(CURLoption option, Value value) {
        if (curl_easy_setopt(m_curl.get(), option, value) != CURLE_OK) {
            throw std::runtime_error("the HTTP library lacks an option");
        }
    }

    static std::size_t OnBody(char* data, std::size_t /*one*/, std::size_t size, void* exchange) {
        auto* const self = static_cast<Exchange*>(exchange);
        if (!self->m_take(std::string_view(data, size))) {
            self->m_isEnough = true;
            return 0;
        }
        return size;
    }

    static std::size_t OnHeader(char* data, std::size_t /*one*/, std::size_t size, void* exchange) {
        static constexpr std::string_view kName = "set-cookie: ";
        const std::string line(data, size);
        const std::string cookie = std::string(kCookieName) + "=";
        if (strncasecmp(line.c_str(), kName.data(), kName.size()) == 0 &&
            line.compare(kName.size(), cookie.size(), cookie) == 0) {
            const std::size_t begin = kName.size() + cookie.size();
            static_cast<Exchange*>(exchange)->m_cookie =
                line.substr(begin, line.find_first_of("; \r\n", begin) - begin);
        }
        return size;
    }

    std::unique_ptr<CURL, CurlDeleter> m_curl;
    std::unique_ptr<curl_mime, CurlDeleter> m_form;  // goes before the handle that it was made with
    std::unique_ptr<curl_slist, CurlDeleter> m_headers;
    char m_problem[CURL_ERROR_SIZE] = "";
    Take m_take;
    bool m_isEnough = false;
    std::string m_cookie;
};

Json::Value ParseAnswer(const std::string& text, long status) {
    Json::Value answer;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &answer, nullptr) || !answer.isObject() ||
        !answer["success"].isBool()) {
        throw Unreachable("HTTP status " + std::to_string(status) +
                          " with an answer that is none of a recorder");
    }
    return answer;
}

Json::Value DataOf(const Json::Value& answer, const std::string& api) {
    if (answer["success"].asBool()) {
        return answer["data"];
    }
    const Json::Value& error = answer["error"];
    const bool hasCode = error.isObject() && error["code"].isInt();
    throw Refused(api, hasCode ? error["code"].asInt() : 0, hasCode ? error["errors"] : Json::Value());
}

Json::Value MakeRequest(const std::string& api, const std::string& method, const Json::Value& parameters) {
    Json::Value request = parameters;
    request["api"] = api;
    request["version"] = 1;
    request["method"] = method;
    return request;
}

// Sends what `exchange` holds with the session's proof and returns the answer's data.
Json::Value Send(Exchange& exchange, const Session& session, const std::string& api) {
    if (!session.cookie.empty()) {
        exchange.Header(std::string("Cookie: ") + kCookieName + "=" + session.cookie);
        exchange.Header("X-Korv-Csrf: " + session.csrf);
    }
    std::string text;
    const long status = exchange.Run([&text](std::string_view piece) {
        text += piece;
        return true;
    });
    return DataOf(ParseAnswer(text, status), api);
}

}  // namespace

Refused::Refused(std::string refusingApi, int errorCode, Json::Value errorDetails)
    : std::runtime_error("error " + std::to_string(errorCode)),
      api(std::move(refusingApi)),
      code(errorCode),
      details(std::move(errorDetails)) {}

std::string RequestText(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

Client::Client(std::string url, std::string certificateFile, SessionFile sessions)
    : m_url(std::move(url)),
      m_certificateFile(std::move(certificateFile)),
      m_sessions(std::move(sessions)),
      m_session(m_sessions.Load(m_url)) {
    while (!m_url.empty() && m_url.back() == '/') {
        m_url.pop_back();
    }
}

Json::Value Client::Call(const std::string& api, const std::string& method, const Json::Value& parameters) {
    Exchange exchange(m_url + "/webapi", m_certificateFile);
    exchange.Post(RequestText(MakeRequest(api, method, parameters)));
    return Send(exchange, m_session, api);
}

Json::Value Client::CallForAll(const std::string& api, const std::string& method, const std::string& list) {
    constexpr int kPage = 1000;
    Json::Value all(Json::objectValue);
    Json::Value& rows = all[list] = Json::Value(Json::arrayValue);
    Json::Value page;
    do {
        Json::Value parameters(Json::objectValue);
        parameters["offset"] = rows.size();
        parameters["limit"] = kPage;
        page = Call(api, method, parameters);
        for (const Json::Value& row : page[list]) {
            rows.append(row);
        }
    } while (!page[list].empty() && rows.size() < page["total"].asUInt());
    all["total"] = rows.size();
    return all;
}

Json::Value Client::CallWithFile(const std::string& api, const std::string& method,
                                 const Json::Value& parameters, const std::string& part,
                                 const std::string& file) {
    Exchange exchange(m_url + "/webapi", m_certificateFile);
    exchange.PostWithFile(RequestText(MakeRequest(api, method, parameters)), part, file);
    return Send(exchange, m_session, api);
}

Json::Value Client::Login(const std::string& account, const std::string& password) {
    Json::Value parameters(Json::objectValue);
    parameters["account"] = account;
    parameters["passwd"] = password;
    Exchange exchange(m_url + "/webapi", m_certificateFile);
    exchange.Post(RequestText(MakeRequest(kSessionApi, "login", parameters)));
    std::string text;
    const long status = exchange.Run([&text](std::string_view piece) {
        text += piece;
        return true;
    });
    Json::Value data = DataOf(ParseAnswer(text, status), kSessionApi);
    if (exchange.SessionCookie().empty() || !data["csrf"].isString()) {
        throw Unreachable("the login was answered without a session");
    }
    m_session = {account, exchange.SessionCookie(), data["csrf"].asString()};
    m_sessions.Store(m_url, m_session);
    data.removeMember("csrf");
    return data;
}

void Client::Logout() {
    try {
        Call(kSessionApi, "logout");
    } catch (const Refused& refused) {
        if (refused.code != kNotLoggedIn && refused.code != kSessionEnded) {
            throw;
        }
    }
    m_session = {};
    m_sessions.Forget(m_url);
}

void Client::ReadEvents(const std::string& lastId, const Take& take) {
    Exchange exchange(m_url + "/events", m_certificateFile);
    exchange.Header("Accept: text/event-stream");
    if (!m_session.cookie.empty()) {
        exchange.Header(std::string("Cookie: ") + kCookieName + "=" + m_session.cookie);
    }
    if (!lastId.empty()) {
        exchange.Header("Last-Event-ID: " + lastId);
    }
    std::string refusal;
    const long status = exchange.Run([&](std::string_view piece) {
        if (exchange.Status() == kStatusOk) {
            return take(piece);
        }
        refusal += piece;
        return true;
    });
    if (status != kStatusOk) {
        DataOf(ParseAnswer(refusal, status), kEventsApi);
        throw Refused(kEventsApi, kBusy, Json::Value());
    }
}

}  // namespace cli
