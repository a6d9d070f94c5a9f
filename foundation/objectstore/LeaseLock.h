// CLeaseLock: the part every object-store folder lock shares. A lock is taken
// with a lease of `leaseSeconds`; a worker of the lock (a CWorkerPool of one,
// stopped by a CSignal) renews it every third of the lease, so a holder that
// dies without unlocking keeps others out for one lease at most. A derived
// lock takes the lock in its constructor, calls startRenewing() once it holds
// it, and stopRenewing() first thing in its destructor, before it unlocks.
#pragma once

#include "zo/FileSystem.h"
#include "zo/Signal.h"
#include "zo/WorkerPool.h"

#include <atomic>
#include <memory>
#include <string>

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
    // Renews the lock; runs on the renewal worker. Its errors are logged.
    virtual void renew() = 0;
    // Starts the renewal worker. Throws CError when it cannot be started.
    void startRenewing();
    // Stops the renewal worker and waits for a renewal under way; safe to
    // call when it never started, and more than once. Never throws.
    void stopRenewing();

private:
    void renewUntilStopped();

    bool m_exclusive;
    int m_leaseSeconds;
    CSignal m_stopping;
    std::atomic<bool> m_lastRenewalFailed{false};
    std::unique_ptr<CWorkerPool> m_renewer;
};

} // namespace zo
