#include "brick/cache/CacheFolder.h"

#include "brick/cache/detail/CacheLayout.h"

#include "zo/Error.h"

#include <algorithm>
#include <string>

namespace brick {

using zo::CError;
using zo::CProps;
using zo::CURI;
using zo::P;
using zo::String;

namespace {

void countFiles(zo::IFileSystem* fs, const CURI& folder, CacheFolderContents& contents)
{
    for (const String& name : fs->listFolder(folder)) {
        const CURI path = folder << name;
        const P<zo::IFileInfo> info = fs->getFileInfo(path, false);
        if (info->isFolder()) {
            countFiles(fs, path, contents);
            continue;
        }
        ++contents.cachedFiles;
        contents.cachedBytes += info->getSize();
    }
}

} // namespace

CacheFolderContents readCacheFolder(zo::IFileSystem* cacheFs, const CURI& folder)
{
    const CProps props = CProps().add("cacheFolder", folder.toString());
    if (!cacheFs->folderExists(folder))
        throw CError("The cache folder does not exist.", String(), -1, props);
    const CURI ownerFile = folder << detail::kCacheOwnerFile;
    detail::OwnerRecord owner;
    if (!cacheFs->fileExists(ownerFile) || !detail::parseOwnerRecord(detail::readCacheText(cacheFs, ownerFile), owner))
        throw CError("The folder is not a cache folder: it has no owner record of a cache.", String(), -1, props);
    CacheFolderContents contents;
    contents.disk = String(owner.disk);
    const CURI files = folder << detail::kCacheFilesFolder;
    if (cacheFs->folderExists(files))
        countFiles(cacheFs, files, contents);
    const CURI journal = folder << detail::kCacheJournalFolder;
    if (!cacheFs->folderExists(journal))
        return contents;
    for (const String& name : cacheFs->listFolder(journal)) {
        std::string key;
        CacheFolderContents::DirtyFile dirty;
        if (!detail::parseJournalRecord(detail::readCacheText(cacheFs, journal << name), key, dirty.deletion))
            continue;
        dirty.file = String(key);
        if (!dirty.deletion) {
            const P<zo::IFileInfo> info = cacheFs->getFileInfo(detail::cachedFileOf(folder, key), false);
            // The bytes never reached the folder: the change was never
            // acknowledged.
            if (!info->exists() || info->isFolder())
                continue;
            dirty.bytes = info->getSize();
        }
        contents.dirty.push_back(dirty);
    }
    std::sort(contents.dirty.begin(), contents.dirty.end(),
              [](const CacheFolderContents::DirtyFile& a, const CacheFolderContents::DirtyFile& b) {
                  return a.file < b.file;
              });
    return contents;
}

String readCacheFolderId(zo::IFileSystem* cacheFs, const CURI& folder)
{
    const CURI ownerFile = folder << detail::kCacheOwnerFile;
    if (!cacheFs->fileExists(ownerFile))
        return String();
    detail::OwnerRecord owner;
    if (!detail::parseOwnerRecord(detail::readCacheText(cacheFs, ownerFile), owner))
        return String();
    return String(owner.id);
}

} // namespace brick
