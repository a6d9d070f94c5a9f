// What a second copy of a chain asks of the destination's store: after one
// more import into the source it stores exactly the brick files that changed,
// deletes those the source no longer holds and writes no other brick object,
// counted by a wrapper around a file system over an object store in memory;
// it reads only the digests at the end of the destination's brick files, with
// one request to the store per unchanged brick object.
#include "brick/backup/ChainCopier.h"
#include "brick/chain/BrickDisk.h"
#include "objectstore/ObjectStoreFileSystem.h"
#include "support/BackupTestChain.h"
#include "support/CountingObjectStore.h"
#include "support/DiskTestHelpers.h"
#include "support/MemoryObjectStore.h"
#include "zo/ForwardingFileSystem.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

using brick::CChainCopier;
using testsupport::Bytes;
using testsupport::CCountingObjectStore;
using testsupport::backuptest::kBrickSize;
using testsupport::backuptest::kPassword;
using testsupport::backuptest::kSourceTop;
using testsupport::backuptest::writeBricks;
using zo::CURI;
using zo::P;

namespace {

constexpr zo::int64 kDiskSize = 16 * kBrickSize;
const char* const kDestination = "memory://bucket/dst/disk";

// Counts the calls that change files, by the path they name.
class CCountingFileSystem : public zo::CForwardingFileSystem {
public:
    explicit CCountingFileSystem(zo::IFileSystem* inner) : CForwardingFileSystem(inner) {}

    P<zo::IFileSystemOp> beginStoreFile(const CURI& file, int size, zo::IInStream* source, bool overwrite,
                                        zo::IDoneListener* listener) override
    {
        note(m_stored, file);
        return CForwardingFileSystem::beginStoreFile(file, size, source, overwrite, listener);
    }
    P<zo::IFileSystemOp> beginCopyFile(const CURI& from, const CURI& to, bool overwrite,
                                       zo::IDoneListener* listener) override
    {
        note(m_copied, to);
        return CForwardingFileSystem::beginCopyFile(from, to, overwrite, listener);
    }
    P<zo::IFileSystemOp> beginMoveFile(const CURI& from, const CURI& to, bool overwrite,
                                       zo::IDoneListener* listener) override
    {
        note(m_moved, to);
        return CForwardingFileSystem::beginMoveFile(from, to, overwrite, listener);
    }
    P<zo::IFileSystemOp> beginDeleteFile(const CURI& file, zo::IDoneListener* listener) override
    {
        note(m_deleted, file);
        return CForwardingFileSystem::beginDeleteFile(file, listener);
    }
    void deleteFile(const CURI& file, bool ignoreMissing) override
    {
        note(m_deleted, file);
        CForwardingFileSystem::deleteFile(file, ignoreMissing);
    }
    P<zo::IIOStream> openStream(const CURI& file, zo::IIOStream::Access access, const int& options) override
    {
        if (access != zo::IIOStream::AccessRead)
            note(m_written, file);
        return CForwardingFileSystem::openStream(file, access, options);
    }

    // The paths named so far (a path named twice is listed twice).
    std::multiset<std::string> stored() const { return take(m_stored); }
    std::multiset<std::string> copied() const { return take(m_copied); }
    std::multiset<std::string> moved() const { return take(m_moved); }
    std::multiset<std::string> deleted() const { return take(m_deleted); }
    std::multiset<std::string> written() const { return take(m_written); }

private:
    void note(std::multiset<std::string>& calls, const CURI& path)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        calls.insert(path.toString(true).toUTF8());
    }
    std::multiset<std::string> take(const std::multiset<std::string>& calls) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return calls;
    }

    mutable std::mutex m_mutex;
    std::multiset<std::string> m_stored;
    std::multiset<std::string> m_copied;
    std::multiset<std::string> m_moved;
    std::multiset<std::string> m_deleted;
    std::multiset<std::string> m_written;
};

