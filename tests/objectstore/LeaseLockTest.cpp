// The renewal of an object-store folder lock: once started, a worker of the
// lock renews the lease every third of it until the lock stops it, and the
// lock tells whether the latest renewal failed.
#include "objectstore/LeaseLock.h"

#include "zo/Error.h"
#include "zo/Log.h"
#include "zo/Signal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

namespace {

// What no step of a working test comes near, even on a busy machine.
constexpr int kGenerousMillis = 60000;

// A lock of a one-second lease (a renewal every third of a second) whose
// renewals are counted; the first `failures` of them throw. Each renewal
// notes whether the lock told of a failed renewal when it began.
class CountingLeaseLock : public zo::CLeaseLock {
public:
    CountingLeaseLock(int failures, int awaited) : CLeaseLock(true, 1), m_failures(failures), m_awaited(awaited) {}
    ~CountingLeaseLock() override { stopRenewing(); }

    using CLeaseLock::startRenewing;
    using CLeaseLock::stopRenewing;

    // True once `awaited` renewals began, within a generous time.
    bool waitForRenewals() { return m_renewedEnough.wait(kGenerousMillis); }
    int renewals() const { return m_renewals.load(); }
    // Whether the lock told of a failed renewal as each renewal began; only
    // read once the renewal has stopped.
    const std::vector<bool>& failedBefore() const { return m_failedBefore; }

protected:
    void renew() override
    {
        m_failedBefore.push_back(lastRenewalFailed());
        const int renewal = ++m_renewals;
        if (renewal == m_awaited)
            m_renewedEnough.set();
        if (renewal <= m_failures)
            throw zo::CError("The store does not answer.");
    }

private:
    const int m_failures;
    const int m_awaited;
    std::atomic<int> m_renewals{0};
    std::vector<bool> m_failedBefore;
    zo::CSignal m_renewedEnough;
};

// Keeps the log quiet while it lives, then puts the previous sink back.
class QuietLog {
public:
    QuietLog() : m_previous(zo::setLogSink([](zo::LogLevel, const zo::String&) {})) {}
    ~QuietLog() { zo::setLogSink(m_previous); }
    QuietLog(const QuietLog&) = delete;
    QuietLog& operator=(const QuietLog&) = delete;

private:
    zo::LogSink m_previous;
};

} // namespace

TEST(LeaseLock, RenewsTheLeaseAgainAndAgainUntilStopped)
{
    CountingLeaseLock lock(0, 3);
    lock.startRenewing();

    ASSERT_TRUE(lock.waitForRenewals());
    lock.stopRenewing();
    const int renewals = lock.renewals();

    EXPECT_GE(renewals, 3);
    EXPECT_FALSE(lock.lastRenewalFailed());
    lock.stopRenewing();
    EXPECT_EQ(lock.renewals(), renewals) << "A renewal ran after the renewal was stopped.";
}

TEST(LeaseLock, TellsOfAFailedRenewalUntilARenewalSucceeds)
{
    const QuietLog quiet;
    CountingLeaseLock lock(2, 4);
    EXPECT_FALSE(lock.lastRenewalFailed());
    lock.startRenewing();

    ASSERT_TRUE(lock.waitForRenewals());
    lock.stopRenewing();

    ASSERT_GE(lock.failedBefore().size(), 4u);
    EXPECT_FALSE(lock.failedBefore()[0]);
    EXPECT_TRUE(lock.failedBefore()[1]);
    EXPECT_TRUE(lock.failedBefore()[2]);
    EXPECT_FALSE(lock.failedBefore()[3]);
}

TEST(LeaseLock, StoppingARenewalThatNeverStartedReturns)
{
    CountingLeaseLock lock(0, 1);
    lock.stopRenewing();
    EXPECT_EQ(lock.renewals(), 0);
}
