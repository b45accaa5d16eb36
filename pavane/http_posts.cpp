#include "pavane/http_posts.h"

#include <unistd.h>

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include <curl/curl.h>

#include "pavane/http_transfer.h"

namespace pavane {

namespace {

constexpr std::size_t kAtOnce = 64;

// Keeps the connections of finished transfers. One that a parent opened is left alone.
CURLM* ProcessMulti() {
    static CURLM* multi = nullptr;
    static pid_t opener = 0;
    if (multi == nullptr || opener != getpid()) {
        constexpr long kKeptConnections = 128;
        static const CURLcode ready = curl_global_init(CURL_GLOBAL_DEFAULT);
        multi = ready == CURLE_OK ? curl_multi_init() : nullptr;
        opener = getpid();
        if (multi == nullptr) {
            throw std::runtime_error("the HTTP library could not be started");
        }
        curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, kKeptConnections);
    }
    return multi;
}

// One post on its way among others.
class Running {
public:
    Running(CURLM* multi, std::size_t index, HttpPost post)
        : m_multi(multi),
          m_handle(curl_easy_init(), &curl_easy_cleanup),
          m_transfer(NeverNull(m_handle.get()), std::move(post)),
          m_index(index) {
        curl_multi_add_handle(m_multi, m_handle.get());
    }
    ~Running() { curl_multi_remove_handle(m_multi, m_handle.get()); }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

    CURL* Handle() const { return m_handle.get(); }
    std::size_t Index() const { return m_index; }
    HttpReply Finish(CURLcode result) { return m_transfer.Finish(result); }

private:
    static CURL* NeverNull(CURL* handle) {
        if (handle == nullptr) {
            throw std::bad_alloc();
        }
        return handle;
    }

    CURLM* m_multi;
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> m_handle;
    HttpTransfer m_transfer;
    std::size_t m_index;
};

class Posts {
public:
    Posts(std::size_t count, const std::function<HttpPost(std::size_t)>& make,
          const std::function<void(std::size_t, const HttpReply&)>& take)
        : m_multi(ProcessMulti()), m_count(count), m_make(make), m_take(take) {}

    void Run() {
        StartMore();
        while (!m_running.empty()) {
            int left = 0;
            Check(curl_multi_perform(m_multi, &left));
            if (!TakeFinished()) {
                constexpr int kLongestWait_ms = 1000;
                Check(curl_multi_poll(m_multi, nullptr, 0, kLongestWait_ms, nullptr));
            }
            StartMore();
        }
    }

private:
    static void Check(CURLMcode code) {
        if (code != CURLM_OK) {
            throw std::runtime_error(std::string("the HTTP library failed: ") + curl_multi_strerror(code));
        }
    }

    void StartMore() {
        for (; m_next < m_count && m_running.size() < kAtOnce; ++m_next) {
            HttpPost post = m_make(m_next);
            HttpReply refused;
            refused.failure = RefusalOf(post);
            if (!refused.failure.empty()) {
                m_take(m_next, refused);
                continue;
            }
            auto running = std::make_unique<Running>(m_multi, m_next, std::move(post));
            CURL* const handle = running->Handle();
            m_running.emplace(handle, std::move(running));
        }
    }

    // True when there was one.
    bool TakeFinished() {
        bool isAny = false;
        int left = 0;
        while (const CURLMsg* const message = curl_multi_info_read(m_multi, &left)) {
            if (message->msg != CURLMSG_DONE) {
                continue;
            }
            const CURLcode result = message->data.result;  // the message goes with its handle
            const auto node = m_running.extract(message->easy_handle);
            m_take(node.mapped()->Index(), node.mapped()->Finish(result));
            isAny = true;
        }
        return isAny;
    }

    CURLM* m_multi;
    std::size_t m_count;
    const std::function<HttpPost(std::size_t)>& m_make;
    const std::function<void(std::size_t, const HttpReply&)>& m_take;
    std::size_t m_next = 0;
    std::map<CURL*, std::unique_ptr<Running>> m_running;
};

}  // namespace

void SendHttpPosts(std::size_t count, const std::function<HttpPost(std::size_t)>& make,
                   const std::function<void(std::size_t, const HttpReply&)>& take) {
    Posts(count, make, take).Run();
}

}  // namespace pavane
