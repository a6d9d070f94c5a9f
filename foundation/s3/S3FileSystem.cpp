#include "s3/S3FileSystem.h"

#include "s3/S3ObjectStore.h"

namespace zo {

CS3FileSystem::CS3FileSystem(const S3Options& options) : CS3FileSystem(new CS3ObjectStore(options), options)
{}

CS3FileSystem::CS3FileSystem(CS3ObjectStore* store, const S3Options& options)
    : CObjectStoreFileSystem(store, getScheme(), options.threadCount), m_s3(store)
{}

void CS3FileSystem::createBucket(const std::string& bucket)
{
    m_s3->createBucket(bucket);
}

const char* CS3FileSystem::getScheme()
{
    return "s3";
}

} // namespace zo
