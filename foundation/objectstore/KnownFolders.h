// CKnownFolders: what a CObjectStoreFileSystem has learnt about folders, so
// that a store into a known folder asks the object store nothing but the
// write itself.
//
// It remembers three kinds of keys of a container:
//   - folders: found (marker or objects under them) or created here;
//   - folders made here: their marker was created here by an exclusive
//     write, so they were new, and every folder inside them is one this
//     process made (and remembered) as well;
//   - files: keys where this process found or stored a file, which is
//     therefore no folder.
// It is bounded: when it holds more than `capacity` keys it forgets all of
// them at once, so that a folder made here is never remembered without the
// folders made inside it. Every call may come from any thread.
#pragma once

#include "objectstore/ObjectStore.h"

#include <mutex>
#include <set>
#include <string>
#include <utility>

namespace zo {

class CKnownFolders {
public:
    explicit CKnownFolders(size_t capacity);

    // True when `name` is a remembered folder or the root of a container.
    bool isFolder(const ObjectName& name) const;
    // True when `name` is known to be no folder: a remembered file, or a
    // missing folder (isKnownMissingFolder).
    bool isKnownNonFolder(const ObjectName& name) const;
    // True when `name` has no folder marker and no object under it as far as
    // this process can tell: it lies in a folder made here, or in a missing
    // folder inside one, and is not one of the folders made there.
    bool isKnownMissingFolder(const ObjectName& name) const;

    // Remembers the folder `name`; `madeHere` when this process created its
    // marker with an exclusive write.
    void addFolder(const ObjectName& name, bool madeHere);
    // Remembers that `name` holds a file.
    void addFile(const ObjectName& name);
    // Forgets that the folder `name` was made here (it stays a known folder),
    // for a folder that may receive objects this process writes otherwise.
    void forgetMadeHere(const ObjectName& name);

private:
    using Key = std::pair<std::string, std::string>;

    bool isInFolderMadeHere(const ObjectName& name) const;
    void makeRoom();

    mutable std::mutex m_mutex;
    size_t m_capacity;
    std::set<Key> m_folders;
    std::set<Key> m_foldersMadeHere;
    std::set<Key> m_files;
};

} // namespace zo
