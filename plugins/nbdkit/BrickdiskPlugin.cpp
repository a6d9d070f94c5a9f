// nbdkit-brickdisk-plugin: serves one brick disk over NBD.
//
//   nbdkit brickdisk disk=FOLDER|rados://POOL/path|s3://BUCKET/path
//                    [readonly=true] [cache=SIZE]
//                    [password-file=FILE | password-fd=N]
//                    [ceph-conf=FILE] [ceph-id=USER] [ceph-lock-lease=SECONDS]
//                    [ceph-timeout=SECONDS] [s3-endpoint=URL]
//                    [s3-virtual-host=true] [s3-no-conditional-put=true]
//                    [s3-lock-lease=SECONDS] [s3-attempts=N]
//                    [cache-dir=FOLDER] [cache-size=SIZE] [upload-jobs=N]
//                    [max-dirty=N] [flush-to-store=true] [stats=FILE]
//
// All connections share one block device, so a flush on any connection makes
// every write acknowledged before it durable (multi-conn consistent).
#define NBDKIT_API_VERSION 2
#include <nbdkit-plugin.h>

#include "ServedDisk.h"

#include "brick/Version.h"
#include "brick/chain/DiskStore.h"
#include "brick/format/BrickDiskError.h"
#include "brick/format/PasswordFile.h"
#include "brick/serving/ServeControl.h"
#include "zo/Error.h"
#include "zo/Log.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>

#include <unistd.h>

#define THREAD_MODEL NBDKIT_THREAD_MODEL_PARALLEL