// A stream that adds the bytes read through it to a count.
class CReadCountingStream : public zo::CBase, public zo::IIOStream {
public:
    CReadCountingStream(P<zo::IIOStream> inner, std::function<void(int)> counted)
        : m_inner(std::move(inner)), m_counted(std::move(counted))
    {}

    zo::int64 getLength() override { return m_inner->getLength(); }
    zo::int64 getPosition() override { return m_inner->getPosition(); }
    CURI getURI() override { return m_inner->getURI(); }
    void seek(zo::int64 position) override { m_inner->seek(position); }
    void lockRange(zo::int64 start, zo::int64 length, LockType type) override
    {
        m_inner->lockRange(start, length, type);
    }
    void close() override { m_inner->close(); }
    void read(void* dst, int size) override
    {
        m_inner->read(dst, size);
        m_counted(size);
    }
    int readLax(void* dst, int size) override { return counted(m_inner->readLax(dst, size)); }
    int readAvailable(void* dst, int size) override { return counted(m_inner->readAvailable(dst, size)); }
    bool waitReadable(int timeoutMillis) override { return m_inner->waitReadable(timeoutMillis); }
    bool isEndOfStream() override { return m_inner->isEndOfStream(); }
    int isEndOfStream_NonBlocking() override { return m_inner->isEndOfStream_NonBlocking(); }
    void write(const void* src, int size, zo::IWriteBarrier* barrier) override { m_inner->write(src, size, barrier); }
    void writeKeepBuffer(const zo::TConstBufferSlice<zo::uint8>& slice, zo::IWriteBarrier* barrier) override
    {
        m_inner->writeKeepBuffer(slice, barrier);
    }
    P<zo::IWriteBarrier> createWriteBarrier(zo::IWriteBarrier* previous) override
    {
        return m_inner->createWriteBarrier(previous);
    }
    void flush() override { m_inner->flush(); }
    void setLength(zo::int64 length) override { m_inner->setLength(length); }

private:
    int counted(int size)
    {
        m_counted(size > 0 ? size : 0);
        return size;
    }

    P<zo::IIOStream> m_inner;
    std::function<void(int)> m_counted;
};

// Counts the bytes read from each file through the streams it opens.
class CReadCountingFileSystem : public zo::CForwardingFileSystem {
public:
    explicit CReadCountingFileSystem(zo::IFileSystem* inner) : CForwardingFileSystem(inner) {}

    P<zo::IIOStream> openStream(const CURI& file, zo::IIOStream::Access access, const int& options) override
    {
        const std::string path = file.toString(true).toUTF8();
        return P<zo::IIOStream>(
            new CReadCountingStream(CForwardingFileSystem::openStream(file, access, options), [this, path](int size) {
                const std::lock_guard<std::mutex> lock(m_mutex);
                m_bytesRead[path] += size;
            }));
    }

    // Bytes read so far, by the path of the file they were read from.
    std::map<std::string, zo::int64> bytesRead() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_bytesRead;
    }

private:
    mutable std::mutex m_mutex;
    std::map<std::string, zo::int64> m_bytesRead;
};

enum class Chain { TopOnly, WithSnapshot };

// Makes the disk /src/disk in `source` with bricks 0 to 11 written and,
// for WithSnapshot, its snapshot /src/snaps/s0 and bricks 1, 4 and 12
// written after it; then copies the chain to `top` in `destination`.
void makeAndCopyChain(zo::IFileSystem* source, Chain chain, zo::IFileSystem* destination, const CURI& top)
{
    testsupport::createDisk(source, kSourceTop, kDiskSize, kPassword);
    writeBricks(source, kSourceTop, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}, 10);
    if (chain == Chain::WithSnapshot) {
        testsupport::createLinkedChild(source, CURI("/src/snaps/s0"), kSourceTop, kPassword);
        writeBricks(source, kSourceTop, {1, 4, 12}, 20);
    }
    CChainCopier::copy(source, kSourceTop, destination, top, {});
}

