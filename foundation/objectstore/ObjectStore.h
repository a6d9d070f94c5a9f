// IObjectStore: the few calls an object store (a RADOS cluster, an S3
// service) offers to CObjectStoreFileSystem. An object is named by a
// container (a pool, a bucket) and a key; stores know nothing of folders.
//
// Errors are CFileSystemError: NotFound for a missing object or container,
// AlreadyExists for an exclusive write or copy onto an existing object,
// Locked for a lock held by someone else; each carries the container, the
// key and the store's own error text. Every call may come from any thread.
#pragma once

#include "zo/Containers.h"
#include "zo/Error.h"
#include "zo/Export.h"
#include "zo/FileSystem.h"

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>

namespace zo {

struct ObjectName {
    std::string container;
    std::string key;
};

class BRICKDISK_EXPORT IObjectStore : public virtual IBase {
public:
    // Receives the outcome of an asynchronous call: null on success. It runs
    // once, on a thread of the store's, and must neither block nor call the
    // store synchronously.
    using Done = std::function<void(const CError* error)>;

    // Writes the whole object at once, atomically; with `exclusive` an
    // existing object fails with AlreadyExists and is left alone.
    virtual void beginPut(const ObjectName& name, std::string bytes, bool exclusive, Done done) = 0;
    // Copies `from` into `to` inside the store, atomically; `exclusive` as
    // for beginPut. A missing source fails with NotFound.
    virtual void beginCopy(const ObjectName& from, const ObjectName& to, bool exclusive, Done done) = 0;
    // Removes an object; a missing one fails with NotFound.
    virtual void beginRemove(const ObjectName& name, Done done) = 0;

    // The size of an object, nothing when it is missing.
    virtual std::optional<int64> stat(const ObjectName& name) = 0;
    // The whole object (NotFound when missing).
    virtual std::string read(const ObjectName& name) = 0;
    // At most `size` (above 0) bytes of the object from `offset` on, fewer
    // at its end and none from there on (NotFound when missing); only those
    // bytes are fetched.
    virtual std::string readRange(const ObjectName& name, int64 offset, int size) = 0;
    // Writes `size` bytes at `offset`, creating the object when missing.
    virtual void write(const ObjectName& name, int64 offset, const void* bytes, int size) = 0;
    // Cuts or extends (with zeros) an existing object to `length`.
    virtual void truncate(const ObjectName& name, int64 length) = 0;
    // The keys of the container that start with `prefix`, in no order; with
    // `limit` above 0 at most that many.
    virtual TList<std::string> list(const std::string& container, const std::string& prefix, int limit) = 0;
    // The names one level below `prefix` (empty or ending in "/"): an
    // object's key without the prefix, or the next folder name of a deeper
    // key, each once, in no order; the marker `prefix` itself is left out.
    // This one filters list(); a store that can list one level asks for it.
    virtual TList<std::string> listChildren(const std::string& container, const std::string& prefix);
    // One level below `prefix` (empty or ending in "/") as one request can
    // tell it: the names of the objects there and of the folders (deeper
    // keys) there, without the prefix; the marker `prefix` itself is left
    // out, but `hasMarker` tells whether it exists.
    struct Level {
        std::set<std::string> files;
        std::set<std::string> folders;
        bool hasMarker = false;
    };
    // Nothing when the store cannot list one level in a single request, or
    // the level does not fit in one; this default gives nothing.
    virtual std::optional<Level> listLevelInOneRequest(const std::string& container, const std::string& prefix);
    // One level below `prefix` (empty or ending in "/") with the sizes of
    // its objects, over as many requests as its length needs: each object's
    // name without the prefix and its size, and the names of the folders
    // there (deeper keys); the marker `prefix` itself is left out, but
    // `hasMarker` tells whether it exists. Where the listing tells a tag of
    // an object's bytes (S3's ETag), `tags` holds it by the object's name.
    struct SizedLevel {
        std::map<std::string, int64> files;
        std::map<std::string, std::string> tags;
        std::set<std::string> folders;
        bool hasMarker = false;
    };
    // Nothing when the store's listing does not tell the sizes of objects;
    // this default gives nothing.
    virtual std::optional<SizedLevel> listLevelWithSizes(const std::string& container, const std::string& prefix);
    // Takes a lock named after the object `name` without waiting (Locked,
    // with the property "holder" where known, on a conflict). The lock lasts
    // until the returned object goes, or, when the holder dies, until its
    // lease runs out.
    virtual P<IFileSystemLock> lock(const ObjectName& name, bool exclusive) = 0;
};

// Runs one asynchronous call of a store, `call` starting it with the Done it
// is given, waits for its outcome and throws its error. Not for the store's
// own threads.
void runSync(const std::function<void(IObjectStore::Done)>& call);

} // namespace zo
