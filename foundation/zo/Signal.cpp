#include "zo/Signal.h"

#include <chrono>

namespace zo {

void CSignal::set()
{
    std::lock_guard lock(m_mutex);
    m_set = true;
    m_changed.notify_all();
}

void CSignal::reset()
{
    std::lock_guard lock(m_mutex);
    m_set = false;
}

bool CSignal::isSet() const
{
    std::lock_guard lock(m_mutex);
    return m_set;
}

bool CSignal::wait(int timeoutMillis)
{
    std::unique_lock lock(m_mutex);
    if (timeoutMillis < 0) {
        m_changed.wait(lock, [this] { return m_set; });
        return true;
    }
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMillis), [this] { return m_set; });
}

} // namespace zo