// The brick files below /src, by their path in the destination.
std::map<std::string, Bytes> sourceBrickFiles(zo::CMemoryFileSystem* fs)
{
    std::map<std::string, Bytes> files;
    for (const auto& [path, bytes] : testsupport::fileContentsBelow(fs, CURI("/src"))) {
        if (path.find("/bricks/") != std::string::npos)
            files["memory://bucket/dst/" + path] = bytes;
    }
    return files;
}

std::multiset<std::string> brickPaths(const std::multiset<std::string>& paths)
{
    std::multiset<std::string> bricks;
    for (const std::string& path : paths) {
        if (path.find("/bricks/") != std::string::npos)
            bricks.insert(path);
    }
    return bricks;
}

TEST(ChainCopierRequests, SecondCopyAfterOneMoreImportStoresOnlyTheChangedBricks)
{
    const P<zo::CMemoryFileSystem> source(new zo::CMemoryFileSystem());
    const P<testsupport::CMemoryObjectStore> objects(new testsupport::CMemoryObjectStore());
    const P<zo::CObjectStoreFileSystem> store(new zo::CObjectStoreFileSystem(objects.get(), "memory", 2));
    makeAndCopyChain(source.get(), Chain::WithSnapshot, store.get(), CURI(kDestination));

    // One more import: three bricks rewritten, one cleared.
    const std::map<std::string, Bytes> before = sourceBrickFiles(source.get());
    writeBricks(source.get(), kSourceTop, {2, 9, 13}, 30);
    {
        const P<brick::CBrickDisk> disk = testsupport::openDisk(source.get(), kSourceTop, kPassword);
        testsupport::writeAt(*disk, 5 * kBrickSize, Bytes(kBrickSize, 0));
    }
    const std::map<std::string, Bytes> after = sourceBrickFiles(source.get());
    std::multiset<std::string> changed;
    for (const auto& [path, bytes] : after) {
        const auto old = before.find(path);
        if (old == before.end() || !(old->second == bytes))
            changed.insert(path);
    }
    std::multiset<std::string> gone;
    for (const auto& [path, bytes] : before) {
        if (after.count(path) == 0)
            gone.insert(path);
    }
    // The rewritten and cleared bricks of the top, and the snapshot's copies
    // of those it did not hold yet.
    ASSERT_GE(changed.size(), 4u);

    const P<CCountingFileSystem> counted(new CCountingFileSystem(store.get()));
    const testsupport::CMemoryObjectStore::Counts start = objects->getCounts();
    const CChainCopier::Summary summary =
        CChainCopier::copy(source.get(), CURI("/src/disk"), counted.get(), CURI(kDestination), {});
    const testsupport::CMemoryObjectStore::Counts calls = objects->getCounts();

    EXPECT_EQ(summary.filesSent, static_cast<zo::int64>(changed.size()));
    EXPECT_EQ(summary.filesDeleted, static_cast<zo::int64>(gone.size()));
    EXPECT_EQ(summary.filesSkipped, static_cast<zo::int64>(after.size() - changed.size()));
    EXPECT_EQ(brickPaths(counted->stored()), changed);
    EXPECT_EQ(brickPaths(counted->deleted()), gone);
    EXPECT_TRUE(brickPaths(counted->copied()).empty());
    EXPECT_TRUE(brickPaths(counted->moved()).empty());
    EXPECT_TRUE(brickPaths(counted->written()).empty());
    // In the store: one object written for each file stored, none for a
    // brick that did not change.
    EXPECT_EQ(calls.puts + calls.copies + calls.writes - start.puts - start.copies - start.writes,
              static_cast<int>(counted->stored().size() + counted->copied().size() + counted->moved().size()));
    EXPECT_EQ(calls.removes - start.removes, static_cast<int>(counted->deleted().size() + counted->moved().size()));

    // A third copy stores nothing.
    const P<CCountingFileSystem> idle(new CCountingFileSystem(store.get()));
    EXPECT_EQ(CChainCopier::copy(source.get(), CURI("/src/disk"), idle.get(), CURI(kDestination), {}).filesSent, 0);
    EXPECT_TRUE(brickPaths(idle->stored()).empty());
    EXPECT_TRUE(brickPaths(idle->deleted()).empty());
}

