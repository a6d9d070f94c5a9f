// Folder locks on the Ceph test cluster.
#include "RadosTestCluster.h"
#include "objectstore/FolderLockContract.h"

namespace {

struct RadosStore {
    static zo::P<zo::IFileSystem> make(int leaseSeconds)
    {
        zo::RadosOptions options = testsupport::cephTestOptions(2);
        options.lockLeaseSeconds = leaseSeconds;
        return zo::P<zo::IFileSystem>(new zo::CRadosFileSystem(options));
    }
    static zo::CURI uniqueFolder(const std::string& label) { return testsupport::uniqueRadosFolder(label); }
    static void removeFolder(const zo::CURI& folder) { testsupport::removeRadosFolder(folder); }
};

INSTANTIATE_TYPED_TEST_SUITE_P(Rados, FolderLockContractTest, ::testing::Types<RadosStore>);

} // namespace
