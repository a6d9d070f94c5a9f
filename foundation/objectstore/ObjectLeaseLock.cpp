#include "objectstore/ObjectLeaseLock.h"

#include "zo/Log.h"

#include <chrono>
#include <sstream>

namespace zo {

namespace {

// The content of a holder's object: "exclusive" or "shared", the end of the
// lease in milliseconds since 1970, and the holder's description, one a line.
struct HolderRecord {
    bool exclusive = false;
    int64 leaseEndMs = 0;
    std::string description;
};

int64 nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string formatRecord(const HolderRecord& record)
{
    return std::string(record.exclusive ? "exclusive" : "shared") + "\n" + std::to_string(record.leaseEndMs) + "\n" +
        record.description + "\n";
}

// A record that cannot be read counts as an exclusive holder whose lease
// has not run out: a stranger's object keeps lockers out rather than in.
HolderRecord parseRecord(const std::string& text)
{
    std::istringstream lines(text);
    std::string mode, leaseEnd, description;
    std::getline(lines, mode);
    std::getline(lines, leaseEnd);
    std::getline(lines, description);
    HolderRecord record;
    record.exclusive = mode != "shared";
    record.description = description.empty() ? "an unknown holder" : description;
    try {
        record.leaseEndMs = std::stoll(leaseEnd);
    } catch (const std::exception&) {
        record.leaseEndMs = nowMs() + 60000;
    }
    return record;
}

bool isNotFound(const CError& error)
{
    return CFileSystemError::getProblem(error.getProps()) == CFileSystemError::NotFound;
}

} // namespace

CObjectLeaseLock::CObjectLeaseLock(IObjectStore* store, const std::string& scheme, const ObjectName& name,
                                   bool exclusive, int leaseSeconds)
    : CLeaseLock(exclusive, leaseSeconds), m_store(store), m_scheme(scheme),
      m_lockName(name), m_holderName{name.container, name.key + "/" + newHolderName()}
{
    writeHolderObject();
    std::optional<std::string> conflict;
    try {
        conflict = findConflict();
    } catch (...) {
        runSync([&](IObjectStore::Done done) { m_store->beginRemove(m_holderName, std::move(done)); });
        throw;
    }
    if (conflict) {
        runSync([&](IObjectStore::Done done) { m_store->beginRemove(m_holderName, std::move(done)); });
        throw lockedError(String::fromUTF8(m_scheme + "://" + m_lockName.container + "/" + m_lockName.key),
                          String::fromUTF8(*conflict));
    }
    startRenewing();
}

CObjectLeaseLock::~CObjectLeaseLock()
{
    stopRenewing();
    try {
        runSync([&](IObjectStore::Done done) { m_store->beginRemove(m_holderName, std::move(done)); });
    } catch (const CError& e) {
        if (!isNotFound(e))
            onExceptionInDestructorIgnored("zo::CObjectLeaseLock", e, true);
    } catch (const std::exception& e) {
        onExceptionInDestructorIgnored("zo::CObjectLeaseLock", e, true);
    } catch (...) {
        // The lease ends the holder's object in any case.
        logLine(LogLevel::Error, "zo::CObjectLeaseLock could not remove its holder object (unknown exception).");
    }
}

void CObjectLeaseLock::renew()
{
    writeHolderObject();
}

void CObjectLeaseLock::writeHolderObject()
{
    const HolderRecord record{isExclusive(), nowMs() + getLeaseSeconds() * int64(1000), describeThisProcess()};
    runSync([&](IObjectStore::Done done) {
        m_store->beginPut(m_holderName, formatRecord(record), false, std::move(done));
    });
}

std::optional<std::string> CObjectLeaseLock::findConflict()
{
    for (const std::string& key : m_store->list(m_lockName.container, m_lockName.key + "/", 0)) {
        const ObjectName other{m_lockName.container, key};
        if (key == m_holderName.key)
            continue;
        std::string text;
        try {
            text = m_store->read(other);
        } catch (const CError& e) {
            if (isNotFound(e))
                continue; // dropped since the listing
            throw;
        }
        const HolderRecord record = parseRecord(text);
        if (record.leaseEndMs < nowMs()) {
            m_store->beginRemove(other, [](const CError*) {}); // a dead holder's leftover
            continue;
        }
        if (isExclusive() || record.exclusive)
            return record.description;
    }
    return std::nullopt;
}

} // namespace zo
