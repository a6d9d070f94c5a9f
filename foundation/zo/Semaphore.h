// CSemaphore: a counting semaphore. Thread-safe.
#pragma once

#include "zo/Base.h"
#include "zo/Export.h"

#include <condition_variable>
#include <mutex>

namespace zo {

class BRICKDISK_EXPORT CSemaphore : public CBase {
public:
    explicit CSemaphore(unsigned initialCount = 0) : m_count(initialCount) {}

    // Takes one count, waiting up to `timeoutMillis` (-1: no limit); true when taken.
    virtual bool acquire(int timeoutMillis);
    // Adds `count` counts, waking waiters.
    virtual void post(unsigned count = 1);
    unsigned getCount() const;

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_available;
    unsigned m_count;
};

} // namespace zo
