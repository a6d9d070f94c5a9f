// The record that copies keep of a destination (CChainCopier::Options::
// recordFolder, CCopyRecord), over a file system on an object store in memory
// whose listings give each object's MD5 as its tag, as S3 does: with it, a
// second copy asks nothing of an unchanged brick object; a record that is
// wrong, garbage, or older than a file replaced behind its back only makes
// the copy ask, never makes it wrong; a record folder that cannot be written
// leaves copies working as without one.
#include "brick/backup/ChainCopier.h"
#include "brick/backup/CopyRecord.h"
#include "objectstore/ObjectStoreFileSystem.h"
#include "support/BackupTestChain.h"
#include "support/CountingObjectStore.h"
#include "support/DiskTestHelpers.h"
#include "support/LocalFile.h"
#include "support/MemoryObjectStore.h"
#include "support/TempFolder.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

using brick::CChainCopier;
using brick::CCopyRecord;
using testsupport::CCountingObjectStore;
using testsupport::readLocalFile;
using testsupport::writeLocalFile;
using testsupport::backuptest::kBrickSize;
using testsupport::backuptest::kPassword;
using testsupport::backuptest::kSourceTop;
using testsupport::backuptest::writeBricks;
using zo::CURI;
using zo::P;

namespace {

constexpr zo::int64 kDiskSize = 16 * kBrickSize;
const char* const kDestination = "memory://bucket/dst/disk";

class ChainCopierRecord : public ::testing::Test {
protected:
    ChainCopierRecord()
        : m_source(new zo::CMemoryFileSystem()), m_objects(new testsupport::CMemoryObjectStore()),
          m_store(new zo::CObjectStoreFileSystem(m_objects.get(), "memory", 2))
    {}

    // The disk /src/disk with bricks 0 to 11, its snapshot /src/snaps/s0,
    // then bricks 1, 4 and 12 written; copied to kDestination.
    void makeAndCopyChain(const CURI& recordFolder)
    {
        testsupport::createDisk(m_source.get(), kSourceTop, kDiskSize, kPassword);
        writeBricks(m_source.get(), kSourceTop, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}, 10);
        testsupport::createLinkedChild(m_source.get(), CURI("/src/snaps/s0"), kSourceTop, kPassword);
        writeBricks(m_source.get(), kSourceTop, {1, 4, 12}, 20);
        copy(m_store.get(), recordFolder);
    }

    CChainCopier::Summary copy(zo::IFileSystem* destinationFs, const CURI& recordFolder, bool dryRun = false,
                               const CURI& destination = CURI(kDestination))
    {
        CChainCopier::Options options;
        options.jobs = 3;
        options.recordFolder = recordFolder;
        options.dryRun = dryRun;
        return CChainCopier::copy(m_source.get(), kSourceTop, destinationFs, destination, options);
    }

    // The brick files of the source, by their key in the bucket.
    std::map<std::string, std::string> sourceBrickFiles() const
    {
        std::map<std::string, std::string> files;
        for (const auto& [path, bytes] : testsupport::fileContentsBelow(m_source.get(), CURI("/src")))
            if (path.find("/bricks/") != std::string::npos)
                files["dst/" + path] = std::string(reinterpret_cast<const char*>(bytes.getData()),
                                                   static_cast<std::size_t>(bytes.getUsed()));
        return files;
    }

    // The brick objects of the destination, by key.
    std::map<std::string, std::string> destinationBrickObjects() const
    {
        std::map<std::string, std::string> objects;
        for (const std::string& key : m_objects->list("bucket", "dst/", 0))
            if (key.find("/bricks/") != std::string::npos && key.back() != '/')
                objects[key] = m_objects->read({"bucket", key});
        return objects;
    }

    // Rewrites two bricks of the top; the keys of the brick files that
    // changed.
    std::set<std::string> changeTwoBricks()
    {
        const std::map<std::string, std::string> before = sourceBrickFiles();
        writeBricks(m_source.get(), kSourceTop, {2, 9}, 30);
        std::set<std::string> changed;
        for (const auto& [key, bytes] : sourceBrickFiles()) {
            const auto old = before.find(key);
            if (old == before.end() || old->second != bytes)
                changed.insert(key);
        }
        return changed;
    }

