#pragma once

#include <pthread.h>

// A pthread mutex with default attributes. Destroying it waits for whoever holds it.
class PVMutex {
public:
    PVMutex() { pthread_mutex_init(&m_mutex, nullptr); }
    ~PVMutex() {
        Lock();
        Unlock();
        pthread_mutex_destroy(&m_mutex);
    }
    PVMutex(const PVMutex&) = delete;
    PVMutex& operator=(const PVMutex&) = delete;

    void Lock() { pthread_mutex_lock(&m_mutex); }
    void Unlock() { pthread_mutex_unlock(&m_mutex); }

private:
    pthread_mutex_t m_mutex{};
};
