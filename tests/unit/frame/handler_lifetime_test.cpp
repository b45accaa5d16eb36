// What is released when a handler goes, and in which order; where its virtual functions stand.

#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/fake/api.h"
#include "tests/unit/frame/mutex_watch.h"
#include "tests/unit/frame/quiet_director.h"
#include "webapi/share/share_handler.h"

namespace {

using Steps = std::vector<std::string>;

class WatchedHandler : public ShareHandler {
public:
    WatchedHandler(KORV::APIRequest* apiRequest, KORV::APIResponse* apiResponse, Steps& steps)
        : ShareHandler(apiRequest, apiResponse), m_steps(steps) {}
    ~WatchedHandler() override { m_steps.emplace_back("handler"); }

    bool IsCamAvailiable(int camId) override {
        m_steps.push_back("IsCamAvailiable " + std::to_string(camId));
        return true;
    }
    Json::Value GetRedirectPrivData(int camId) override { return camId; }

    using ShareHandler::cache;
    using ShareHandler::errorCode;
    using ShareHandler::errorParams;
    using ShareHandler::mutex;
    using ShareHandler::pairAuthenticated;
    using ShareHandler::relayedCmd;
    using ShareHandler::relayedFromHost;

private:
    Steps& m_steps;
};

class HandlerLifetime : public testing::Test {
protected:
    QuietDirector m_director;
    fake::DirectorScope m_directed{m_director};
    KORV::APIRequest m_request{std::make_unique<KORV::APIRequest::State>()};
    KORV::APIResponse m_response{std::make_unique<KORV::APIResponse::State>()};
    Steps m_steps;
};

// Notes how many error texts there still are when it goes.
class NotingCache : public PVWebAPICache {
public:
    NotingCache(Steps& steps, const std::map<int, std::string>& errorParams)
        : m_steps(steps), m_errorParams(errorParams) {}
    ~NotingCache() override {
        m_steps.push_back("cache, error texts " + std::to_string(m_errorParams.size()));
    }

private:
    Steps& m_steps;
    const std::map<int, std::string>& m_errorParams;
};

TEST_F(HandlerLifetime, StartsWithoutErrorCacheAndMarks) {
    const WatchedHandler handler(&m_request, &m_response, m_steps);
    EXPECT_EQ(handler.errorCode, 0);
    EXPECT_TRUE(handler.errorParams.empty());
    EXPECT_EQ(handler.cache, nullptr);
    EXPECT_FALSE(handler.relayedFromHost);
    EXPECT_FALSE(handler.relayedCmd);
    EXPECT_FALSE(handler.pairAuthenticated);
}

TEST_F(HandlerLifetime, ReleasesCacheThenErrorTextsThenMutex) {
    std::optional<MutexWatch> watch;
    {
        WatchedHandler handler(&m_request, &m_response, m_steps);
        handler.SetErrorCode(PV_WEBAPI_ERR_OPERATION_FAILED, "a", "b");
        handler.cache = std::make_unique<NotingCache>(m_steps, handler.errorParams);
        const auto* place = reinterpret_cast<const unsigned char*>(&handler.mutex);
        const std::map<int, std::string>& errorParams = handler.errorParams;
        watch.emplace(place, place + sizeof handler.mutex, [this, &errorParams](const std::string& call) {
            m_steps.push_back(call + ", error texts " + std::to_string(errorParams.size()));
        });
    }
    EXPECT_EQ(m_steps, (Steps{"handler", "cache, error texts 2", "lock, error texts 0",
                              "unlock, error texts 0", "destroy, error texts 0"}));
}

TEST_F(HandlerLifetime, NeverLocksItsMutexItself) {
    Steps calls;
    std::optional<MutexWatch> watch;
    {
        WatchedHandler handler(&m_request, &m_response, m_steps);
        const auto* place = reinterpret_cast<const unsigned char*>(&handler.mutex);
        watch.emplace(place, place + sizeof handler.mutex,
                      [&calls](const std::string& call) { calls.push_back(call); });
        handler.HandleProcess();
        handler.HandleProcessRelay();
        EXPECT_EQ(calls, Steps{});
    }
    EXPECT_EQ(calls, (Steps{"lock", "unlock", "destroy"}));
}

// Code that was built against the interface calls these by their place.
TEST_F(HandlerLifetime, KeepsTheOrderOfItsVirtualFunctions) {
    constexpr std::size_t kDeletingDestructor = 1;
    constexpr std::size_t kIsCamAvailiable = 2;
    constexpr std::size_t kGetRedirectPrivData = 3;
    using Slot = void (*)();
    using IsCam = bool (*)(void*, int);
    using GetData = Json::Value (*)(void*, int);
    using Delete = void (*)(void*);
    constexpr int kCamera = 12;

    auto* handler = new WatchedHandler(&m_request, &m_response, m_steps);
    const Slot* slots = nullptr;
    std::memcpy(&slots, handler, sizeof slots);
    EXPECT_TRUE(reinterpret_cast<IsCam>(slots[kIsCamAvailiable])(handler, kCamera));
    EXPECT_EQ(reinterpret_cast<GetData>(slots[kGetRedirectPrivData])(handler, kCamera), kCamera);
    reinterpret_cast<Delete>(slots[kDeletingDestructor])(handler);  // also frees it, or the test leaks
    EXPECT_EQ(m_steps, (Steps{"IsCamAvailiable 12", "handler"}));
}

TEST_F(HandlerLifetime, KeepsTheCompleteDestructorFirst) {
    using Slot = void (*)();
    using Destroy = void (*)(void*);
    alignas(WatchedHandler) unsigned char place[sizeof(WatchedHandler)] = {};
    auto* handler = new (place) WatchedHandler(&m_request, &m_response, m_steps);
    const Slot* slots = nullptr;
    std::memcpy(&slots, handler, sizeof slots);
    reinterpret_cast<Destroy>(slots[0])(handler);
    EXPECT_EQ(m_steps, Steps{"handler"});
}

}  // namespace
