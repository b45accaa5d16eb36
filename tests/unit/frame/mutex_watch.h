#pragma once

#include <pthread.h>

#include <functional>
#include <string>

// Hears the mutex calls of this program whose mutex lies in [begin, end), before they are made. One at a
// time.
class MutexWatch {
public:
    using Heard = std::function<void(const std::string& call)>;

    MutexWatch(const void* begin, const void* end, Heard heard);
    ~MutexWatch();
    MutexWatch(const MutexWatch&) = delete;
    MutexWatch& operator=(const MutexWatch&) = delete;

    static void Tell(const pthread_mutex_t* mutex, const char* call);

private:
    const void* m_begin;
    const void* m_end;
    Heard m_heard;
};
