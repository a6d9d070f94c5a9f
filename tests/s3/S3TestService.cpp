#include "S3TestService.h"

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <unistd.h>

namespace testsupport {

namespace {

const char* bucketName = "brickdisk-test";

} // namespace

zo::S3Options s3TestOptions(int threadCount)
{
    const char* endpoint = std::getenv("AWS_ENDPOINT_URL");
    if (!endpoint || !*endpoint || !std::getenv("AWS_ACCESS_KEY_ID"))
        throw std::runtime_error("No S3 test service: run eval \"$(scripts/ceph-test-cluster.sh start)\" first.");
    zo::S3Options options = zo::loadS3Options(endpoint);
    options.connectTimeoutSeconds = 5;
    options.requestTimeoutSeconds = 20;
    options.maxAttempts = 3;
    options.threadCount = threadCount;
    return options;
}

std::string s3TestBucket()
{
    static std::once_flag created;
    std::call_once(created, [] {
        const zo::P<zo::CS3FileSystem> fs(new zo::CS3FileSystem(s3TestOptions(1)));
        try {
            fs->createBucket(bucketName);
        } catch (const zo::CFileSystemError& e) {
            if (e.getProblem() != zo::CFileSystemError::AlreadyExists)
                throw;
        }
    });
    return bucketName;
}

zo::CURI uniqueS3Folder(const std::string& label)
{
    static std::atomic<int> counter{0};
    return zo::CURI(zo::String::fromUTF8("s3://" + s3TestBucket() + "/" + label + "-" + std::to_string(::getpid()) +
                                         "-" + std::to_string(++counter)));
}

void removeS3Folder(const zo::CURI& folder)
{
    try {
        const zo::P<zo::CS3FileSystem> fs(new zo::CS3FileSystem(s3TestOptions(4)));
        const auto removeBelow = [&](const auto& self, const zo::CURI& current) -> void {
            for (const zo::String& name : fs->listFolder(current)) {
                const zo::CURI path = current << name;
                if (fs->fileExists(path))
                    fs->deleteFile(path, true);
                else
                    self(self, path);
            }
        };
        removeBelow(removeBelow, folder);
    } catch (const std::exception&) {
        // Leftovers of a test do not fail it: the bucket is the tests' own.
    }
}

} // namespace testsupport
