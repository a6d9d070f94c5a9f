// The file-system contract, checked against the local and the in-memory
// file system, and the file system over an object store (one in memory).
#include "support/FileSystemContract.h"
#include "objectstore/ObjectStoreFileSystem.h"
#include "support/MemoryObjectStore.h"
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
    static P<CMemoryFileSystem> make(int threadCount)
    {
        return P<CMemoryFileSystem>(new CMemoryFileSystem(threadCount));
    }
    CURI root() const { return CURI("/contract"); }
    MemoryEnvironment() { fs->createFolder(root(), folderMode); }

    P<CMemoryFileSystem> fs = make(2);
};

struct ObjectStoreEnvironment {
    static P<CObjectStoreFileSystem> make(int threadCount)
    {
        const P<testsupport::CMemoryObjectStore> store(new testsupport::CMemoryObjectStore());
        return P<CObjectStoreFileSystem>(new CObjectStoreFileSystem(store.get(), "memory", threadCount));
    }
    CURI root() const { return CURI("memory://bucket/contract"); }
    ObjectStoreEnvironment() { fs->createFolder(root(), folderMode); }

    P<CObjectStoreFileSystem> fs = make(2);
};

struct EnvironmentNames {
    template <class T>
    static std::string GetName(int)
    {
        if (std::is_same_v<T, LocalEnvironment>)
            return "Local";
        return std::is_same_v<T, MemoryEnvironment> ? "Memory" : "ObjectStore";
    }
};

using Environments = ::testing::Types<LocalEnvironment, MemoryEnvironment, ObjectStoreEnvironment>;
INSTANTIATE_TYPED_TEST_SUITE_P(Files, FileSystemContractTest, Environments, EnvironmentNames);

} // namespace
