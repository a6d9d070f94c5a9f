// The file-system contract, checked against the RADOS file system on the
// test cluster.
#include "RadosTestCluster.h"
#include "support/FileSystemContract.h"

namespace {

struct RadosEnvironment {
    static P<CRadosFileSystem> make(int threadCount)
    {
        return P<CRadosFileSystem>(new CRadosFileSystem(testsupport::cephTestOptions(threadCount)));
    }
    CURI root() const { return folder; }
    RadosEnvironment() { fs->createFolder(folder, folderMode); }
    ~RadosEnvironment() { testsupport::removeRadosFolder(folder); }

    CURI folder = testsupport::uniqueRadosFolder("contract");
    P<CRadosFileSystem> fs = make(4);
};

struct EnvironmentNames {
    template <class T>
    static std::string GetName(int)
    {
        return "Rados";
    }
};

INSTANTIATE_TYPED_TEST_SUITE_P(Files, FileSystemContractTest, ::testing::Types<RadosEnvironment>, EnvironmentNames);

} // namespace
