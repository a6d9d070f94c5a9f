// The S3 service of the `s3` tests: the test cluster's radosgw, which
// scripts/ceph-test-cluster.sh starts, found through its environment
// (AWS_ENDPOINT_URL, AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY).
#pragma once

#include "s3/S3FileSystem.h"

#include <string>

namespace testsupport {

// The test bucket, created on first use; fails the calling test (via an
// exception) when the environment names no service.
std::string s3TestBucket();
// Options for the test service with `threadCount` workers.
zo::S3Options s3TestOptions(int threadCount = 4);
// "s3://BUCKET/<label>-<pid>-<n>": a folder no other test uses.
zo::CURI uniqueS3Folder(const std::string& label);
// Removes every object under `folder` (a path of uniqueS3Folder).
void removeS3Folder(const zo::CURI& folder);

} // namespace testsupport
