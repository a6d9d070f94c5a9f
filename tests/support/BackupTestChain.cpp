#include "support/BackupTestChain.h"

#include "brick/chain/BrickDisk.h"
#include "support/SweepRounds.h"
#include "zo/Error.h"

namespace testsupport::backuptest {

void writeBricks(zo::IFileSystem* fs, const zo::CURI& folder, const std::vector<int>& indexes, unsigned seed)
{
    const zo::P<brick::CBrickDisk> disk = openDisk(fs, folder, kPassword);
    for (int index : indexes)
        writeAt(*disk, static_cast<zo::int64>(index) * kBrickSize,
                patternBytes(kBrickSize, seed + static_cast<unsigned>(index)));
}

std::map<std::string, Bytes> readDisks(zo::IFileSystem* fs, const std::string& root,
                                       const std::vector<std::string>& folders)
{
    std::map<std::string, Bytes> contents;
    for (const std::string& folder : folders) {
        const zo::P<brick::CBrickDisk> disk =
            openDisk(fs, zo::CURI(root + folder), kPassword, zo::IIOStream::AccessRead);
        contents[folder] = readWholeDisk(*disk);
    }
    return contents;
}

zo::P<zo::CMemoryFileSystem> memoryFileSystemWith(const std::map<std::string, Bytes>& files)
{
    const zo::P<zo::CMemoryFileSystem> fs(new zo::CMemoryFileSystem());
    for (const auto& [path, bytes] : files)
        fs->setFileData(zo::CURI("/" + path), bytes);
    return fs;
}

int sweepFailingOperations(const std::vector<zo::CMemoryFileSystem::Operation>& kinds,
                           const std::map<std::string, Bytes>& files,
                           const std::function<void(zo::CMemoryFileSystem*)>& run,
                           const std::function<void(zo::CMemoryFileSystem*, const std::string&)>& check)
{
    int cutShort = 0;
    for (const zo::CMemoryFileSystem::Operation kind : kinds) {
        for (int nth = 1;; nth += sweepStep()) {
            const zo::P<zo::CMemoryFileSystem> fs = memoryFileSystemWith(files);
            const std::string context = std::string("with ") + zo::CMemoryFileSystem::getOperationName(kind) + " " +
                std::to_string(nth) + " failing";
            fs->failOperation(kind, nth, zo::CFileSystemError::NoSpace, true);
            bool stopped = false;
            try {
                run(fs.get());
            } catch (const zo::CError&) {
                stopped = true;
            }
            fs->waitUntilIdle();
            fs->clearFailures();
            if (!stopped)
                break;
            ++cutShort;
            check(fs.get(), context);
            if (::testing::Test::HasFailure())
                return cutShort;
        }
    }
    return cutShort;
}

void makeChain(zo::IFileSystem* fs)
{
    createDisk(fs, kSourceTop, kDiskSize, kPassword);
    writeBricks(fs, kSourceTop, {0, 1, 2, 3}, 10);
    createLinkedChild(fs, zo::CURI("/src/snaps/s0"), kSourceTop, kPassword);
    writeBricks(fs, kSourceTop, {1, 4}, 20);
    createLinkedChild(fs, zo::CURI("/src/snaps/s1"), kSourceTop, kPassword);
    writeBricks(fs, kSourceTop, {2, 5, 1}, 30);
}

void changeChain(zo::IFileSystem* fs)
{
    writeBricks(fs, kSourceTop, {0, 6}, 40);
    createLinkedChild(fs, zo::CURI("/src/snaps/s2"), kSourceTop, kPassword);
    writeBricks(fs, kSourceTop, {0, 2, 7}, 50);
}

brick::CChainCopier::Summary copyChain(zo::IFileSystem* source, zo::IFileSystem* destination,
                                       const brick::CChainCopier::Options& options)
{
    return brick::CChainCopier::copy(source, kSourceTop, destination, kDestinationTop, options);
}

} // namespace testsupport::backuptest
