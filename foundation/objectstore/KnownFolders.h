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
//     therefore no folder;
//   - listed folders: folders whose files and folders it has seen whole, in
//     a listing or because it made them, and whose changes by this process
//     since it has followed. A name there that is neither a known file nor a
//     known folder was missing at the listing: the first look for a file
//     needs no request. Another program may have stored the file since, so
//     a caller that must be sure asks the store.
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
    // True when `name` is known to be no folder: a remembered file, a name
    // in a listed folder that is not one of its folders, or a missing folder
    // (isKnownMissingFolder).
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
    // Forgets that `name` holds a file: it was deleted or moved away.
    void forgetFile(const ObjectName& name);
    // Remembers the whole content of the folder `folder` as a listing showed
    // it: the names of the files and folders in it. A folder with neither
    // nor a marker (`exists` false) does not exist; it is listed all the same,
    // as empty, but not remembered as a folder.
    void addListing(const ObjectName& folder, const std::set<std::string>& files, const std::set<std::string>& folders,
                    bool exists);
    // True when the folder `folder` was listed or made here (and not
    // forgotten since).
    bool isListed(const ObjectName& folder) const;
    // True when the folder of `name` is listed and neither its listing nor
    // this process's writes since put a file or folder at `name`.
    bool isListedAsMissing(const ObjectName& name) const;
    // Forgets the listing of the folder of `name`, after a write there whose
    // outcome is not known.
    void forgetListingOf(const ObjectName& name);
    // Forgets that the folder `name` was made here (it stays a known folder)
    // and its listing, for a folder that may receive objects this process
    // writes otherwise.
    void forgetMadeHere(const ObjectName& name);

private:
    using Key = std::pair<std::string, std::string>;

    bool isInFolderMadeHere(const ObjectName& name) const;
    void makeRoom();
    void forgetEverything();

    mutable std::mutex m_mutex;
    size_t m_capacity;
    std::set<Key> m_folders;
    std::set<Key> m_foldersMadeHere;
    std::set<Key> m_files;
    std::set<Key> m_listedFolders;
};

} // namespace zo
