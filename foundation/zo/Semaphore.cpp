#include "zo/Semaphore.h"

#include <chrono>

namespace zo {

bool CSemaphore::acquire(int timeoutMillis)
{
    std::unique_lock lock(m_mutex);
    const auto ready = [this] { return m_count > 0; };
    if (timeoutMillis < 0)
        m_available.wait(lock, ready);
    else if (!m_available.wait_for(lock, std::chrono::milliseconds(timeoutMillis), ready))
        return false;
    --m_count;
    return true;
}

void CSemaphore::post(unsigned count)
{
    std::lock_guard lock(m_mutex);
    m_count += count;
    if (count == 1)
        m_available.notify_one();
    else
        m_available.notify_all();
}

unsigned CSemaphore::getCount() const
{
    std::lock_guard lock(m_mutex);
    return m_count;
}

} // namespace zo
