// The file-system contract, checked against the S3 file system on the test
// service.
#include "S3TestService.h"
#include "support/FileSystemContract.h"

namespace {

struct S3Environment {
    static P<CS3FileSystem> make(int threadCount)
    {
        return P<CS3FileSystem>(new CS3FileSystem(testsupport::s3TestOptions(threadCount)));
    }
    CURI root() const { return folder; }
    S3Environment() { fs->createFolder(folder, folderMode); }
    ~S3Environment() { testsupport::removeS3Folder(folder); }

    CURI folder = testsupport::uniqueS3Folder("contract");
    P<CS3FileSystem> fs = make(4);
};

struct EnvironmentNames {
    template <class T>
    static std::string GetName(int)
    {
        return "S3";
    }
};

INSTANTIATE_TYPED_TEST_SUITE_P(Files, FileSystemContractTest, ::testing::Types<S3Environment>, EnvironmentNames);

} // namespace
