// Mutual exclusion: CMutex (recursive) and the scoped CMutexLock / CMutexUnlock.
#pragma once

#include "zo/Export.h"

#include <mutex>

namespace zo {

class BRICKDISK_EXPORT IMutex {
public:
    virtual ~IMutex() = default;
    virtual void lock() = 0;
    virtual void unlock() = 0;
    virtual bool tryLock() = 0;
};

// A recursive mutex: the thread that holds it may lock it again.
class BRICKDISK_EXPORT CMutex : public IMutex {
public:
    CMutex() = default;
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    void lock() override { m_mutex.lock(); }
    void unlock() override { m_mutex.unlock(); }
    bool tryLock() override { return m_mutex.try_lock(); }

private:
    std::recursive_mutex m_mutex;
};

// Holds a mutex for its lifetime.
class BRICKDISK_EXPORT CMutexLock {
public:
    explicit CMutexLock(IMutex& mutex) : m_mutex(mutex) { m_mutex.lock(); }
    explicit CMutexLock(IMutex* mutex) : CMutexLock(*mutex) {}
    ~CMutexLock() { m_mutex.unlock(); }
    CMutexLock(const CMutexLock&) = delete;
    CMutexLock& operator=(const CMutexLock&) = delete;

private:
    IMutex& m_mutex;
};

// Releases a mutex that the thread holds (once) for its lifetime and takes it
// again at its end.
class BRICKDISK_EXPORT CMutexUnlock {
public:
    explicit CMutexUnlock(CMutex& mutex) : m_mutex(mutex) { m_mutex.unlock(); }
    ~CMutexUnlock() { m_mutex.lock(); }
    CMutexUnlock(const CMutexUnlock&) = delete;
    CMutexUnlock& operator=(const CMutexUnlock&) = delete;

private:
    CMutex& m_mutex;
};

} // namespace zo