namespace {

using brick::CBrickDiskBlockDevice;
using nbdplugin::CServedDisk;

nbdplugin::ServeOptions options;
bool diskGiven = false;
std::unique_ptr<CServedDisk> served;
std::unique_ptr<brick::CSnapshotControl> snapshotControl;

int errnoFor(const zo::CError& error)
{
    if (const auto* io = dynamic_cast<const zo::CIOError*>(&error)) {
        switch (io->getIOCode()) {
        case zo::CIOError::ReadOnly:
            return EROFS;
        case zo::CIOError::EndOfData:
        case zo::CIOError::WriteBeyondSize:
            return EINVAL;
        default:
            break;
        }
    }
    switch (zo::CFileSystemError::getProblem(error.getProps())) {
    case zo::CFileSystemError::NoSpace:
        return ENOSPC;
    case zo::CFileSystemError::AccessDenied:
        return EACCES;
    default:
        break;
    }
    if (error.getCause())
        return errnoFor(*error.getCause());
    return EIO;
}

// Runs a request; a failure reaches the client as an errno and nbdkit's log
// as the error's message.
template <class F>
int request(const char* what, F&& action)
{
    try {
        action();
        return 0;
    } catch (const zo::CError& e) {
        nbdkit_error("%s: %s", what, e.what());
        nbdkit_set_error(errnoFor(e));
    } catch (const std::exception& e) {
        nbdkit_error("%s: %s", what, e.what());
        nbdkit_set_error(EIO);
    }
    return -1;
}

// The password as the brickdisk program reads it (brick/format/PasswordFile.h): a
// file without one trailing newline (password-file=), or all that an
// inherited descriptor holds (password-fd=, which brickdisk serve uses, so
// the password never lies in a file). The descriptor is closed once read.
bool readPassword(const std::string& key, const char* value)
{
    try {
        if (key == "password-file") {
            options.password = brick::readPasswordFile(value);
            return true;
        }
        int fd = -1;
        if (nbdkit_parse_int("password-fd", value, &fd) == -1)
            return false;
        if (fd < 0) {
            nbdkit_error("password-fd must be a file descriptor, not %d", fd);
            return false;
        }
        options.password = brick::readPasswordFrom(fd, "the descriptor password-fd=" + std::to_string(fd));
        ::close(fd);
        return true;
    } catch (const zo::CError& e) {
        nbdkit_error("%s", e.getMessage().toUTF8().c_str());
        return false;
    }
}

// The disk as the brickdisk program names it: a disk in a store by its
// normalised address, a local folder by its real path (the disk is reached
// without following links inside it, so the user's own links on the way to
// it are resolved here, once).
bool setDisk(const char* value)
{
    try {
        brick::checkStoreScheme(value);
    } catch (const zo::CError& e) {
        nbdkit_error("%s", e.getMessage().toUTF8().c_str());
        return false;
    }
    if (brick::getStoreKind(value) != brick::StoreKind::LocalFolder) {
        options.diskFolder = zo::CURI(zo::String::fromUTF8(value)).toNormalized().toLocalPath();
        return true;
    }
    std::unique_ptr<char, decltype(&free)> real(nbdkit_realpath(value), &free);
    if (!real)
        return false;
    options.diskFolder = real.get();
    return true;
}

// A whole number of seconds or tries, from 1 to `most`.
bool parseCount(const char* key, const char* value, int most, int& count)
{
    int parsed = 0;
    if (nbdkit_parse_int(key, value, &parsed) == -1)
        return false;
    if (parsed < 1 || parsed > most) {
        nbdkit_error("%s must be between 1 and %d, not %d", key, most, parsed);
        return false;
    }
    count = parsed;
    return true;
}

bool parseFlag(const char* value, bool& flag)
{
    const int parsed = nbdkit_parse_bool(value);
    if (parsed == -1)
        return false;
    flag = parsed != 0;
    return true;
}

// The settings of the Ceph cluster and the S3 service, as brickdisk serve
// passes on its --ceph-... and --s3-... options. False for another key.
bool setStoreSetting(const std::string& name, const char* value, int& result)
{
    brick::CephClusterSettings& ceph = options.stores.ceph;
    brick::S3ServiceSettings& s3 = options.stores.s3;
    bool set = true;
    if (name == "ceph-conf")
        ceph.configFile = value;
    else if (name == "ceph-id")
        ceph.clientId = value;
    else if (name == "ceph-lock-lease")
        set = parseCount(name.c_str(), value, 3600, ceph.lockLeaseSeconds);
    else if (name == "ceph-timeout")
        set = parseCount(name.c_str(), value, 3600, ceph.operationTimeoutSeconds);
    else if (name == "s3-endpoint")
        s3.endpoint = value;
    else if (name == "s3-virtual-host")
        set = parseFlag(value, s3.virtualHost);
    else if (name == "s3-no-conditional-put")
        set = parseFlag(value, s3.noConditionalPut);
    else if (name == "s3-lock-lease")
        set = parseCount(name.c_str(), value, 3600, s3.lockLeaseSeconds);
    else if (name == "s3-attempts")
        set = parseCount(name.c_str(), value, 100, s3.attempts);
    else
        return false;
    result = set ? 0 : -1;
    return true;
}

int brickdiskConfig(const char* key, const char* value)
{
    const std::string name(key);
    if (name == "disk") {
        if (!setDisk(value))
            return -1;
        diskGiven = true;
        return 0;
    }
    if (name == "readonly") {
        const int flag = nbdkit_parse_bool(value);
        if (flag == -1)
            return -1;
        options.readOnly = flag != 0;
        return 0;
    }
    if (name == "cache") {
        const int64_t size = nbdkit_parse_size(value);
        if (size == -1)
            return -1;
        options.cacheBytes = size;
        return 0;
    }
    if (name == "cache-dir") {
        options.cacheDir = value;
        return 0;
    }
    if (name == "cache-size") {
        const int64_t size = nbdkit_parse_size(value);
        if (size == -1)
            return -1;
        options.cacheDirBytes = size;
        return 0;
    }
    if (name == "upload-jobs") {
        int jobs = 0;
        if (nbdkit_parse_int("upload-jobs", value, &jobs) == -1)
            return -1;
        if (jobs < 1 || jobs > 64) {
            nbdkit_error("upload-jobs must be from 1 to 64");
            return -1;
        }
        options.uploadJobs = jobs;
        return 0;
    }
    if (name == "max-dirty") {
        int files = 0;
        if (nbdkit_parse_int("max-dirty", value, &files) == -1)
            return -1;
        if (files < 1) {
            nbdkit_error("max-dirty must be at least 1");
            return -1;
        }
        options.maxDirtyFiles = files;
        return 0;
    }
    if (name == "stats") {
        std::unique_ptr<char, decltype(&free)> path(nbdkit_absolute_path(value), &free);
        if (!path)
            return -1;
        options.statsFile = path.get();
        return 0;
    }
    if (name == "flush-to-store") {
        const int flag = nbdkit_parse_bool(value);
        if (flag == -1)
            return -1;
        options.flushToStore = flag != 0;
        return 0;
    }
    if (name == "password-file" || name == "password-fd")
        return readPassword(name, value) ? 0 : -1;
    int result = 0;
    if (setStoreSetting(name, value, result))
        return result;
    nbdkit_error("unknown parameter '%s'", key);
    return -1;
}

int brickdiskConfigComplete()
{
    if (!diskGiven) {
        nbdkit_error("the parameter disk=FOLDER (or rados://POOL/path, s3://BUCKET/path) is required");
        return -1;
    }
    try {
        nbdplugin::checkServeOptions(options);
    } catch (const std::exception& e) {
        nbdkit_error("%s", e.what());
        return -1;
    }
    return 0;
}

// The library's own log (failed background stores and loads) goes to
// nbdkit's log.
void routeLibraryLog()
{
    zo::setLogSink([](zo::LogLevel level, const zo::String& line) {
        if (level == zo::LogLevel::Error)
            nbdkit_error("%s", line.toUTF8().c_str());
        else
            nbdkit_debug("%s", line.toUTF8().c_str());
    });
}

// The disk is opened after nbdkit has forked into the background: the file
// system's threads would not survive the fork.
int brickdiskAfterFork()
{
    routeLibraryLog();
    try {
        served = std::make_unique<CServedDisk>(options);
    } catch (const zo::CError& e) {
        // With its context: which disk, which parent, what differs.
        nbdkit_error("%s", e.toString().toUTF8().c_str());
        return -1;
    } catch (const std::exception& e) {
        nbdkit_error("%s", e.what());
        return -1;
    }
    if (options.readOnly)
        return 0;
    // Without its control socket the disk is served all the same; only
    // snapshots while it is served are not possible.
    try {
        snapshotControl = std::make_unique<brick::CSnapshotControl>(
            zo::CURI(zo::String::fromUTF8(options.diskFolder)),
            [](const zo::CURI& snapshotFolder) { served->takeSnapshot(snapshotFolder); });
    } catch (const std::exception& e) {
        nbdkit_error("%s Snapshots of the served disk cannot be taken while it is served.", e.what());
    }
    return 0;
}

// A served disk never drops an acknowledged write by itself: bricks that
// still cannot be stored when the server stops are named, and the server
// exits with a failure instead of ending as if all were well.
void brickdiskCleanup()
{
    snapshotControl.reset();
    if (!served)
        return;
    try {
        served->device().flush();
    } catch (const std::exception& e) {
        nbdkit_error("%s", nbdplugin::describeUnstoredBricks(served->device(), e).c_str());
        served.reset();
        std::_Exit(EXIT_FAILURE);
    }
    served.reset();
}

void* brickdiskOpen(int)
{
    return served.get();
}

int64_t brickdiskGetSize(void*)
{
    return served->device().getSize();
}

int brickdiskCanWrite(void*)
{
    return served->device().isWritable() ? 1 : 0;
}

int brickdiskOne(void*)
{
    return 1;
}

int brickdiskCanFua(void*)
{
    return NBDKIT_FUA_NATIVE;
}

int brickdiskBlockSize(void*, uint32_t* minimum, uint32_t* preferred, uint32_t* maximum)
{
    *minimum = 1;
    *preferred = static_cast<uint32_t>(served->device().getBrickSize());
    *maximum = 0xffffffff;
    return 0;
}

void flushIfAsked(uint32_t flags)
{
    if (flags & NBDKIT_FLAG_FUA)
        served->flush();
}

int brickdiskPread(void*, void* buffer, uint32_t count, uint64_t offset, uint32_t)
{
    return request("read", [&] { served->device().read(buffer, static_cast<int64_t>(offset), count); });
}

int brickdiskPwrite(void*, const void* buffer, uint32_t count, uint64_t offset, uint32_t flags)
{
    return request("write", [&] {
        served->device().write(buffer, static_cast<int64_t>(offset), count);
        flushIfAsked(flags);
    });
}

int brickdiskFlush(void*, uint32_t)
{
    return request("flush", [] { served->flush(); });
}

// Trimmed ranges read as zeros afterwards, like zeroed ones: whole bricks
// then store nothing.
int zeroRange(const char* what, uint32_t count, uint64_t offset, uint32_t flags)
{
    return request(what, [&] {
        served->device().zero(static_cast<int64_t>(offset), count);
        flushIfAsked(flags);
    });
}

int brickdiskTrim(void*, uint32_t count, uint64_t offset, uint32_t flags)
{
    return zeroRange("trim", count, offset, flags);
}

int brickdiskZero(void*, uint32_t count, uint64_t offset, uint32_t flags)
{
    if (flags & NBDKIT_FLAG_FAST_ZERO) {
        nbdkit_set_error(ENOTSUP);
        return -1;
    }
    return zeroRange("zero", count, offset, flags);
}

int brickdiskExtents(void*, uint32_t count, uint64_t offset, uint32_t, struct nbdkit_extents* extents)
{
    return request("extents", [&] {
        for (const CBrickDiskBlockDevice::Extent& extent :
             served->device().mapExtents(static_cast<int64_t>(offset), count)) {
            uint32_t type = 0;
            if (extent.kind == CBrickDiskBlockDevice::ExtentKind::Hole)
                type = NBDKIT_EXTENT_HOLE | NBDKIT_EXTENT_ZERO;
            else if (extent.kind == CBrickDiskBlockDevice::ExtentKind::Zero)
                type = NBDKIT_EXTENT_ZERO;
            if (nbdkit_add_extent(extents, static_cast<uint64_t>(extent.offset), static_cast<uint64_t>(extent.length),
                                  type) == -1)
                throw zo::CError("Adding an extent failed.");
        }
    });
}

struct nbdkit_plugin makePlugin()
{
    struct nbdkit_plugin plugin {};
    plugin.name = "brickdisk";
    plugin.longname = "brickdisk: a virtual disk stored as compressed, encrypted brick files";
    plugin.version = brick::kVersion;
    plugin.description = "Serves one brick disk: a local folder, or a folder in a Ceph pool or an S3 bucket.";
    plugin.config = brickdiskConfig;
    plugin.config_complete = brickdiskConfigComplete;
    plugin.config_help = "disk=FOLDER          (required) The brick disk to serve: a local folder,\n"
                         "                     rados://POOL/path (Ceph) or s3://BUCKET/path (S3).\n"
                         "readonly=true        Serve it read-only.\n"
                         "cache=SIZE           Memory for decoded bricks (default 256M).\n"
                         "password-file=FILE   The password of an encrypted disk (the file without\n"
                         "                     one trailing newline, as brickdisk reads it).\n"
                         "password-fd=N        The password: all that the inherited descriptor N holds.\n"
                         "ceph-conf=FILE       Ceph configuration file (default: CEPH_CONF, then Ceph's own).\n"
                         "ceph-id=USER         Ceph user without \"client.\" (default admin).\n"
                         "ceph-lock-lease=S    Seconds the lock of a killed server keeps others out (30).\n"
                         "ceph-timeout=S       Seconds after which a Ceph operation gives up (60).\n"
                         "s3-endpoint=URL      S3 service (default: AWS_ENDPOINT_URL_S3, AWS_ENDPOINT_URL,\n"
                         "                     the profile's endpoint_url, else AWS).\n"
                         "s3-virtual-host=true The bucket in the host name instead of the path.\n"
                         "s3-no-conditional-put=true  For services that ignore If-None-Match.\n"
                         "s3-lock-lease=S      Seconds the lock of a killed server keeps others out (30).\n"
                         "s3-attempts=N        Tries of each S3 request (8).\n"
                         "cache-dir=FOLDER     Local cache of the brick files of a disk in a store.\n"
                         "cache-size=SIZE      Size the cache folder is kept within (default 1G).\n"
                         "upload-jobs=N        Uploaders from the cache to the store (default 4).\n"
                         "max-dirty=N          Changed bricks in the cache not yet uploaded, at most\n"
                         "                     (default 1024); a further write waits for an upload.\n"
                         "flush-to-store=true  A flush waits until the store holds the writes.\n"
                         "stats=FILE           Write the server's counters (Prometheus text format)\n"
                         "                     into FILE every 5 s and at the end.";
    plugin.magic_config_key = "disk";
    plugin.after_fork = brickdiskAfterFork;
    plugin.cleanup = brickdiskCleanup;
    plugin.open = brickdiskOpen;
    plugin.get_size = brickdiskGetSize;
    plugin.can_write = brickdiskCanWrite;
    plugin.can_flush = brickdiskOne;
    plugin.can_trim = brickdiskOne;
    plugin.can_zero = brickdiskOne;
    plugin.can_fua = brickdiskCanFua;
    plugin.can_multi_conn = brickdiskOne;
    plugin.can_extents = brickdiskOne;
    plugin.block_size = brickdiskBlockSize;
    plugin.pread = brickdiskPread;
    plugin.pwrite = brickdiskPwrite;
    plugin.flush = brickdiskFlush;
    plugin.trim = brickdiskTrim;
    plugin.zero = brickdiskZero;
    plugin.extents = brickdiskExtents;
    return plugin;
}

struct nbdkit_plugin plugin = makePlugin();

} // namespace

NBDKIT_REGISTER_PLUGIN(plugin)
