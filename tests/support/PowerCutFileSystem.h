// A file system that loses, at a power cut, what was never synced. The
// changes whose folder entries IFileSystem lets wait for syncBatch (the
// stores of beginStoreFileBatched, the folders of beginCreateFolder and the
// deletions of beginDeleteFile) are recorded with what they replaced; a
// syncBatch makes those that reported success before it durable, and
// cutPower undoes the others, or only the folders among them, newest first,
// on the file system below: a file system may write unsynced entries out on
// its own, in any order, so any of them may be lost. A lost folder loses
// every file below it, however durable each file was. Every
// other operation passes to the file system below and counts as durable when
// it ends, as IFileSystem promises.
//
// Over a CrashingFileSystem's stop, cutPower leaves what a machine that lost
// its power at that moment would find.
#pragma once

#include "zo/Buffer.h"
#include "zo/FileSystem.h"
#include "zo/ForwardingFileSystem.h"

#include <memory>
#include <mutex>
#include <vector>

namespace testsupport {

class PowerCutFileSystem : public zo::CForwardingFileSystem {
public:
    explicit PowerCutFileSystem(zo::IFileSystem* inner);

    // What a power cut loses of the changes no sync made durable.
    enum class Loss {
        Everything, // every such change
        NewFolders, // only the new folders (and so every file below them)
    };
    // Undoes the recorded changes that succeeded, that no syncBatch made
    // durable and that `loss` takes, newest first. Call it once no operation
    // runs; throws what the file system below throws.
    void cutPower(Loss loss);
    // Changes that a power cut now would undo.
    int getUnsyncedChangeCount() const;

    zo::P<zo::IFileSystemOp> beginStoreFileBatched(const zo::CURI& file, int size, zo::IInStream* source,
                                                   bool overwrite, zo::IDoneListener* listener) override;
    void syncBatch() override;
    zo::P<zo::IFileSystemOp> beginCreateFolder(const zo::CURI& folder, int mode, zo::IDoneListener* listener) override;
    zo::P<zo::IFileSystemOp> beginDeleteFile(const zo::CURI& file, zo::IDoneListener* listener) override;

    // One change that waits for a sync.
    struct Change {
        enum Kind { Store, Delete, CreateFolder };
        Kind kind;
        zo::CURI path;
        // The file before the change (Store, Delete).
        bool existed = false;
        zo::TBuffer<zo::uint8> before;
        // Set when the operation reported its end, and whether it succeeded
        // (a failed change is never undone).
        bool ended = false;
        bool succeeded = false;
    };

private:
    // Records a change of `path`, with the file it replaces, before it starts.
    std::shared_ptr<Change> record(Change::Kind kind, const zo::CURI& path);
    // A listener that marks `change` as succeeded before passing the end on.
    zo::P<zo::IDoneListener> marking(const std::shared_ptr<Change>& change, zo::IDoneListener* listener);
    void undo(const Change& change);

    mutable std::mutex m_mutex;
    // The changes no sync has made durable yet, oldest first (under m_mutex).
    std::vector<std::shared_ptr<Change>> m_unsynced;
};

} // namespace testsupport