    // A copy through a store that counts the calls per object; the calls
    // that asked about the destination's brick objects (not the markers of
    // its folders), by key.
    struct CountedCopy {
        CChainCopier::Summary summary;
        std::map<std::string, int> asked;
    };
    CountedCopy countedCopy(const CURI& recordFolder, bool dryRun = false)
    {
        const P<CCountingObjectStore> counting(new CCountingObjectStore(m_objects.get()));
        const P<zo::CObjectStoreFileSystem> fresh(new zo::CObjectStoreFileSystem(counting.get(), "memory", 2));
        CountedCopy counted{copy(fresh.get(), recordFolder, dryRun), {}};
        for (const auto& calls : {counting->stats(), counting->reads(), counting->ranges()})
            for (const auto& [key, count] : calls)
                if (key.find("/bricks/") != std::string::npos && key.back() != '/')
                    counted.asked[key] += count;
        return counted;
    }

    std::string recordPath() const
    {
        return CCopyRecord::getFileURI(m_records.uri(), CURI(kDestination)).toLocalPath();
    }

    P<zo::CMemoryFileSystem> m_source;
    P<testsupport::CMemoryObjectStore> m_objects;
    P<zo::CObjectStoreFileSystem> m_store;
    testsupport::TempFolder m_records;
};

TEST_F(ChainCopierRecord, SecondCopyAsksNothingOfAnUnchangedBrickObject)
{
    makeAndCopyChain(m_records.uri());
    ASSERT_FALSE(readLocalFile(recordPath()).empty());
    const std::set<std::string> changed = changeTwoBricks();
    ASSERT_GE(changed.size(), 2u);

    const CountedCopy second = countedCopy(m_records.uri());

    EXPECT_EQ(second.summary.filesSent, static_cast<zo::int64>(changed.size()));
    EXPECT_EQ(second.summary.filesSkipped, static_cast<zo::int64>(sourceBrickFiles().size() - changed.size()));
    for (const auto& [key, count] : second.asked)
        EXPECT_GT(changed.count(key), 0u) << key << " asked " << count << " times";
    EXPECT_EQ(destinationBrickObjects(), sourceBrickFiles());

    // The files sent are in the record too: a third copy asks nothing.
    const CountedCopy third = countedCopy(m_records.uri());
    EXPECT_EQ(third.summary.filesSent, 0);
    EXPECT_TRUE(third.asked.empty());
}

TEST_F(ChainCopierRecord, DryRunUsesTheRecordAndLeavesItAsItWas)
{
    makeAndCopyChain(m_records.uri());
    const std::string record = readLocalFile(recordPath());
    const std::set<std::string> changed = changeTwoBricks();

    const CountedCopy dryRun = countedCopy(m_records.uri(), true);

    EXPECT_EQ(dryRun.summary.filesSent, static_cast<zo::int64>(changed.size()));
    EXPECT_TRUE(dryRun.asked.empty());
    EXPECT_EQ(readLocalFile(recordPath()), record);
}

TEST_F(ChainCopierRecord, RecordWithWrongDigestsOnlyMakesTheCopyCompare)
{
    makeAndCopyChain(m_records.uri());
    // Every tag of the record mapped to a digest that no file has.
    CCopyRecord wrong{CURI(kDestination)};
    for (const std::string& key : m_objects->list("bucket", "dst/", 0)) {
        if (key.find("/bricks/") == std::string::npos || key.back() == '/')
            continue;
        const std::string bytes = m_objects->read({"bucket", key});
        const std::string listed = m_objects->listLevelWithSizes("bucket", key.substr(0, key.rfind('/') + 1))
                                       ->tags.at(key.substr(key.rfind('/') + 1));
        wrong.note(listed, static_cast<zo::int64>(bytes.size()), std::string(32, '\x5a'));
    }
    ASSERT_GT(wrong.getEntryCount(), 0u);
    wrong.store(m_records.uri());
    const std::set<std::string> changed = changeTwoBricks();

    const CountedCopy second = countedCopy(m_records.uri());

    EXPECT_EQ(second.summary.filesSent, static_cast<zo::int64>(changed.size()));
    EXPECT_EQ(destinationBrickObjects(), sourceBrickFiles());
    // Each unchanged file was compared by reading its digest, once.
    for (const auto& [key, bytes] : sourceBrickFiles()) {
        if (changed.count(key) > 0)
            continue;
        const auto found = second.asked.find(key);
        EXPECT_EQ(found == second.asked.end() ? 0 : found->second, 1) << key;
    }
    // What was read replaced the wrong digests.
    EXPECT_TRUE(countedCopy(m_records.uri()).asked.empty());
}