// Whether the destination holds a brick file already is told by its size
// and the outer digest at its end: a second copy reads only those last bytes
// of each brick file in the destination, however large the files are. With
// verify, the file sent is read back whole.
TEST(ChainCopierRequests, SecondCopyReadsOnlyTheDigestsAtTheEndOfTheDestinationsBrickFiles)
{
    // The longest outer digest of a brick file (SHA-256, HMAC-SHA256).
    constexpr zo::int64 kDigestSize = 32;
    const P<zo::CMemoryFileSystem> source(new zo::CMemoryFileSystem());
    const P<zo::CMemoryFileSystem> destination(new zo::CMemoryFileSystem());
    makeAndCopyChain(source.get(), Chain::TopOnly, destination.get(), CURI("/dst/disk"));
    writeBricks(source.get(), kSourceTop, {4}, 20);
    std::map<std::string, zo::int64> sizes;
    for (const auto& [path, bytes] : testsupport::fileContentsBelow(destination.get(), CURI("/dst")))
        if (path.find("/bricks/") != std::string::npos)
            sizes["/dst/" + path] = bytes.getUsed();
    ASSERT_EQ(sizes.size(), 12u);

    for (const bool verify : {false, true}) {
        if (verify)
            writeBricks(source.get(), kSourceTop, {4}, 30);
        const P<CReadCountingFileSystem> counted(new CReadCountingFileSystem(destination.get()));
        CChainCopier::Options options;
        options.verify = verify;
        const CChainCopier::Summary summary =
            CChainCopier::copy(source.get(), CURI("/src/disk"), counted.get(), CURI("/dst/disk"), options);

        ASSERT_EQ(summary.filesSent, 1) << "verify " << verify;
        ASSERT_EQ(summary.filesSkipped, 11) << "verify " << verify;
        zo::int64 brickBytes = 0;
        int readWhole = 0;
        for (const auto& [path, bytes] : counted->bytesRead()) {
            if (path.find("/bricks/") == std::string::npos)
                continue;
            ASSERT_EQ(sizes.count(path), 1u) << path;
            EXPECT_GT(sizes.at(path), 4 * kDigestSize) << path;
            if (bytes > kDigestSize) {
                ++readWhole;
                continue;
            }
            brickBytes += bytes;
        }
        EXPECT_GT(brickBytes, 0) << "verify " << verify;
        EXPECT_LE(brickBytes, kDigestSize * 12) << "verify " << verify;
        // Only the file sent is read further, back whole after it was sent,
        // and only with verify.
        EXPECT_EQ(readWhole, verify ? 1 : 0) << "verify " << verify;
    }
}

// The same over a file system on an object store, which would fetch a whole
// object to read its last bytes: comparing a brick file fetches only the
// digest at its end, so a second copy fetches at most that much of each
// brick object of the destination but the one it sends again.
TEST(ChainCopierRequests, SecondCopyFetchesOnlyTheDigestsAtTheEndOfTheDestinationsBrickObjects)
{
    constexpr zo::int64 kDigestSize = 32;
    const P<zo::CMemoryFileSystem> source(new zo::CMemoryFileSystem());
    const P<testsupport::CMemoryObjectStore> objects(new testsupport::CMemoryObjectStore());
    const P<zo::CObjectStoreFileSystem> store(new zo::CObjectStoreFileSystem(objects.get(), "memory", 2));
    makeAndCopyChain(source.get(), Chain::TopOnly, store.get(), CURI(kDestination));
    writeBricks(source.get(), kSourceTop, {4}, 20);
    std::map<std::string, zo::int64> sizes;
    for (const std::string& key : objects->list("bucket", "dst/disk/bricks/", 0))
        if (key.back() != '/')
            sizes[key] = *objects->stat({"bucket", key});
    ASSERT_EQ(sizes.size(), 12u);
    const std::map<std::string, zo::int64> before = objects->getBytesFetchedByKey();

    const P<zo::CObjectStoreFileSystem> fresh(new zo::CObjectStoreFileSystem(objects.get(), "memory", 2));
    const CChainCopier::Summary summary =
        CChainCopier::copy(source.get(), CURI("/src/disk"), fresh.get(), CURI(kDestination), {});

    ASSERT_EQ(summary.filesSent, 1);
    ASSERT_EQ(summary.filesSkipped, 11);
    int tailsOnly = 0;
    for (const auto& [key, bytes] : objects->getBytesFetchedByKey()) {
        if (key.find("/bricks/") == std::string::npos)
            continue;
        const auto earlier = before.find(key);
        const zo::int64 fetched = bytes - (earlier == before.end() ? 0 : earlier->second);
        ASSERT_EQ(sizes.count(key), 1u) << key;
        EXPECT_GT(sizes.at(key), 4 * kDigestSize) << key;
        EXPECT_LE(fetched, kDigestSize) << key;
        tailsOnly += fetched > 0 ? 1 : 0;
    }
    EXPECT_GE(tailsOnly, 11);
}

