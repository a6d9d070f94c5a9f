// brickdisk cache info|flush|drop DIR: the local cache folder of a served
// disk (serve --cache-dir DIR) for its operator. info shows the disk it
// belongs to, what it holds and which changes the store lacks; flush uploads
// those changes to the disk's store (as the next server of the disk would
// before serving); drop deletes the folder, refusing while it holds changes
// unless they are given up. None of them runs while a server holds the
// folder.
#include "Commands.h"
#include "DiskAccess.h"
#include "JsonWriter.h"
#include "Units.h"
#include "UsageError.h"

#include "brick/cache/CacheFolder.h"
#include "brick/cache/CachedStore.h"
#include "zo/Error.h"
#include "zo/LocalFileSystem.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

namespace cli {

namespace {

constexpr int kCacheFileSystemThreads = 4;

struct CacheOptions {
    std::string folder;
    bool json = false;
    int uploadJobs = brick::CacheSettings().uploadJobs;
    bool discardDirty = false;
};

// The cache folder as serve names it to its server: absolute, normalised,
// with the links on the way to it resolved.
zo::CURI cacheFolderURI(const std::string& path)
{
    if (path.empty())
        throw UsageError("the cache folder path is empty");
    return zo::CLocalFileSystem::resolveUserPath(path);
}

// Who holds the cache folder now (the server that uses it); nullopt when
// nobody does. Takes a shared lock for a moment to find out.
std::optional<std::string> holderOf(zo::IFileSystem* cacheFs, const zo::CURI& folder)
{
    try {
        cacheFs->lockFolder(folder, false);
        return std::nullopt;
    } catch (const zo::CFileSystemError& e) {
        if (e.getProblem() != zo::CFileSystemError::Locked)
            throw;
        const std::string holder = e.getProps().lookup("holder").toUTF8();
        return holder.empty() ? std::string("another process") : holder;
    }
}

[[noreturn]] void throwInUse(const zo::CURI& folder, const std::string& holder, const std::string& message)
{
    throw zo::CError(zo::String(message), zo::String(), -1,
                     zo::CProps().add("cacheFolder", folder.toString()).add("holder", holder));
}

std::string describeChange(const brick::CacheFolderContents::DirtyFile& dirty)
{
    return dirty.deletion ? "deleted" : "changed, " + formatBytes(dirty.bytes);
}

zo::int64 dirtyBytes(const brick::CacheFolderContents& contents)
{
    zo::int64 bytes = 0;
    for (const brick::CacheFolderContents::DirtyFile& dirty : contents.dirty)
        bytes += dirty.bytes;
    return bytes;
}

std::string brickFileCount(size_t count)
{
    return formatCount(static_cast<zo::int64>(count), "brick file", "brick files");
}

void printInfoJson(const zo::CURI& folder, const brick::CacheFolderContents& contents,
                   const std::optional<std::string>& holder)
{
    CJsonWriter json(std::cout);
    json.beginObject();
    json.field("cacheFolder", folder.toLocalPath());
    json.field("disk", contents.disk.toUTF8());
    json.field("cachedFiles", contents.cachedFiles);
    json.field("cachedBytes", contents.cachedBytes);
    json.field("dirtyFiles", static_cast<zo::int64>(contents.dirty.size()));
    json.field("dirtyBytes", dirtyBytes(contents));
    json.key("dirty");
    json.beginArray();
    for (const brick::CacheFolderContents::DirtyFile& dirty : contents.dirty) {
        json.beginObject();
        json.field("file", dirty.file.toUTF8());
        json.field("change", dirty.deletion ? "delete" : "store");
        json.field("bytes", dirty.bytes);
        json.endObject();
    }
    json.endArray();
    json.field("inUse", holder.has_value());
    if (holder)
        json.field("holder", *holder);
    json.endObject();
}

int runInfo(const CacheOptions& options)
{
    const zo::CURI folder = cacheFolderURI(options.folder);
    const zo::P<zo::IFileSystem> cacheFs(new zo::CLocalFileSystem(1));
    const brick::CacheFolderContents contents = brick::readCacheFolder(cacheFs.get(), folder);
    const std::optional<std::string> holder = holderOf(cacheFs.get(), folder);
    if (options.json) {
        printInfoJson(folder, contents, holder);
        return 0;
    }
    std::printf("cache folder: %s\n", folder.toLocalPath().c_str());
    std::printf("disk: %s\n", contents.disk.toUTF8().c_str());
    std::printf("cached: %s, %s\n", formatCount(contents.cachedFiles, "file", "files").c_str(),
                formatBytes(contents.cachedBytes).c_str());
    std::printf("dirty: %s, %s%s\n", brickFileCount(contents.dirty.size()).c_str(),
                formatBytes(dirtyBytes(contents)).c_str(),
                contents.dirty.empty() ? " (the store holds every change)" : " (changes the store lacks)");
    for (const brick::CacheFolderContents::DirtyFile& dirty : contents.dirty)
        std::printf("   %s (%s)\n", dirty.file.toUTF8().c_str(), describeChange(dirty).c_str());
    std::printf("in use: %s\n", holder ? ("yes, by " + *holder).c_str() : "no");
    return 0;
}

int runFlush(const CacheOptions& options)
{
    const zo::CURI folder = cacheFolderURI(options.folder);
    const zo::P<zo::IFileSystem> cacheFs(new zo::CLocalFileSystem(kCacheFileSystemThreads));
    const brick::CacheFolderContents contents = brick::readCacheFolder(cacheFs.get(), folder);
    if (const std::optional<std::string> holder = holderOf(cacheFs.get(), folder))
        throwInUse(folder, *holder,
                   "The cache folder is in use by a server, which uploads its changes itself; flush it once that "
                   "server has stopped.");
    if (contents.dirty.empty()) {
        std::printf("nothing to upload: the store of %s holds every change of the cache folder %s\n",
                    contents.disk.toUTF8().c_str(), folder.toLocalPath().c_str());
        return 0;
    }
    const zo::CURI disk = diskFolderURI(contents.disk.toUTF8());
    // Durable stores: an upload counts once the store holds it.
    const zo::P<zo::IFileSystem> store = newFileSystem(disk, true, kCacheFileSystemThreads);
    loadDiskHeader(store.get(), disk);
    // The changes are the disk's newest bytes: nobody else may write it
    // meanwhile, as while a server uploads them.
    // Its lock writes the folder's ID as the disk's write mark, as a server
    // of the folder does.
    const zo::P<brick::CBrickDiskLock> lock =
        lockDiskForWriting(store.get(), disk, brick::readCacheFolderId(cacheFs.get(), folder));
    brick::CacheSettings settings;
    settings.folder = folder;
    settings.uploadJobs = options.uploadJobs;
    settings.diskMarkBefore = lock->getPreviousWriteMark();
    settings.diskMark = lock->getWriteMark();
    // Opening the cache uploads every change its journal records before it
    // returns, and throws the error of an upload that fails.
    const zo::P<brick::CCachedStore> cache(new brick::CCachedStore(store.get(), disk, cacheFs.get(), settings));
    for (const brick::CacheFolderContents::DirtyFile& dirty : contents.dirty)
        std::printf("   %s %s\n", dirty.deletion ? "deleted " : "uploaded", dirty.file.toUTF8().c_str());
    std::printf("uploaded %s (%s) from the cache folder %s to %s\n", brickFileCount(contents.dirty.size()).c_str(),
                formatBytes(dirtyBytes(contents)).c_str(), folder.toLocalPath().c_str(), disk.toLocalPath().c_str());
    return 0;
}

int runDrop(const CacheOptions& options)
{
    const zo::CURI folder = cacheFolderURI(options.folder);
    const zo::P<zo::IFileSystem> cacheFs(new zo::CLocalFileSystem(1));
    // Read first: a folder that is no cache gets no lock file, and is left as
    // it is.
    brick::readCacheFolder(cacheFs.get(), folder);
    zo::P<zo::IFileSystemLock> lock;
    try {
        lock = cacheFs->lockFolder(folder, true);
    } catch (const zo::CFileSystemError& e) {
        if (e.getProblem() != zo::CFileSystemError::Locked)
            throw;
        const std::string holder = e.getProps().lookup("holder").toUTF8();
        throwInUse(folder, holder.empty() ? "another process" : holder,
                   "The cache folder is in use by a server; stop the server before dropping its cache folder.");
    }
    // Under the lock, nobody changes the folder any more.
    const brick::CacheFolderContents contents = brick::readCacheFolder(cacheFs.get(), folder);
    const std::string path = folder.toLocalPath();
    if (!contents.dirty.empty() && !options.discardDirty)
        throw zo::CError(zo::String("The cache folder holds the acknowledged changes of " +
                                    brickFileCount(contents.dirty.size()) + " that the store of " +
                                    contents.disk.toUTF8() + " lacks. Upload them with 'brickdisk cache flush " + path +
                                    "' first, or give --discard-dirty to throw them away."),
                         zo::String(), -1,
                         zo::CProps()
                             .add("cacheFolder", path)
                             .add("diskFolder", contents.disk)
                             .add("dirtyFiles", static_cast<zo::int64>(contents.dirty.size())));
    std::error_code error;
    std::filesystem::remove_all(path, error);
    if (error)
        throw zo::makeErrnoError(error.value(), "remove the cache folder", zo::String(path));
    if (contents.dirty.empty())
        std::printf("dropped the cache folder %s of %s\n", path.c_str(), contents.disk.toUTF8().c_str());
    else
        std::printf("dropped the cache folder %s of %s, throwing away the acknowledged changes of %s that its "
                    "store lacked\n",
                    path.c_str(), contents.disk.toUTF8().c_str(), brickFileCount(contents.dirty.size()).c_str());
    return 0;
}

void addFolderOption(CLI::App& command, CacheOptions& options)
{
    command.add_option("DIR", options.folder, "The cache folder (serve --cache-dir DIR)")->required();
}

} // namespace

CommandAction addCacheCommand(CLI::App& program)
{
    auto options = std::make_shared<CacheOptions>();
    CLI::App* command =
        program.add_subcommand("cache", "Look at, upload or drop the local cache folder of a served disk");
    command->require_subcommand(1);
    CLI::App* info = command->add_subcommand(
        "info", "Show the disk a cache folder belongs to, what it holds, its changes the store lacks and its server");
    addFolderOption(*info, *options);
    info->add_flag("--json", options->json, "Print the same as one JSON object");
    CLI::App* flush =
        command->add_subcommand("flush", "Upload the changes a cache folder holds to the store of its disk");
    addFolderOption(*flush, *options);
    flush->add_option("--upload-jobs", options->uploadJobs, "Uploads to the store at once")
        ->capture_default_str()
        ->check(CLI::Range(1, 64));
    CLI::App* drop = command->add_subcommand(
        "drop", "Delete a cache folder; refused while it holds changes the store lacks, unless --discard-dirty");
    addFolderOption(*drop, *options);
    drop->add_flag("--discard-dirty", options->discardDirty,
                   "Delete it even though it holds acknowledged changes that the store lacks, which are lost");
    return [options, info, flush, drop] {
        if (info->parsed())
            return runInfo(*options);
        if (flush->parsed())
            return runFlush(*options);
        if (drop->parsed())
            return runDrop(*options);
        return 2;
    };
}

} // namespace cli
