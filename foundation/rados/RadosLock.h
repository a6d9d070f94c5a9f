// CRadosLock: a folder lock of CRadosFileSystem, a RADOS advisory lock
// "brickdisk" on one object (exclusive, or shared under one tag). It is
// taken with a lease of `leaseSeconds`; a thread of the lock renews it every
// third of the lease, so a holder that dies without unlocking keeps others
// out for one lease at most. Dropping the lock stops the renewal and
// unlocks.
#pragma once

#include "zo/FileSystem.h"
#include "objectstore/ObjectStore.h"

#include <condition_variable>
#include <mutex>
#include <thread>

namespace zo {

class CRadosObjectStore;

class CRadosLock : public CBase, public IFileSystemLock {
public:
    // Takes the lock without waiting. Throws CFileSystemError Locked, with
    // the property "holder" (the holders' descriptions: process, program and
    // host), when someone else holds a conflicting lock, or the error of the
    // cluster.
    CRadosLock(CRadosObjectStore* store, const ObjectName& name, bool exclusive, int leaseSeconds);
    // Stops the renewal and unlocks; never throws (a failed unlock is logged
    // and the lease ends the lock).
    ~CRadosLock() override;
    CRadosLock(const CRadosLock&) = delete;
    CRadosLock& operator=(const CRadosLock&) = delete;

    bool isExclusive() const override { return m_exclusive; }

private:
    // Takes or renews the lock; returns librados's result.
    int takeLock(bool renew);
    String describeHolders();
    void renewUntilStopped();

    P<CRadosObjectStore> m_store;
    ObjectName m_name;
    bool m_exclusive;
    int m_leaseSeconds;
    std::string m_cookie;
    std::mutex m_mutex;
    std::condition_variable m_stopRequested;
    bool m_stopping = false;
    std::thread m_renewer;
};

} // namespace zo
