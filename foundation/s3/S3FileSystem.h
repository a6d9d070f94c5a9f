// CS3FileSystem: IFileSystem over an S3-compatible object store (AWS S3,
// MinIO, Ceph's radosgw, hosted providers) through libcurl, for paths
// "s3://BUCKET/path/to/file". The rules of names, folders, moves, listings
// and locks are those of CObjectStoreFileSystem; each file is one object of
// the bucket named by the path.
//
// Requests are signed with AWS Signature Version 4 and run many at once on
// one thread of the file system's, over reused connections. A request that
// meets a time-out, a reset connection, a 5xx answer or 429 is retried with
// growing pauses, up to `maxAttempts` times; every request is safe to repeat
// (an object is always written whole). A store that must not replace an
// object is a conditional PUT ("If-None-Match: *") when
// `conditionalWrites` is on, else a check followed by the PUT, which only the
// disk's lock makes safe; an exclusive copy is always a check followed by a
// server-side copy. A folder lock is a CObjectLeaseLock under
// "<folder>/.lock/" with a lease of `lockLeaseSeconds`.
#pragma once

#include "objectstore/ObjectStoreFileSystem.h"

namespace zo {

struct S3Options {
    // "https://host[:port]" or "http://host[:port]"; empty: AWS's endpoint
    // of `region`, https://s3.REGION.amazonaws.com.
    std::string endpoint;
    std::string region = "us-east-1";
    std::string accessKeyId;
    std::string secretAccessKey;
    // Temporary credentials' token; empty for long-lived keys.
    std::string sessionToken;
    // The bucket in the host name (https://BUCKET.host/key) instead of the
    // path (https://host/BUCKET/key).
    bool virtualHostStyle = false;
    // The service honours "If-None-Match: *" on PUT.
    bool conditionalWrites = true;
    int connectTimeoutSeconds = 10;
    int requestTimeoutSeconds = 60;
    // Tries of one request, the first included; the pause before a retry
    // starts at `firstRetryDelayMs` and doubles up to 5 seconds.
    int maxAttempts = 8;
    int firstRetryDelayMs = 200;
    // Connections kept open to the service at most.
    int maxConnections = 16;
    // Keys per listing request (the service's own limit is 1000).
    int listPageSize = 1000;
    int lockLeaseSeconds = 30;
    // Workers that check paths before the asynchronous requests.
    int threadCount = 4;
};

// S3Options as S3 tools find them: the keys in AWS_ACCESS_KEY_ID,
// AWS_SECRET_ACCESS_KEY and AWS_SESSION_TOKEN, else in the profile
// AWS_PROFILE ("default") of ~/.aws/credentials (AWS_SHARED_CREDENTIALS_FILE);
// the region in AWS_REGION, AWS_DEFAULT_REGION, or the profile's "region" in
// ~/.aws/config (AWS_CONFIG_FILE); the endpoint `endpoint` when not empty,
// else AWS_ENDPOINT_URL_S3, AWS_ENDPOINT_URL, or the profile's
// "endpoint_url". Another endpoint than AWS's is addressed path-style.
// Throws CError "No S3 credentials: ..." when no keys are found.
BRICKDISK_EXPORT S3Options loadS3Options(const std::string& endpoint);

class CS3ObjectStore;

class BRICKDISK_EXPORT CS3FileSystem : public CObjectStoreFileSystem {
public:
    // Starts the transfer thread; contacts the service only on the first
    // call. Throws CError when curl cannot be set up. Wrong keys or a missing
    // bucket show on the first call as CFileSystemError AccessDenied or
    // NotFound, with the properties "bucket", "httpStatus", "s3Code" and the
    // service's message.
    explicit CS3FileSystem(const S3Options& options);

    // Creates `bucket` in the options' region. Throws CFileSystemError
    // AlreadyExists when this user owns it already, else the service's error.
    void createBucket(const std::string& bucket);

    // The scheme of the paths: "s3".
    static const char* getScheme();

private:
    CS3FileSystem(CS3ObjectStore* store, const S3Options& options);

    CS3ObjectStore* m_s3; // held by the base class
};

} // namespace zo
