// The Ceph test cluster of the `ceph` tests: the one that
// scripts/ceph-test-cluster.sh starts, found through its environment
// (CEPH_CONF and BRICKDISK_CEPH_POOL).
#pragma once

#include "rados/RadosFileSystem.h"

#include <string>

namespace testsupport {

// The test pool; fails the calling test (via an exception) when the
// environment names none.
std::string cephTestPool();
// Options for the test cluster's admin user, with `threadCount` workers.
zo::RadosOptions cephTestOptions(int threadCount = 4);
// "rados://POOL/<label>-<pid>-<n>": a folder no other test uses.
zo::CURI uniqueRadosFolder(const std::string& label);
// Removes every object under `folder` (a path of uniqueRadosFolder).
void removeRadosFolder(const zo::CURI& folder);

} // namespace testsupport
