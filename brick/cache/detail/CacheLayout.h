// The layout of a cache folder of CCachedStore, shared by the cache and by
// readCacheFolder: the names in it, its owner record and its journal records.
#pragma once

#include "zo/FileSystem.h"
#include "zo/URI.h"

#include <string>

namespace brick::detail {

constexpr char kCacheOwnerFile[] = "owner";
constexpr char kCacheFilesFolder[] = "files";
constexpr char kCacheJournalFolder[] = "journal";
constexpr char kCacheRecordSuffix[] = ".rec";
// There while a cache uses the folder, gone after a clean close.
constexpr char kCacheInUseFile[] = "in-use";

// The SHA-256 of `text` in lower-case hexadecimal.
std::string sha256Hex(const std::string& text);

// The whole of a small file as text. Throws the file system's errors.
std::string readCacheText(zo::IFileSystem* fs, const zo::CURI& file);

// The file in the cache folder `folder` that holds the bytes of the store's
// file `key`: "s3://b/d/x" is "files/s3/b/d/x", "/srv/d/x" is
// "files/local/srv/d/x", a relative "d/x" is "files/relative/d/x".
zo::CURI cachedFileOf(const zo::CURI& folder, const std::string& key);

// The owner record: the disk's name, the SHA-256 of its header, the cache
// folder's own ID (random, made with the folder) and the write mark the cache
// expects the disk to hold (CBrickDiskLock's "write.brickmark"; empty for a
// disk that holds none). Records written before the ID existed hold only the
// disk and the header.
struct OwnerRecord {
    std::string disk;
    std::string headerDigest;
    // Empty in a record written before the ID existed.
    std::string id;
    std::string expectedMark;
};
std::string formatOwnerRecord(const OwnerRecord& owner);
// The owner record in `text`; false for text that is no owner record.
bool parseOwnerRecord(const std::string& text, OwnerRecord& owner);
// A new random ID of a cache folder: 32 lower-case hexadecimal digits.
std::string newCacheFolderId();

// A journal record: a change of the store's file `key` (a store, or a
// deletion) with a check value over the lines before it.
std::string formatJournalRecord(const std::string& key, bool deletion);
// The change a journal record names; false when it is cut short, damaged or
// no journal record (its check value does not match).
bool parseJournalRecord(const std::string& text, std::string& key, bool& deletion);

} // namespace brick::detail