TEST_F(ChainCopierRecord, GarbageRecordIsIgnored)
{
    makeAndCopyChain(m_records.uri());
    writeLocalFile(recordPath(), "not a record\n\x01\x02\x03 of any copy\n");
    const std::set<std::string> changed = changeTwoBricks();

    const CountedCopy second = countedCopy(m_records.uri());

    EXPECT_EQ(second.summary.filesSent, static_cast<zo::int64>(changed.size()));
    EXPECT_EQ(second.summary.filesSkipped, static_cast<zo::int64>(sourceBrickFiles().size() - changed.size()));
    EXPECT_EQ(destinationBrickObjects(), sourceBrickFiles());
    EXPECT_TRUE(countedCopy(m_records.uri()).asked.empty());
}

TEST_F(ChainCopierRecord, RecordOfAnotherDestinationIsIgnored)
{
    makeAndCopyChain(m_records.uri());
    // The record of another destination, every tag mapped to the digest the
    // source's files end with: it must not count for this one.
    const std::string other = readLocalFile(recordPath());
    const std::string otherPath =
        CCopyRecord::getFileURI(m_records.uri(), CURI("memory://bucket/elsewhere/disk")).toLocalPath();
    writeLocalFile(otherPath, other);
    ASSERT_EQ(CCopyRecord::load(m_records.uri(), CURI("memory://bucket/elsewhere/disk")).getEntryCount(), 0u);
    ASSERT_GT(CCopyRecord::load(m_records.uri(), CURI(kDestination)).getEntryCount(), 0u);
}

TEST_F(ChainCopierRecord, FileReplacedBehindTheRecordsBackIsSentAgain)
{
    makeAndCopyChain(m_records.uri());
    // One brick object gets the bytes of another of the same size (whose
    // tag the record holds), another one of its last bytes changed (a tag
    // the record does not hold).
    std::map<std::size_t, std::string> keyBySize;
    std::string swapped;
    std::string from;
    for (const auto& [key, bytes] : destinationBrickObjects()) {
        const auto same = keyBySize.find(bytes.size());
        if (same != keyBySize.end() && swapped.empty() && bytes != destinationBrickObjects().at(same->second)) {
            swapped = key;
            from = same->second;
        }
        keyBySize.emplace(bytes.size(), key);
    }
    ASSERT_FALSE(swapped.empty()) << "no two brick objects of the same size";
    m_objects->putBehindTheBack({"bucket", swapped}, m_objects->read({"bucket", from}));
    std::string flipped;
    for (const auto& [key, bytes] : destinationBrickObjects()) {
        if (key == swapped || key == from)
            continue;
        std::string changed = bytes;
        changed.back() = static_cast<char>(changed.back() ^ 1);
        m_objects->putBehindTheBack({"bucket", key}, changed);
        flipped = key;
        break;
    }
    ASSERT_FALSE(flipped.empty());

    const CountedCopy second = countedCopy(m_records.uri());

    EXPECT_EQ(second.summary.filesSent, 2);
    EXPECT_EQ(destinationBrickObjects(), sourceBrickFiles());
    EXPECT_EQ(second.asked.count(from), 0u);
}

