// Helpers for the tests of bricks and brick storers: small disk headers and
// keys, brick contents, brick objects and store queues over a chain of
// folders, a listener that counts completions, a capture of the
// log, and a file system wrapper that lets a test step through a storer's
// operations one completion at a time.
#pragma once

#include "brick/chain/Brick.h"
#include "brick/chain/BrickStoreQueue.h"
#include "brick/format/BrickDiskHeader.h"
#include "zo/Buffer.h"
#include "zo/Error.h"
#include "zo/FileSystem.h"
#include "zo/ForwardingFileSystem.h"
#include "zo/Log.h"
#include "zo/MemoryFileSystem.h"
#include "zo/Signal.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace testsupport {

using Bytes = zo::TBuffer<zo::uint8>;
using Key = zo::TCryptBuffer<zo::uint8>;

// A header for small, fast test disks: bricks of `brickSize` bytes, a tree of
// `treeLevels` levels with `objectsPerTreeLevel` entries each, the cipher
// `cipherID` ("aes256cbc" or "null") and the "lz4" compressor.
brick::CBrickDiskHeader makeBrickHeader(int brickSize = 4096, int treeLevels = 3, int objectsPerTreeLevel = 256,
                                        const char* cipherID = "aes256cbc");
// A fixed 32-byte key for "aes256cbc", the empty key for "null".
Key makeBrickKey(const zo::String& cipherID);

// The file of brick `index` (below 256) of the disk in `folder`, in the
// tree of makeBrickHeader's defaults: 3 levels of 256 entries each.
std::string brickFile(const char* folder, zo::int64 index);

// `size` bytes of a pattern drawn from `seed` (never all zero for size > 0).
Bytes patternBytes(int size, unsigned seed);
Bytes zeroBytes(int size);
// The brick file bytes of `plain` under `header` and `key`.
Bytes prepareBrick(const brick::CBrickDiskHeader& header, const Key& key, const Bytes& plain);
// The plain bytes of the brick file `prepared`.
Bytes unprepareBrick(const brick::CBrickDiskHeader& header, const Key& key, const Bytes& prepared);

// A counted copy on the heap, as the storers and brick objects take prepared
// buffers (they hold references to them).
zo::P<Bytes> countedCopy(const Bytes& bytes);

// `paths` as folders, in order.
zo::TList<zo::CURI> foldersOf(const std::vector<const char*>& paths);
// A store queue over the disk in `disk`, with a reader of its own: the
// disk's ancestors are `parents` (nearest first), its child `child` (empty
// for none), at most `maxStores` stores run at once.
zo::P<brick::CBrickStoreQueue> makeQueueOver(zo::IFileSystem* fs, const brick::CBrickDiskHeader& header, const Key& key,
                                             int maxStores, const char* disk = "/disk", const char* child = "",
                                             const std::vector<const char*>& parents = {});
// A stand-alone brick object over the same chain, with a reader and a store
// queue of its own.
zo::P<brick::CBrick> makeBrickOver(zo::IFileSystem* fs, const brick::CBrickDiskHeader& header, const Key& key,
                                   int maxBackgroundOps, const char* disk = "/disk", const char* child = "",
                                   const std::vector<const char*>& parents = {});

bool sameBytes(const Bytes& a, const Bytes& b);
std::vector<std::string> toStrings(const zo::TList<zo::String>& list);

// Counts onDone calls and keeps a copy of the last error. Any thread may call
// onDone; the test thread reads.
class CountingListener : public zo::CBase, public zo::IDoneListener {
public:
    void onDone(const zo::CError* error) override;
    // True once onDone was called, waiting up to `timeoutMillis`.
    bool waitCalled(int timeoutMillis);
    int getCallCount() const { return m_calls.load(); }
    // The error of the last call, null after a success.
    zo::P<zo::CError> getLastError() const;

private:
    std::atomic<int> m_calls{0};
    mutable std::mutex m_mutex;
    zo::P<zo::CError> m_lastError;
    zo::CSignal m_called;
};

// Collects every logged line while it exists; restores the previous sink at
// its end.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> lines() const;
    // Lines that contain `text`.
    int countContaining(const std::string& text) const;

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
    zo::LogSink m_previous;
};

// An IFileSystem over another one that can hold back completions until the
// test delivers them (on the test's own thread), records the overwrite flag of
// every store and move, and can make a chosen asynchronous operation throw
// when it is started. Everything else is passed through.
class SteppedFileSystem : public zo::CForwardingFileSystem {
public:
    using Operation = zo::CMemoryFileSystem::Operation;

    struct FlaggedCall {
        std::string path;
        bool overwrite;
    };

    explicit SteppedFileSystem(zo::IFileSystem* inner, bool holdCompletions);

    // Waits up to `timeoutMillis` until a completion is held back.
    bool waitForHeld(int timeoutMillis);
    // Hands the oldest held completion to its listener on the calling thread;
    // false when none is held.
    bool deliverNext();
    int getHeldCount() const;

    // The `nth` (from 1) start of `kind` throws a CFileSystemError with
    // `problem` instead of starting. Only asynchronous kinds are counted.
    void throwOnStart(Operation kind, int nth, zo::CFileSystemError::Problem problem);

    std::vector<FlaggedCall> getStores() const;
    std::vector<FlaggedCall> getCopies() const;

    zo::P<zo::IFileSystemOp> beginStoreFile(const zo::CURI& file, int size, zo::IInStream* source, bool overwrite,
                                            zo::IDoneListener* listener) override;
    zo::P<zo::IFileSystemOp> beginCreateFolder(const zo::CURI& folder, int mode, zo::IDoneListener* listener) override;
    zo::P<zo::IFileSystemOp> beginMoveFile(const zo::CURI& from, const zo::CURI& to, bool overwrite,
                                           zo::IDoneListener* listener) override;
    zo::P<zo::IFileSystemOp> beginCopyFile(const zo::CURI& from, const zo::CURI& to, bool overwrite,
                                           zo::IDoneListener* listener) override;
    zo::P<zo::IFileSystemOp> beginDeleteFile(const zo::CURI& file, zo::IDoneListener* listener) override;

private:
    struct HeldCompletion {
        zo::P<zo::IDoneListener> listener;
        zo::P<zo::CError> error;
    };
    class Holder;

    // Throws when a throwOnStart rule picks this start.
    void checkStart(Operation kind, const zo::CURI& path);
    // The listener to pass on: a holder when completions are held back.
    zo::P<zo::IDoneListener> wrap(zo::IDoneListener* listener);
    void hold(const zo::P<zo::IDoneListener>& listener, const zo::CError* error);

    const bool m_holdCompletions;
    mutable std::mutex m_mutex;
    std::condition_variable m_heldChanged;
    std::deque<HeldCompletion> m_held;
    std::vector<FlaggedCall> m_stores;
    std::vector<FlaggedCall> m_copies;
    int m_startCounts[zo::CMemoryFileSystem::operationKindCount] = {};
    Operation m_throwKind = Operation::StoreFile;
    int m_throwNth = 0;
    zo::CFileSystemError::Problem m_throwProblem = zo::CFileSystemError::Unclassified;
};

} // namespace testsupport
