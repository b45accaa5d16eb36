#include "webapi/include/pv_mutex.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/frame/mutex_watch.h"

namespace {

using Calls = std::vector<std::string>;

TEST(PVMutex, IsMadeWithDefaultAttributesAndLockedOnceMoreBeforeItGoes) {
    alignas(PVMutex) unsigned char place[sizeof(PVMutex)] = {};
    Calls calls;
    const MutexWatch watch(place, place + sizeof place,
                           [&calls](const std::string& call) { calls.push_back(call); });
    auto* mutex = new (place) PVMutex;
    mutex->Lock();
    mutex->Unlock();
    mutex->~PVMutex();
    EXPECT_EQ(calls, (Calls{"init with default attributes", "lock", "unlock", "lock", "unlock", "destroy"}));
}

TEST(PVMutex, LetsOneThreadInAtATime) {
    constexpr int kRounds = 20000;
    PVMutex mutex;
    int inside = 0;
    int most = 0;
    int total = 0;
    const auto work = [&] {
        for (int round = 0; round < kRounds; ++round) {
            mutex.Lock();
            most = std::max(most, ++inside);
            ++total;
            --inside;
            mutex.Unlock();
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(most, 1);
    EXPECT_EQ(total, 2 * kRounds);
}

TEST(PVMutex, WaitsForItsHolderBeforeItGoes) {
    constexpr std::chrono::seconds kDeadline{10};
    auto mutex = std::make_unique<PVMutex>();
    std::atomic<int> locks{0};
    std::atomic<bool> held{false};
    std::atomic<bool> released{false};
    const unsigned char* place = reinterpret_cast<const unsigned char*>(mutex.get());
    const MutexWatch watch(place, place + sizeof(PVMutex), [&locks](const std::string& call) {
        if (call == "lock") {
            ++locks;
        }
    });
    std::thread holder([&] {
        mutex->Lock();
        held = true;
        const auto end = std::chrono::steady_clock::now() + kDeadline;
        while (locks < 2 && std::chrono::steady_clock::now() < end) {
            std::this_thread::yield();
        }
        released = true;
        mutex->Unlock();
    });
    while (!held) {
        std::this_thread::yield();
    }
    std::destroy_at(mutex.get());
    EXPECT_TRUE(released);
    holder.join();
    ::operator delete(mutex.release());
    EXPECT_EQ(locks, 2);
}

}  // namespace