TEST_F(ChainCopierRecord, CopiesWithoutAWritableRecordFolderWork)
{
    // A file where the record's folder would go.
    const std::string inTheWay = m_records.path() + "/file";
    writeLocalFile(inTheWay, "in the way");
    const CURI unwritable(zo::String(inTheWay + "/records"));
    makeAndCopyChain(unwritable);
    const std::set<std::string> changed = changeTwoBricks();

    const CountedCopy second = countedCopy(unwritable);

    EXPECT_EQ(second.summary.filesSent, static_cast<zo::int64>(changed.size()));
    EXPECT_EQ(destinationBrickObjects(), sourceBrickFiles());
    EXPECT_EQ(readLocalFile(inTheWay), "in the way");
}

TEST_F(ChainCopierRecord, DestinationWithoutTagsKeepsNoRecord)
{
    const P<zo::CMemoryFileSystem> destination(new zo::CMemoryFileSystem());
    testsupport::createDisk(m_source.get(), kSourceTop, kDiskSize, kPassword);
    writeBricks(m_source.get(), kSourceTop, {0, 1, 2}, 10);
    copy(destination.get(), m_records.uri(), false, CURI("/dst/disk"));
    writeBricks(m_source.get(), kSourceTop, {1}, 20);

    const CChainCopier::Summary second = copy(destination.get(), m_records.uri(), false, CURI("/dst/disk"));

    EXPECT_EQ(second.filesSent, 1);
    EXPECT_EQ(second.filesSkipped, 2);
    EXPECT_TRUE(readLocalFile(CCopyRecord::getFileURI(m_records.uri(), CURI("/dst/disk")).toLocalPath()).empty());
}

// A copy that sends nothing asks the store about each record of each disk
// once (whether it exists and its bytes, or whether its fallback copy
// exists), checks each disk's folder and its brick tree's, and lists each
// folder of the brick trees once: the checks, the walk of the
// destination's chain and the comparisons share what they read.
TEST_F(ChainCopierRecord, CopyThatSendsNothingAsksAboutEachRecordAndTreeFolderOnce)
{
    makeAndCopyChain(m_records.uri());
    std::set<std::string> disks;
    std::set<std::string> treeFolders;
    for (const std::string& key : m_objects->list("bucket", "dst/", 0)) {
        const std::size_t bricks = key.find("/bricks/");
        if (key.size() > 15 && key.compare(key.size() - 15, 15, "/disk.brickdisk") == 0 &&
            key.find("/fallback/") == std::string::npos)
            disks.insert(key.substr(0, key.size() - 15));
        if (bricks == std::string::npos || key.back() == '/')
            continue;
        for (std::size_t end = key.find('/', bricks + 1); end != std::string::npos; end = key.find('/', end + 1))
            treeFolders.insert(key.substr(0, end + 1));
    }
    ASSERT_EQ(disks.size(), 2u);
    ASSERT_GE(treeFolders.size(), 2u * 2u);

    const P<CCountingObjectStore> counting(new CCountingObjectStore(m_objects.get()));
    const P<zo::CObjectStoreFileSystem> fresh(new zo::CObjectStoreFileSystem(counting.get(), "memory", 2));
    const CChainCopier::Summary summary = copy(fresh.get(), m_records.uri());

    ASSERT_EQ(summary.filesSent, 0);
    ASSERT_EQ(summary.recordsWritten, 0);
    const std::vector<std::string> requests = counting->requests();
    const std::multiset<std::string> asked(requests.begin(), requests.end());
    for (const std::string& request : asked)
        EXPECT_EQ(asked.count(request), 1u) << request;
    // Per disk, its six records (header, creation time, parent and child
    // links, creating and removing marks): two requests each, a look and a
    // read of one that exists or a look at each copy of one that does not.
    // The top's folder is looked at as a file and as a folder, each
    // snapshot's as a folder; each brick tree's root is looked at, then
    // each of its folders listed.
    const std::size_t expected = 6 * 2 * disks.size() + (1 + disks.size()) + disks.size() + treeFolders.size();
    EXPECT_EQ(requests.size(), expected);
}

} // namespace
