// Where a disk lives: the store that a disk's name points into, and the file
// system that reaches it. A disk is named by a local folder ("/srv/disks/vm"),
// by a folder in a Ceph pool ("rados://POOL/path/to/disk") or by a folder in
// an S3 bucket ("s3://BUCKET/path/to/disk"). The tools, the nbdkit plugin and
// programs of their own open disks the same way through openStore.
#pragma once

#include "zo/Base.h"
#include "zo/Export.h"
#include "zo/FileSystem.h"
#include "zo/URI.h"

#ifdef BRICKDISK_HAVE_RADOS
#include "rados/RadosFileSystem.h"
#endif
#ifdef BRICKDISK_HAVE_S3
#include "s3/S3FileSystem.h"
#endif

#include <string>

namespace brick {

// The Ceph cluster of the disks on Ceph.
struct CephClusterSettings {
    // The cluster's configuration file; empty: CEPH_CONF, then Ceph's
    // default places.
    std::string configFile;
    // The Ceph user without "client.".
    std::string clientId = "admin";
    // How long the disk lock of a killed program keeps others out.
    int lockLeaseSeconds = 30;
    // Seconds after which an object or monitor operation gives up.
    int operationTimeoutSeconds = 60;
};

// The S3 service of the disks on S3. The keys and the region come from the
// environment or the AWS profile, as every S3 tool finds them, never from
// here.
struct S3ServiceSettings {
    // "https://host[:port]"; empty: AWS_ENDPOINT_URL_S3, AWS_ENDPOINT_URL, the
    // profile's endpoint_url, else AWS itself.
    std::string endpoint;
    // The bucket in the host name instead of the path.
    bool virtualHost = false;
    // For services that ignore "If-None-Match: *": a check before a store
    // that must not replace.
    bool noConditionalPut = false;
    // How long the disk lock of a killed program keeps others out.
    int lockLeaseSeconds = 30;
    // Tries of each request that meets a time-out, a lost connection, 5xx or
    // 429.
    int attempts = 8;
};

// What the caller knows of the stores; only the settings of the store that
// a disk lives in are used.
struct StoreSettings {
    CephClusterSettings ceph;
    S3ServiceSettings s3;
};

enum class StoreKind {
    LocalFolder,
    Ceph,
    S3,
};

// The store of the disk named `diskPath`: Ceph for "rados://...", S3 for
// "s3://...", else a local folder. Never throws.
BRICKDISK_EXPORT StoreKind getStoreKind(const std::string& diskPath);

// True when both disks are in the same kind of store (both local, both on
// Ceph or both on S3). Never throws.
BRICKDISK_EXPORT bool isSameStore(const zo::CURI& first, const zo::CURI& second);

// Refuses a disk name that starts like a store's address but is not one of
// the known ones: a word and ":/", as in a mistyped "s3:/bucket",
// "S3://bucket" or "file:///srv", which would otherwise name an odd local
// folder. Throws zo::CError "Unknown storage scheme ..." (with "diskFolder"
// and "scheme"), which says how such a local folder is named instead
// ("./s3:/bucket"); returns for every other name.
BRICKDISK_EXPORT void checkStoreScheme(const std::string& diskPath);

// A new file system that reaches the disk in `diskFolder`, with `threadCount`
// worker threads (an S3 file system takes at least 8): the Ceph cluster's for
// "rados://" folders, the S3 service's for "s3://" folders, else the local
// file system, where with `syncEnabled` every stored brick and header reaches
// the disk before it counts as stored. The caller owns the returned file
// system. Throws zo::CError as checkStoreScheme does, when this library was
// built without the store the folder needs, when no S3 credentials are found,
// and when the file system cannot be set up (the Ceph cluster cannot be
// reached). Nothing of the disk is read. Any thread may call it.
BRICKDISK_EXPORT zo::P<zo::IFileSystem> openStore(const zo::CURI& diskFolder, const StoreSettings& settings,
                                                  bool syncEnabled, int threadCount);

#ifdef BRICKDISK_HAVE_RADOS
// The options of the Ceph file system that openStore makes from `settings`.
BRICKDISK_EXPORT zo::RadosOptions makeRadosOptions(const CephClusterSettings& settings, int threadCount);
#endif

#ifdef BRICKDISK_HAVE_S3
// The options of the S3 file system that openStore makes from `settings`
// and the environment (zo::loadS3Options). Throws zo::CError "No S3
// credentials: ..." when no keys are found.
BRICKDISK_EXPORT zo::S3Options makeS3Options(const S3ServiceSettings& settings, int threadCount);
#endif

} // namespace brick
