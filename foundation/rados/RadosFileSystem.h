// CRadosFileSystem: IFileSystem over a Ceph cluster through librados, for
// paths "rados://POOL/path/to/file". The rules of names, folders, moves,
// listings and locks are those of CObjectStoreFileSystem; the objects live
// in the pool named by the path (in `nameSpace` when one is given).
//
// Every object operation is bounded by `operationTimeoutSeconds`, so a dead
// cluster gives an error instead of a hang. A folder lock is a RADOS
// advisory lock on the object "<folder>/.lock" with a lease of
// `lockLeaseSeconds` that a thread of the lock renews; when the holder dies
// the lock ends once its lease runs out.
#pragma once

#include "objectstore/ObjectStoreFileSystem.h"

namespace zo {

struct RadosOptions {
    // The cluster's configuration file; empty: CEPH_CONF, then Ceph's own
    // search (/etc/ceph/ceph.conf, ...).
    String configFile;
    // The Ceph user without "client.", e.g. "admin".
    String clientId = "admin";
    // The RADOS namespace of the objects; empty: the pool's default.
    String nameSpace;
    int connectTimeoutSeconds = 30;
    int operationTimeoutSeconds = 60;
    int lockLeaseSeconds = 30;
    // Workers that check paths before the cluster's asynchronous writes.
    int threadCount = 4;
};

class BRICKDISK_EXPORT CRadosFileSystem : public CObjectStoreFileSystem {
public:
    // Connects to the cluster. Throws CFileSystemError when the configuration
    // cannot be read or the cluster refuses or does not answer (with the
    // properties "configFile", "clientId" and the cluster's error text).
    explicit CRadosFileSystem(const RadosOptions& options);

    // The scheme of the paths: "rados".
    static const char* getScheme();
};

} // namespace zo
