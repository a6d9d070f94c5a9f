// What the tests of copying a chain and of carrying out a retention plan
// share: bricks written into a small test disk, the disks of a chain read
// whole, a memory file system that holds given files, and a sweep that cuts
// a run short at each operation of chosen kinds in turn. For the copier's
// tests also the chain they copy (/src/disk and its snapshots) and a fixture
// with a source and a destination in memory.
#pragma once

#include "brick/backup/ChainCopier.h"
#include "support/DiskTestHelpers.h"
#include "zo/MemoryFileSystem.h"
#include "zo/URI.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace testsupport::backuptest {

constexpr int kBrickSize = kDiskTestBrickSize;
constexpr zo::int64 kDiskSize = 8 * kBrickSize;
inline const char* const kPassword = "pw";

// Writes patternBytes(kBrickSize, seed + index) as each brick `index` of the
// disk in `folder` (opened with kPassword).
void writeBricks(zo::IFileSystem* fs, const zo::CURI& folder, const std::vector<int>& indexes, unsigned seed);

// The disks root + folder for each of `folders`, each read whole, by folder.
std::map<std::string, Bytes> readDisks(zo::IFileSystem* fs, const std::string& root,
                                       const std::vector<std::string>& folders);

// A new memory file system holding `files`, by their paths below "/" (as
// fileContentsBelow gives them for "/").
zo::P<zo::CMemoryFileSystem> memoryFileSystemWith(const std::map<std::string, Bytes>& files);

// For each operation kind of `kinds` and nth = 1, 2, ... (every
// sweepStep()-th: 1, 4, 7, ... in a sanitized build): `run` is given a
// memory file system holding `files` whose nth operation of that kind, and
// every later one, fails; a run that ends without a zo::CError ends the
// kind's sweep. After each run cut short, `check` looks at the file system
// (idle, its failures cleared), with a context that names the failure.
// Stops at the first failure of the test. Returns the runs cut short.
int sweepFailingOperations(const std::vector<zo::CMemoryFileSystem::Operation>& kinds,
                           const std::map<std::string, Bytes>& files,
                           const std::function<void(zo::CMemoryFileSystem*)>& run,
                           const std::function<void(zo::CMemoryFileSystem*, const std::string&)>& check);

// The chain the copier's tests copy: kSourceTop, /src/snaps/s1 and
// /src/snaps/s0 (oldest), bricks written before each snapshot and after.
inline const zo::CURI kSourceTop("/src/disk");
inline const zo::CURI kDestinationTop("/dst/disk");
void makeChain(zo::IFileSystem* fs);
// New writes and a new snapshot /src/snaps/s2 after a first copy.
void changeChain(zo::IFileSystem* fs);
// The disks of the chain before and after changeChain, below "/src" or
// "/dst", top first.
inline const std::vector<std::string> kFirstDisks{"/disk", "/snaps/s1", "/snaps/s0"};
inline const std::vector<std::string> kSecondDisks{"/disk", "/snaps/s2", "/snaps/s1", "/snaps/s0"};

// Copies the chain of kSourceTop in `source` to kDestinationTop.
brick::CChainCopier::Summary copyChain(zo::IFileSystem* source, zo::IFileSystem* destination,
                                       const brick::CChainCopier::Options& options = {});

// A source and a destination file system in memory, both empty.
class ChainCopyFixture : public ::testing::Test {
protected:
    zo::P<zo::CMemoryFileSystem> source{new zo::CMemoryFileSystem()};
    zo::P<zo::CMemoryFileSystem> destination{new zo::CMemoryFileSystem()};
};

} // namespace testsupport::backuptest