// Per brick file that did not change, a second copy into a bucket asks the
// store one thing: a ranged read of the digest at its end. The sizes that
// tell which files to compare come from one listing with sizes per folder
// of the brick tree, not from a request per file.
TEST(ChainCopierRequests, SecondCopyAsksOneRangedReadPerUnchangedBrickObject)
{
    const P<zo::CMemoryFileSystem> source(new zo::CMemoryFileSystem());
    const P<testsupport::CMemoryObjectStore> objects(new testsupport::CMemoryObjectStore());
    const P<zo::CObjectStoreFileSystem> store(new zo::CObjectStoreFileSystem(objects.get(), "memory", 2));
    makeAndCopyChain(source.get(), Chain::WithSnapshot, store.get(), CURI(kDestination));
    const std::map<std::string, Bytes> before = sourceBrickFiles(source.get());
    writeBricks(source.get(), kSourceTop, {2, 9}, 30);
    std::set<std::string> changed;
    for (const auto& [path, bytes] : sourceBrickFiles(source.get())) {
        const auto old = before.find(path);
        if (old == before.end() || !(old->second == bytes))
            changed.insert(path.substr(std::string("memory://bucket/").size()));
    }
    ASSERT_GE(changed.size(), 2u);

    const P<CCountingObjectStore> counting(new CCountingObjectStore(objects.get()));
    const P<zo::CObjectStoreFileSystem> fresh(new zo::CObjectStoreFileSystem(counting.get(), "memory", 2));
    CChainCopier::Options options;
    options.jobs = 3;
    const CChainCopier::Summary summary =
        CChainCopier::copy(source.get(), CURI("/src/disk"), fresh.get(), CURI(kDestination), options);

    ASSERT_EQ(summary.filesSent, static_cast<zo::int64>(changed.size()));
    const std::map<std::string, int> stats = counting->stats();
    const std::map<std::string, int> reads = counting->reads();
    const std::map<std::string, int> ranges = counting->ranges();
    int unchanged = 0;
    for (const std::string& key : objects->list("bucket", "dst/", 0)) {
        if (key.find("/bricks/") == std::string::npos || key.back() == '/' || changed.count(key) > 0)
            continue;
        ++unchanged;
        EXPECT_EQ(stats.count(key), 0u) << key;
        EXPECT_EQ(reads.count(key), 0u) << key;
        const auto found = ranges.find(key);
        EXPECT_EQ(found == ranges.end() ? 0 : found->second, 1) << key;
    }
    EXPECT_EQ(unchanged, summary.filesSkipped);
    // Each folder of each disk's brick tree is listed once.
    int treeListings = 0;
    for (const auto& [prefix, calls] : counting->sizedListings()) {
        if (prefix.find("/bricks/") == std::string::npos)
            continue;
        EXPECT_EQ(calls, 1) << prefix;
        ++treeListings;
    }
    EXPECT_GE(treeListings, 2);
}

} // namespace
