#include "rados/RadosLock.h"

#include "rados/RadosObjectStore.h"
#include "zo/Log.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <unistd.h>

namespace zo {

namespace {

const char* lockName = "brickdisk";
const char* sharedTag = "brickdisk";

std::string describeThisProcess()
{
    char host[256] = {};
    ::gethostname(host, sizeof host - 1);
    return "process " + std::to_string(::getpid()) + " (" + program_invocation_short_name + ") on " + host;
}

// A cookie that no other lock object, of this process or another, uses. It
// starts with the description of its holder, which is what a refused locker
// reads back from the cluster.
std::string newCookie()
{
    static std::atomic<int> counter{0};
    return describeThisProcess() + " #" + std::to_string(++counter) + "-" +
           std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
}

} // namespace

CRadosLock::CRadosLock(CRadosObjectStore* store, const ObjectName& name, bool exclusive, int leaseSeconds)
    : m_store(store), m_name(name), m_exclusive(exclusive), m_leaseSeconds(leaseSeconds), m_cookie(newCookie())
{
    const int result = takeLock(false);
    if (result == -EBUSY || result == -EEXIST) {
        const CError cause("The folder is locked by someone else.", String(), -1,
                           CProps()
                               .add("path", "rados://" + m_name.container + "/" + m_name.key)
                               .add("pool", String::fromUTF8(m_name.container))
                               .add("object", String::fromUTF8(m_name.key))
                               .add("holder", describeHolders()));
        throw CFileSystemError(CFileSystemError::Locked, cause);
    }
    if (result < 0)
        throw m_store->makeError(result, "lock", m_name);
    m_renewer = std::thread([this] { renewUntilStopped(); });
}

CRadosLock::~CRadosLock()
{
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_stopRequested.notify_all();
    m_renewer.join();
    const int result = m_store->getIoCtx(m_name.container).unlock(m_name.key, lockName, m_cookie);
    if (result < 0 && result != -ENOENT)
        onExceptionInDestructorIgnored("zo::CRadosLock", m_store->makeError(result, "unlock", m_name), true);
}

int CRadosLock::takeLock(bool renew)
{
    librados::IoCtx& context = m_store->getIoCtx(m_name.container);
    timeval lease{m_leaseSeconds, 0};
    const uint8_t flags = renew ? LIBRADOS_LOCK_FLAG_MUST_RENEW : 0;
    const std::string description = describeThisProcess();
    return m_exclusive ? context.lock_exclusive(m_name.key, lockName, m_cookie, description, &lease, flags)
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

void CRadosLock::renewUntilStopped()
{
    const auto interval = std::chrono::milliseconds(m_leaseSeconds * 1000 / 3);
    std::unique_lock lock(m_mutex);
    while (!m_stopRequested.wait_for(lock, interval, [this] { return m_stopping; })) {
        lock.unlock();
        const int result = takeLock(true);
        if (result < 0)
            logError(m_store->makeError(result, "renew the lock", m_name), "A folder lock on Ceph could not be renewed.",
                     String());
        lock.lock();
    }
}

} // namespace zo
