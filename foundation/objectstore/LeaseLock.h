// CLeaseLock: the part every object-store folder lock shares. A lock is taken
// with a lease of `leaseSeconds`; a thread of the lock renews it every third
// of the lease, so a holder that dies without unlocking keeps others out for
// one lease at most. A derived lock takes the lock in its constructor, calls
// startRenewing() once it holds it, and stopRenewing() first thing in its
// destructor, before it unlocks.
#pragma once

#include "zo/FileSystem.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace zo {

class CLeaseLock : public CBase, public IFileSystemLock {
public:
    CLeaseLock(bool exclusive, int leaseSeconds);
    // The renewal must have been stopped (stopRenewing) by the derived lock.
    ~CLeaseLock() override;
    CLeaseLock(const CLeaseLock&) = delete;
    CLeaseLock& operator=(const CLeaseLock&) = delete;

    bool isExclusive() const override { return m_exclusive; }
    int getLeaseSeconds() const { return m_leaseSeconds; }
    // True when the latest renewal failed: the store most likely does not
    // answer, so an unlock would only wait for its time-out.
    bool lastRenewalFailed() const { return m_lastRenewalFailed; }

    // "process PID (PROGRAM) on HOST": what a refused locker is told about a
    // holder.
    static std::string describeThisProcess();
    // A name no other lock, of this process or another, uses; it starts with
    // describeThisProcess().
    static std::string newHolderName();
    // The Locked error of a refused locker: `path` is the lock's place,
    // `holder` who holds it (may be empty), `props` any further properties.
    static CFileSystemError lockedError(const String& path, const String& holder, CProps props = CProps());

protected:
    // Renews the lock; runs on the renewal thread. Its errors are logged.
    virtual void renew() = 0;
    void startRenewing();
    // Stops and joins the renewal thread; safe to call when it never started.
    void stopRenewing();

private:
    void renewUntilStopped();

    bool m_exclusive;
    int m_leaseSeconds;
    std::mutex m_mutex;
    std::condition_variable m_stopRequested;
    bool m_stopping = false;
    std::atomic<bool> m_lastRenewalFailed{false};
    std::thread m_renewer;
};

} // namespace zo
