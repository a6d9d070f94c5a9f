#include "brick/cache/CacheFolder.h"

#include "seal/Digest.h"
#include "zo/Error.h"

#include <algorithm>
#include <sstream>
#include <string>

namespace brick {

using zo::CError;
using zo::CProps;
using zo::CURI;
using zo::P;
using zo::String;

namespace {

// The names and first lines that CCachedStore writes.
constexpr char kOwnerFile[] = "owner";
constexpr char kFilesFolder[] = "files";
constexpr char kJournalFolder[] = "journal";
constexpr char kOwnerMagic[] = "brickdisk cache 1";
constexpr char kRecordMagic[] = "brickdisk cache record 1";

std::string sha256Hex(const std::string& text)
{
    const P<seal::IDigestContext> context = seal::CDigestManager().getType("sha256")->createContext();
    context->update(text.data(), static_cast<int>(text.size()));
    context->finish();
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (int i = 0; i < context->getSize(); ++i) {
        hex += digits[context->getDigest()[i] >> 4];
        hex += digits[context->getDigest()[i] & 15];
    }
    return hex;
}

std::string readText(zo::IFileSystem* fs, const CURI& file)
{
    const P<zo::IIOStream> stream = fs->openStream(file, zo::IIOStream::AccessRead, 0);
    std::string text(static_cast<size_t>(stream->getLength()), '\0');
    if (!text.empty())
        stream->read(text.data(), static_cast<int>(text.size()));
    return text;
}

// The file in the cache folder that holds the bytes of the store's file
// `key`: "s3://b/d/x" is "files/s3/b/d/x", "/srv/d/x" is "files/local/srv/d/x".
CURI cachedFileOf(const CURI& folder, const std::string& key)
{
    std::string path = key;
    const size_t scheme = path.find("://");
    if (scheme != std::string::npos)
        path.replace(scheme, 3, "/");
    else if (!path.empty() && path[0] == '/')
        path.insert(0, "local");
    else
        path.insert(0, "relative/");
    return CURI(folder << kFilesFolder, String(path));
}

// The change a journal record names, when its check value matches: the
// records of acknowledged changes are replaced atomically, so one that does
// not match was never acknowledged.
bool parseRecord(const std::string& text, CacheFolderContents::DirtyFile& dirty)
{
    const size_t end = text.size() > 1 ? text.rfind('\n', text.size() - 2) : std::string::npos;
    if (end == std::string::npos || text.back() != '\n' ||
        text.substr(end + 1) != sha256Hex(text.substr(0, end + 1)) + "\n")
        return false;
    std::istringstream lines(text);
    std::string magic, change, key;
    std::getline(lines, magic);
    std::getline(lines, change);
    std::getline(lines, key);
    if (magic != kRecordMagic || (change != "store" && change != "delete"))
        return false;
    dirty.file = String(key);
    dirty.deletion = change == "delete";
    return true;
}

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
    const CURI ownerFile = folder << kOwnerFile;
    std::string magic, disk;
    if (cacheFs->fileExists(ownerFile)) {
        std::istringstream lines(readText(cacheFs, ownerFile));
        std::getline(lines, magic);
        std::getline(lines, disk);
    }
    if (magic != kOwnerMagic || disk.rfind("disk ", 0) != 0)
        throw CError("The folder is not a cache folder: it has no owner record of a cache.", String(), -1, props);
    CacheFolderContents contents;
    contents.disk = String(disk.substr(5));
    const CURI files = folder << kFilesFolder;
    if (cacheFs->folderExists(files))
        countFiles(cacheFs, files, contents);
    const CURI journal = folder << kJournalFolder;
    if (!cacheFs->folderExists(journal))
        return contents;
    for (const String& name : cacheFs->listFolder(journal)) {
        CacheFolderContents::DirtyFile dirty;
        if (!parseRecord(readText(cacheFs, journal << name), dirty))
            continue;
        if (!dirty.deletion) {
            const P<zo::IFileInfo> info = cacheFs->getFileInfo(cachedFileOf(folder, dirty.file.toUTF8()), false);
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

} // namespace brick
