#include "objectstore/LeaseLock.h"

#include "zo/Log.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <unistd.h>

namespace zo {

CLeaseLock::CLeaseLock(bool exclusive, int leaseSeconds) : m_exclusive(exclusive), m_leaseSeconds(leaseSeconds)
{}

CLeaseLock::~CLeaseLock()
{
    stopRenewing();
}

std::string CLeaseLock::describeThisProcess()
{
    char host[256] = {};
    ::gethostname(host, sizeof host - 1);
    return "process " + std::to_string(::getpid()) + " (" + program_invocation_short_name + ") on " + host;
}

std::string CLeaseLock::newHolderName()
{
    static std::atomic<int> counter{0};
    return describeThisProcess() + " #" + std::to_string(++counter) + "-" +
        std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
}

CFileSystemError CLeaseLock::lockedError(const String& path, const String& holder, CProps props)
{
    props.add("path", path).add("holder", holder);
    return CFileSystemError(CFileSystemError::Locked,
                            CError("The folder is locked by someone else.", String(), -1, props));
}

void CLeaseLock::startRenewing()
{
    m_renewer = std::make_unique<CWorkerPool>(1);
    m_renewer->post([this](int) { renewUntilStopped(); });
}

void CLeaseLock::stopRenewing()
{
    m_stopping.set();
    // Joins the worker once its renewal under way has ended.
    m_renewer.reset();
}

void CLeaseLock::renewUntilStopped()
{
    const int intervalMillis = m_leaseSeconds * 1000 / 3;
    while (!m_stopping.wait(intervalMillis)) {
        try {
            renew();
            m_lastRenewalFailed = false;
        } catch (const std::exception& e) {
            m_lastRenewalFailed = true;
            logError(e, "A folder lock on an object store could not be renewed.", String());
        }
    }
}

} // namespace zo
