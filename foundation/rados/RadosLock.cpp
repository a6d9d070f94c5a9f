#include "rados/RadosLock.h"

#include "rados/RadosObjectStore.h"
#include "zo/Log.h"

#include <cerrno>

namespace zo {

namespace {

const char* lockName = "brickdisk";
const char* sharedTag = "brickdisk";

} // namespace

CRadosLock::CRadosLock(CRadosObjectStore* store, const ObjectName& name, bool exclusive, int leaseSeconds)
    : CLeaseLock(exclusive, leaseSeconds), m_store(store), m_name(name), m_cookie(newHolderName())
{
    const int result = takeLock(false);
    if (result == -EBUSY || result == -EEXIST) {
        throw lockedError(
            String::fromUTF8("rados://" + m_name.container + "/" + m_name.key), describeHolders(),
            CProps().add("pool", String::fromUTF8(m_name.container)).add("object", String::fromUTF8(m_name.key)));
    }
    if (result < 0)
        throw m_store->makeError(result, "lock", m_name);
    startRenewing();
}

CRadosLock::~CRadosLock()
{
    stopRenewing();
    // A cluster that did not answer the last renewal would most likely keep
    // the unlock waiting for its whole time-out too: the lease ends the lock.
    if (lastRenewalFailed())
        return;
    const int result = m_store->getIoCtx(m_name.container).unlock(m_name.key, lockName, m_cookie);
    if (result < 0 && result != -ENOENT)
        onExceptionInDestructorIgnored("zo::CRadosLock", m_store->makeError(result, "unlock", m_name), true);
}

int CRadosLock::takeLock(bool renewing)
{
    librados::IoCtx& context = m_store->getIoCtx(m_name.container);
    timeval lease{getLeaseSeconds(), 0};
    const uint8_t flags = renewing ? LIBRADOS_LOCK_FLAG_MUST_RENEW : 0;
    const std::string description = describeThisProcess();
    return isExclusive() ? context.lock_exclusive(m_name.key, lockName, m_cookie, description, &lease, flags)
                         : context.lock_shared(m_name.key, lockName, m_cookie, sharedTag, description, &lease, flags);
}

String CRadosLock::describeHolders()
{
    int exclusive = 0;
    std::string tag;
    std::list<librados::locker_t> lockers;
    if (m_store->getIoCtx(m_name.container).list_lockers(m_name.key, lockName, &exclusive, &tag, &lockers) < 0)
        return String();
    std::string holders;
    for (const librados::locker_t& locker : lockers)
        holders += (holders.empty() ? "" : "; ") + locker.cookie.substr(0, locker.cookie.rfind(" #"));
    return String::fromUTF8(holders);
}

void CRadosLock::renew()
{
    const int result = takeLock(true);
    if (result < 0)
        throw m_store->makeError(result, "renew the lock", m_name);
}

} // namespace zo
