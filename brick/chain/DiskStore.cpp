#include "brick/chain/DiskStore.h"

#include "zo/Error.h"
#include "zo/LocalFileSystem.h"

#include <algorithm>
#include <cctype>

namespace brick {

namespace {

const std::string kRadosPrefix = "rados://";
const std::string kS3Prefix = "s3://";

bool startsWith(const std::string& text, const std::string& prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

// The scheme a path starts with: a word (a letter, then letters, digits,
// "+", "-" or ".") followed by ":/", as "s3:" in "s3:/bucket" or "http:" in
// "http://host"; empty when the path starts otherwise.
std::string schemeOf(const std::string& path)
{
    if (path.empty() || !std::isalpha(static_cast<unsigned char>(path[0])))
        return std::string();
    size_t end = 1;
    while (end < path.size() &&
           (std::isalnum(static_cast<unsigned char>(path[end])) || path[end] == '+' || path[end] == '-' ||
            path[end] == '.'))
        ++end;
    if (path.compare(end, 2, ":/") != 0)
        return std::string();
    return path.substr(0, end + 1);
}

zo::P<zo::IFileSystem> newCephFileSystem([[maybe_unused]] const CephClusterSettings& settings,
                                         [[maybe_unused]] int threadCount)
{
#ifdef BRICKDISK_HAVE_RADOS
    return zo::P<zo::IFileSystem>(new zo::CRadosFileSystem(makeRadosOptions(settings, threadCount)));
#else
    throw zo::CError("This brickdisk was built without Ceph (librados): rados:// disks are not available.");
#endif
}

zo::P<zo::IFileSystem> newS3FileSystem([[maybe_unused]] const S3ServiceSettings& settings,
                                       [[maybe_unused]] int threadCount)
{
#ifdef BRICKDISK_HAVE_S3
    return zo::P<zo::IFileSystem>(new zo::CS3FileSystem(makeS3Options(settings, threadCount)));
#else
    throw zo::CError("This brickdisk was built without S3 (libcurl): s3:// disks are not available.");
#endif
}

} // namespace

StoreKind getStoreKind(const std::string& diskPath)
{
    if (startsWith(diskPath, kRadosPrefix))
        return StoreKind::Ceph;
    if (startsWith(diskPath, kS3Prefix))
        return StoreKind::S3;
    return StoreKind::LocalFolder;
}

bool isSameStore(const zo::CURI& first, const zo::CURI& second)
{
    return getStoreKind(first.toLocalPath()) == getStoreKind(second.toLocalPath());
}

void checkStoreScheme(const std::string& diskPath)
{
    if (getStoreKind(diskPath) != StoreKind::LocalFolder)
        return;
    const std::string scheme = schemeOf(diskPath);
    if (scheme.empty())
        return;
    throw zo::CError(zo::String("Unknown storage scheme \"" + scheme + "\" in " + diskPath + ": disks are named " +
                                kRadosPrefix + "POOL/path (Ceph), " + kS3Prefix +
                                "BUCKET/path (S3) or by a local folder; a local folder of that name is given as ./" +
                                diskPath + "."),
                     zo::String(), -1, zo::CProps().add("diskFolder", diskPath).add("scheme", scheme));
}

zo::P<zo::IFileSystem> openStore(const zo::CURI& diskFolder, const StoreSettings& settings, bool syncEnabled,
                                 int threadCount)
{
    const std::string path = diskFolder.toLocalPath();
    checkStoreScheme(path);
    switch (getStoreKind(path)) {
    case StoreKind::Ceph:
        return newCephFileSystem(settings.ceph, threadCount);
    case StoreKind::S3:
        return newS3FileSystem(settings.s3, threadCount);
    case StoreKind::LocalFolder:
        break;
    }
    const zo::P<zo::CLocalFileSystem> fs(new zo::CLocalFileSystem(threadCount));
    fs->setSyncEnabled(syncEnabled);
    return zo::P<zo::IFileSystem>(fs.get());
}

#ifdef BRICKDISK_HAVE_RADOS
zo::RadosOptions makeRadosOptions(const CephClusterSettings& settings, int threadCount)
{
    zo::RadosOptions options;
    options.configFile = zo::String::fromUTF8(settings.configFile);
    options.clientId = zo::String::fromUTF8(settings.clientId);
    options.lockLeaseSeconds = settings.lockLeaseSeconds;
    options.operationTimeoutSeconds = settings.operationTimeoutSeconds;
    options.threadCount = threadCount;
    return options;
}
#endif

#ifdef BRICKDISK_HAVE_S3
zo::S3Options makeS3Options(const S3ServiceSettings& settings, int threadCount)
{
    zo::S3Options options = zo::loadS3Options(settings.endpoint);
    options.virtualHostStyle = options.virtualHostStyle || settings.virtualHost;
    options.conditionalWrites = !settings.noConditionalPut;
    options.lockLeaseSeconds = settings.lockLeaseSeconds;
    options.maxAttempts = settings.attempts;
    // Requests run side by side on the transfer thread; the workers only
    // check paths, and a few more keep the requests coming.
    constexpr int kMinS3Threads = 8;
    options.threadCount = std::max(threadCount, kMinS3Threads);
    return options;
}
#endif

} // namespace brick
