// CSignal: a manual-reset event. Thread-safe.
#pragma once

#include "zo/Base.h"
#include "zo/Export.h"

#include <condition_variable>
#include <mutex>

namespace zo {

class BRICKDISK_EXPORT CSignal : public CBase {
public:
    explicit CSignal(bool initiallySet = false) : m_set(initiallySet) {}

    // Sets the signal and wakes every waiter; it stays set until reset.
    void set();
    void reset();
    bool isSet() const;
    // Waits up to `timeoutMillis` (-1: no limit, 0: only tests); true when set.
    bool wait(int timeoutMillis);

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_set;
};

} // namespace zo
