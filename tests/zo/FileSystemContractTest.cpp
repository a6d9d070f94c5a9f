// The file-system contract, checked against the local and the in-memory
// file system.
#include "support/FileSystemContract.h"
#include "support/TempFolder.h"
#include "zo/LocalFileSystem.h"
#include "zo/MemoryFileSystem.h"

namespace {


struct LocalEnvironment {
    static P<CLocalFileSystem> make(int threadCount) { return P<CLocalFileSystem>(new CLocalFileSystem(threadCount)); }
    CURI root() const { return temp.uri(); }

    testsupport::TempFolder temp;
    P<CLocalFileSystem> fs = make(4);
};

struct MemoryEnvironment {
    static P<CMemoryFileSystem> make(int threadCount) { return P<CMemoryFileSystem>(new CMemoryFileSystem(threadCount)); }
    CURI root() const { return CURI("/contract"); }
    MemoryEnvironment() { fs->createFolder(root(), folderMode); }

    P<CMemoryFileSystem> fs = make(2);
};

struct EnvironmentNames {
    template <class T>
    static std::string GetName(int)
    {
        return std::is_same_v<T, LocalEnvironment> ? "Local" : "Memory";
    }
};

using Environments = ::testing::Types<LocalEnvironment, MemoryEnvironment>;
INSTANTIATE_TYPED_TEST_SUITE_P(Files, FileSystemContractTest, Environments, EnvironmentNames);

} // namespace
