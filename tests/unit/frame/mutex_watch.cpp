#include "tests/unit/frame/mutex_watch.h"

#include <atomic>
#include <functional>
#include <utility>

namespace {

std::atomic<MutexWatch*> g_watch{nullptr};

}  // namespace

MutexWatch::MutexWatch(const void* begin, const void* end, Heard heard)
    : m_begin(begin), m_end(end), m_heard(std::move(heard)) {
    g_watch = this;
}

MutexWatch::~MutexWatch() { g_watch = nullptr; }

void MutexWatch::Tell(const pthread_mutex_t* mutex, const char* call) {
    const MutexWatch* watch = g_watch;
    const void* address = mutex;
    if (watch != nullptr && !std::less<>()(address, watch->m_begin) && std::less<>()(address, watch->m_end)) {
        watch->m_heard(call);
    }
}

// The linker's --wrap turns the calls here; the names are its own.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __real_pthread_mutex_destroy(pthread_mutex_t* mutex);

int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    MutexWatch::Tell(mutex, attributes == nullptr ? "init with default attributes" : "init");
    return __real_pthread_mutex_init(mutex, attributes);
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    MutexWatch::Tell(mutex, "lock");
    return __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    MutexWatch::Tell(mutex, "unlock");
    return __real_pthread_mutex_unlock(mutex);
}

int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex) {
    MutexWatch::Tell(mutex, "destroy");
    return __real_pthread_mutex_destroy(mutex);
}
}
// NOLINTEND(bugprone-reserved-identifier)
