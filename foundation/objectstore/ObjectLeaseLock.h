// CObjectLeaseLock: a folder lock for object stores that have no locks of
// their own (S3), made of plain objects. Each holder writes one object under
// the lock's name, "<lock>/<holder>", that says whether it holds the lock
// exclusively or shared, until when its lease runs, and who it is. A locker
// writes its object first, then lists the others: when a live one conflicts
// (either side exclusive) it removes its own object again and is refused.
// Two lockers that race may both be refused, never both let in, as long as
// the store lists what was written before (every S3 service today does).
//
// A lease ends at a time of the holder's clock, written into its object;
// the lockers' clocks must agree to within a few seconds. A thread of the
// lock rewrites the object every third of the lease; dropping the lock
// removes it. The objects of holders whose lease ran out are ignored, and
// removed by the next locker.
#pragma once

#include "objectstore/LeaseLock.h"
#include "objectstore/ObjectStore.h"

namespace zo {

class CObjectLeaseLock : public CLeaseLock {
public:
    // Takes the lock on `name` in `store`, without waiting. Throws
    // CFileSystemError Locked with the property "holder" (the description
    // of a conflicting holder) or the store's error. `scheme` names the
    // store in paths of errors ("s3").
    CObjectLeaseLock(IObjectStore* store, const std::string& scheme, const ObjectName& name, bool exclusive,
                     int leaseSeconds);
    // Stops the renewal and removes the holder's object; never throws (a
    // failed removal is logged and the lease ends the lock).
    ~CObjectLeaseLock() override;

protected:
    void renew() override;

private:
    void writeHolderObject();
    // The description of a live holder whose lock conflicts with this one,
    // nothing when there is none.
    std::optional<std::string> findConflict();

    P<IObjectStore> m_store;
    std::string m_scheme;
    ObjectName m_lockName;
    ObjectName m_holderName;
};

} // namespace zo
