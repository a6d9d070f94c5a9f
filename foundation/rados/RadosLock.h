// CRadosLock: a folder lock of CRadosFileSystem, a RADOS advisory lock
// "brickdisk" on one object (exclusive, or shared under one tag), with the
// lease and its renewal of CLeaseLock. Dropping the lock stops the renewal
// and unlocks.
#pragma once

#include "objectstore/LeaseLock.h"
#include "objectstore/ObjectStore.h"

namespace zo {

class CRadosObjectStore;

class CRadosLock : public CLeaseLock {
public:
    // Takes the lock without waiting. Throws CFileSystemError Locked, with
    // the property "holder" (the holders' descriptions: process, program and
    // host), when someone else holds a conflicting lock, or the error of the
    // cluster.
    CRadosLock(CRadosObjectStore* store, const ObjectName& name, bool exclusive, int leaseSeconds);
    // Stops the renewal and unlocks; never throws (a failed unlock is logged
    // and the lease ends the lock). When the last renewal failed, it leaves
    // the lock to its lease without asking the cluster.
    ~CRadosLock() override;

protected:
    void renew() override;

private:
    // Takes or renews the lock; returns librados's result.
    int takeLock(bool renewing);
    String describeHolders();

    P<CRadosObjectStore> m_store;
    ObjectName m_name;
    std::string m_cookie;
};

} // namespace zo
