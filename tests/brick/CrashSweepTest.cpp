// What a crash does to every disk of a chain, swept step by step: a run is
// repeated once for every operation that changes the file system, stopping
// the file system before that operation, and after each stop the disks are
// reopened and every brick of every disk is compared with what it may hold:
// a disk that was not written reads exactly as before, a written one reads
// each brick with its old or its new content, never zeros where data was and
// never a mix. The power-cut sweeps lose, at each stop, what no sync had made
// durable as well, and check that a finished run leaves nothing unsynced.
#include "brick/chain/BrickDisk.h"
#include "brick/chain/BrickDiskChain.h"
#include "brick/chain/BrickDiskRemover.h"
#include "brick/format/BrickDiskError.h"
#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickDiskKeyWrap.h"
#include "brick/serving/BrickDiskBlockDevice.h"
#include "support/CrashingFileSystem.h"
#include "support/DiskTestHelpers.h"
#include "support/PowerCutFileSystem.h"
#include "support/SweepRounds.h"
#include "support/TempFolder.h"
#include "zo/LocalFileSystem.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

using brick::CBrickDisk;
using testsupport::Bytes;
using testsupport::kTestKdfCost;
using zo::CURI;
using zo::IFileSystem;
using zo::IIOStream;
using zo::P;

namespace {

constexpr int kBrickSize = testsupport::kDiskTestBrickSize;
constexpr int kBrickCount = 12;
constexpr zo::int64 kDiskSize = static_cast<zo::int64>(kBrickSize) * kBrickCount;
const char* const kPassword = "crash";

// The bricks of a disk's view, one entry per brick.
using View = std::vector<Bytes>;

View readViewWith(IFileSystem* fs, const CURI& folder, const char* password)
{
    const P<CBrickDisk> disk = testsupport::openDisk(fs, folder, password, IIOStream::AccessRead);
    View view;
    for (int i = 0; i < kBrickCount; ++i)
        view.push_back(testsupport::readAt(*disk, static_cast<zo::int64>(i) * kBrickSize, kBrickSize));
    return view;
}

View readView(IFileSystem* fs, const CURI& folder)
{
    return readViewWith(fs, folder, kPassword);
}

// Writes every brick of `view` that differs from `before`: whole bricks as
// one write, the others as the changed range only, so both paths are swept.
void writeView(CBrickDisk& disk, const View& before, const View& view)
{
    for (int i = 0; i < kBrickCount; ++i) {
        const Bytes& old = before[static_cast<size_t>(i)];
        const Bytes& fresh = view[static_cast<size_t>(i)];
        if (old == fresh)
            continue;
        int first = 0;
        int last = kBrickSize;
        while (first < kBrickSize && old.getData()[first] == fresh.getData()[first])
            ++first;
        while (last > first && old.getData()[last - 1] == fresh.getData()[last - 1])
            --last;
        const bool whole = i % 3 != 1;
        if (whole) {
            first = 0;
            last = kBrickSize;
        }
        Bytes part(last - first);
        std::memcpy(part.getData(), fresh.getData() + first, static_cast<size_t>(last - first));
        testsupport::writeAt(disk, static_cast<zo::int64>(i) * kBrickSize + first, part);
    }
}

// A view with data in the bricks that `pattern` marks ('d'), zeros elsewhere.
View makeView(const std::string& pattern, unsigned seed)
{
    View view;
    for (int i = 0; i < kBrickCount; ++i)
        view.push_back(pattern[static_cast<size_t>(i)] == 'd'
                           ? testsupport::patternBytes(kBrickSize, seed + static_cast<unsigned>(i))
                           : testsupport::zeroBytes(kBrickSize));
    return view;
}

// `base` with the first quarter of every brick that `pattern` marks ('p')
// changed, and every brick marked 'z' cleared: partial changes and clearing.
View changeView(const View& base, const std::string& pattern, unsigned seed)
{
    View view = base;
    for (int i = 0; i < kBrickCount; ++i) {
        const char mark = pattern[static_cast<size_t>(i)];
        if (mark == 'p') {
            const Bytes part = testsupport::patternBytes(kBrickSize / 4, seed + static_cast<unsigned>(i));
            std::memcpy(view[static_cast<size_t>(i)].getData() + kBrickSize / 8, part.getData(), kBrickSize / 4);
        } else if (mark == 'z') {
            view[static_cast<size_t>(i)] = testsupport::zeroBytes(kBrickSize);
        } else if (mark == 'n') {
            view[static_cast<size_t>(i)] = testsupport::patternBytes(kBrickSize, seed + 100 + static_cast<unsigned>(i));
        }
    }
    return view;
}

void storeView(IFileSystem* fs, const CURI& folder, const View& before, const View& view, bool allowParent)
{
    const P<CBrickDisk> disk = testsupport::openDisk(fs, folder, kPassword, IIOStream::AccessReadWrite, 1);
    disk->setAllowWritingWithParentDisk(allowParent);
    writeView(*disk, before, view);
    disk->flushChanges();
}

// Counts of a sweep, for the summary line.
struct SweepCounts {
    int operations = 0;
    int crashes = 0;
    zo::int64 bricksVerified = 0;
};

// One scenario: builds its disks without crashing, runs its work on the
// crashing file system, and checks the disks afterwards, returning how many
// bricks it compared.
struct Scenario {
    std::function<void(IFileSystem* fs)> setUp;
    std::function<void(IFileSystem* fs)> work;
    std::function<int(IFileSystem* fs, const std::string& context)> verify;
};

// Every brick of `folder` equals `expected`; returns the number compared.
int expectView(IFileSystem* fs, const char* folder, const View& expected, const std::string& context)
{
    const View actual = readView(fs, CURI(folder));
    for (int i = 0; i < kBrickCount; ++i)
        EXPECT_TRUE(actual[static_cast<size_t>(i)] == expected[static_cast<size_t>(i)])
            << folder << " brick " << i << " changed after " << context;
    return kBrickCount;
}

// Every brick of `folder` equals the same brick of `before` or of `after`.
int expectOldOrNew(IFileSystem* fs, const char* folder, const View& before, const View& after,
                   const std::string& context)
{
    const View actual = readView(fs, CURI(folder));
    for (int i = 0; i < kBrickCount; ++i) {
        const Bytes& brick = actual[static_cast<size_t>(i)];
        EXPECT_TRUE(brick == before[static_cast<size_t>(i)] || brick == after[static_cast<size_t>(i)])
            << folder << " brick " << i << " holds neither its old nor its new content after " << context;
    }
    return kBrickCount;
}

// True when `folder` holds a disk that is not marked as cut short.
bool isWholeDisk(IFileSystem* fs, const char* folder)
{
    return fs->fileExists(brick::CBrickDiskHeader::getHeaderURI(CURI(folder), 0)) &&
        CBrickDisk::getCompletion(fs, CURI(folder)) == CBrickDisk::Finished;
}

// A folder that holds anything refuses to open as a disk, with `code`.
void expectRefused(IFileSystem* fs, const char* folder, brick::CBrickDiskError::ErrorCode code,
                   const std::string& context)
{
    if (!fs->folderExists(CURI(folder)) || testsupport::filesBelow(fs, CURI(folder)).empty())
        return;
    try {
        testsupport::openDisk(fs, CURI(folder), kPassword, IIOStream::AccessRead);
        ADD_FAILURE() << folder << " opens after " << context;
    } catch (const brick::CBrickDiskError& e) {
        EXPECT_EQ(e.getErrorCode(), code) << folder << " after " << context;
    }
}

// What a stop is: the process ends, and what the file systems made durable
// stays; or the power goes too, and what no sync made durable is lost, all
// of it or only the new folders (PowerCutFileSystem, between the stopping
// file system and the one below).
enum class Stop { Process, PowerLosingEverything, PowerLosingNewFolders };

void cutPower(testsupport::PowerCutFileSystem& power, Stop stop)
{
    if (stop == Stop::PowerLosingEverything)
        power.cutPower(testsupport::PowerCutFileSystem::Loss::Everything);
    else if (stop == Stop::PowerLosingNewFolders)
        power.cutPower(testsupport::PowerCutFileSystem::Loss::NewFolders);
}

// Runs the scenario once to count its changing operations, then once for
// every crash point (every sweepStep()-th in a sanitized build), each on a
// file system of its own from `makeFileSystem`.
SweepCounts sweep(const std::string& name, const std::function<P<IFileSystem>()>& makeFileSystem,
                  const Scenario& scenario, Stop stop = Stop::Process)
{
    SweepCounts counts;
    {
        const P<IFileSystem> fs = makeFileSystem();
        scenario.setUp(fs.get());
        const P<testsupport::PowerCutFileSystem> power(new testsupport::PowerCutFileSystem(fs.get()));
        const P<testsupport::CrashingFileSystem> counting(
            new testsupport::CrashingFileSystem(stop == Stop::Process ? fs.get() : power.get(), -1));
        scenario.work(counting.get());
        counts.operations = counting->getChangeCount();
        // The work ends with a flush, which leaves nothing for a power cut to take.
        EXPECT_EQ(power->getUnsyncedChangeCount(), 0) << name << ": changes left unsynced after the work";
        cutPower(*power, stop);
        counts.bricksVerified += scenario.verify(fs.get(), "a run without a crash");
    }
    EXPECT_GT(counts.operations, 0);
    for (int allowed = 0; allowed < counts.operations; allowed += testsupport::sweepStep()) {
        const std::string context = name + ", crash before changing operation " + std::to_string(allowed + 1) + " of " +
            std::to_string(counts.operations);
        const P<IFileSystem> fs = makeFileSystem();
        scenario.setUp(fs.get());
        {
            const P<testsupport::PowerCutFileSystem> power(new testsupport::PowerCutFileSystem(fs.get()));
            {
                const P<testsupport::CrashingFileSystem> crashing(
                    new testsupport::CrashingFileSystem(stop == Stop::Process ? fs.get() : power.get(), allowed));
                try {
                    scenario.work(crashing.get());
                } catch (const std::exception&) {
                    // The crash stops the work wherever it is.
                }
                EXPECT_TRUE(crashing->hasCrashed()) << context;
            }
            cutPower(*power, stop);
        }
        ++counts.crashes;
        counts.bricksVerified += scenario.verify(fs.get(), context);
        if (::testing::Test::HasFailure())
            break;
    }
    std::cout << "[ sweep    ] " << name << ": " << counts.operations << " changing operations, " << counts.crashes
              << " crashes, " << counts.bricksVerified << " bricks verified" << std::endl;
    return counts;
}

P<IFileSystem> memoryFileSystem()
{
    return P<IFileSystem>(new zo::CMemoryFileSystem(2));
}

// Old content: data in most bricks, a few never written.
const View kOld = makeView("dd.ddd.dd.dd", 1);
// The new content: whole bricks replaced ('n'), partly changed ('p'),
// cleared ('z'), and data where there was none.
const View kNew = changeView(kOld, "npz.pnz.npnz", 50);

Scenario importIntoDiskWithSnapshot()
{
    Scenario scenario;
    scenario.setUp = [](IFileSystem* fs) {
        testsupport::createDisk(fs, CURI("/disk"), kDiskSize, kPassword);
        storeView(fs, CURI("/disk"), makeView("............", 0), kOld, false);
        CBrickDisk::createChild(fs, CURI("/snapshot"), CURI("/disk"), CBrickDisk::linkedChild);
    };
    scenario.work = [](IFileSystem* fs) { storeView(fs, CURI("/disk"), kOld, kNew, false); };
    scenario.verify = [](IFileSystem* fs, const std::string& context) {
        return expectView(fs, "/snapshot", kOld, context) + expectOldOrNew(fs, "/disk", kOld, kNew, context);
    };
    return scenario;
}

Scenario clearBricksOfDiskWithSnapshot()
{
    const View cleared = changeView(kOld, "zz.zpz.zz.zz", 70);
    Scenario scenario = importIntoDiskWithSnapshot();
    scenario.work = [cleared](IFileSystem* fs) { storeView(fs, CURI("/disk"), kOld, cleared, false); };
    scenario.verify = [cleared](IFileSystem* fs, const std::string& context) {
        return expectView(fs, "/snapshot", kOld, context) + expectOldOrNew(fs, "/disk", kOld, cleared, context);
    };
    return scenario;
}

// parent <- middle <- child: the middle disk is written while the parent
// holds bricks that the middle one lacks, and the child keeps the middle
// disk's old view.
const View kParent = makeView("dddddd.ddd..", 200);
const View kMiddle = changeView(kParent, "n.p...n..n..", 300);
const View kMiddleNew = changeView(kMiddle, "pnnzz.nn.npn", 400);

Scenario writeMiddleDiskOfChain()
{
    Scenario scenario;
    scenario.setUp = [](IFileSystem* fs) {
        testsupport::createDisk(fs, CURI("/parent"), kDiskSize, kPassword);
        storeView(fs, CURI("/parent"), makeView("............", 0), kParent, false);
        CBrickDisk::createChild(fs, CURI("/middle"), CURI("/parent"), CBrickDisk::linkedChild);
        storeView(fs, CURI("/middle"), kParent, kMiddle, true);
        CBrickDisk::createChild(fs, CURI("/child"), CURI("/middle"), CBrickDisk::linkedChild);
    };
    scenario.work = [](IFileSystem* fs) { storeView(fs, CURI("/middle"), kMiddle, kMiddleNew, true); };
    scenario.verify = [](IFileSystem* fs, const std::string& context) {
        return expectView(fs, "/parent", kParent, context) + expectView(fs, "/child", kMiddle, context) +
            expectOldOrNew(fs, "/middle", kMiddle, kMiddleNew, context);
    };
    return scenario;
}

// A snapshot taken of a disk that already has one: the new snapshot goes
// between the disk and the older one.
// The formats that the snapshot and removal sweeps run in: links of the
// authenticated format are tied under the disk key.
enum class Format { PBKDF2, Authenticated };

void createTopDisk(IFileSystem* fs, const char* folder, Format format)
{
    if (format == Format::Authenticated)
        CBrickDisk::createAuthenticated(fs, CURI(folder), kDiskSize, 1, kPassword, "lz4", kBrickSize, kTestKdfCost);
    else
        testsupport::createDisk(fs, CURI(folder), kDiskSize, kPassword);
}

void makeSnapshot(IFileSystem* fs, const char* child, const char* parent)
{
    testsupport::createLinkedChild(fs, CURI(child), CURI(parent), kPassword);
}

// Removes the disk in `folder` from the chain of "/disk", with its key.
void removeFromChain(IFileSystem* fs, const char* folder)
{
    brick::CBrickDiskRemover::remove(fs, CURI(folder), testsupport::diskKey(fs, CURI("/disk"), kPassword));
}

Scenario makeChildOfDiskWithSnapshot(Format format)
{
    Scenario scenario;
    scenario.setUp = [format](IFileSystem* fs) {
        createTopDisk(fs, "/disk", format);
        storeView(fs, CURI("/disk"), makeView("............", 0), kOld, false);
        makeSnapshot(fs, "/older", "/disk");
        storeView(fs, CURI("/disk"), kOld, kNew, false);
    };
    scenario.work = [](IFileSystem* fs) { makeSnapshot(fs, "/newer", "/disk"); };
    scenario.verify = [](IFileSystem* fs, const std::string& context) {
        int bricks = expectView(fs, "/disk", kNew, context) + expectView(fs, "/older", kOld, context);
        // A snapshot cut short is refused; one that is not marked shows the
        // disk as it was when it was made.
        if (isWholeDisk(fs, "/newer"))
            bricks += expectView(fs, "/newer", kNew, context);
        else
            expectRefused(fs, "/newer", brick::CBrickDiskError::UnfinishedSnapshot, context);
        // Making it again finishes it (or makes it from the start).
        if (!isWholeDisk(fs, "/newer"))
            makeSnapshot(fs, "/newer", "/disk");
        bricks += expectView(fs, "/newer", kNew, context + " and making the snapshot again");
        // Later writes of the disk keep both snapshots.
        const View later = changeView(kNew, "nnnnnnnnnnnn", 500);
        storeView(fs, CURI("/disk"), kNew, later, false);
        bricks += expectView(fs, "/older", kOld, context + " and a later write of the disk");
        bricks += expectView(fs, "/newer", kNew, context + " and a later write of the disk");
        return bricks;
    };
    return scenario;
}

// The same snapshot cut short, removed instead of finished.
Scenario removeUnfinishedChild(Format format)
{
    Scenario scenario = makeChildOfDiskWithSnapshot(format);
    scenario.verify = [](IFileSystem* fs, const std::string& context) {
        int bricks = expectView(fs, "/disk", kNew, context) + expectView(fs, "/older", kOld, context);
        if (fs->folderExists(CURI("/newer")) && !testsupport::filesBelow(fs, CURI("/newer")).empty())
            removeFromChain(fs, "/newer");
        EXPECT_TRUE(!fs->folderExists(CURI("/newer")) || testsupport::filesBelow(fs, CURI("/newer")).empty())
            << context;
        bricks += expectView(fs, "/older", kOld, context + " and removing the snapshot");
        const View later = changeView(kNew, "nnnnnnnnnnnn", 500);
        storeView(fs, CURI("/disk"), kNew, later, false);
        bricks += expectView(fs, "/older", kOld, context + " and a later write of the disk");
        bricks += expectView(fs, "/disk", later, context + " and a later write of the disk");
        return bricks;
    };
    return scenario;
}

// check --repair and passwd rewrite headers whose fallback copy is damaged
// or gone: the primary copy is the only intact one until the end.
void damageFallbackHeader(IFileSystem* fs, const char* folder)
{
    const CURI fallback = brick::CBrickDiskHeader::getHeaderURI(CURI(folder), 1);
    const P<IIOStream> stream = fs->openStream(fallback, IIOStream::AccessReadWrite, IIOStream::OptionNone);
    const Bytes junk = testsupport::patternBytes(8, 9);
    stream->seek(4);
    stream->write(junk.getData(), junk.getUsed());
}

void removeFallbackHeader(IFileSystem* fs, const char* folder)
{
    fs->deleteFile(brick::CBrickDiskHeader::getHeaderURI(CURI(folder), 1), false);
}

Scenario repairHeadersWithOnlyThePrimaryIntact()
{
    Scenario scenario;
    scenario.setUp = [](IFileSystem* fs) {
        testsupport::createDisk(fs, CURI("/disk"), kDiskSize, kPassword);
        storeView(fs, CURI("/disk"), makeView("............", 0), kOld, false);
        CBrickDisk::createChild(fs, CURI("/snapshot"), CURI("/disk"), CBrickDisk::linkedChild);
        storeView(fs, CURI("/disk"), kOld, kNew, false);
        damageFallbackHeader(fs, "/disk");
        removeFallbackHeader(fs, "/snapshot");
    };
    // What check --repair does with a header that has one intact copy.
    scenario.work = [](IFileSystem* fs) {
        for (const char* folder : {"/disk", "/snapshot"}) {
            brick::CBrickDiskHeader header;
            header.load(fs, CURI(folder));
            header.store(fs, CURI(folder));
        }
    };
    scenario.verify = [](IFileSystem* fs, const std::string& context) {
        return expectView(fs, "/disk", kNew, context) + expectView(fs, "/snapshot", kOld, context);
    };
    return scenario;
}

const char* const kChangedPassword = "changed";

// Every brick of `folder` equals `expected`, the disk opened with the old or
// the new password.
int expectViewWithEitherPassword(IFileSystem* fs, const char* folder, const View& expected, const std::string& context)
{
    const bool old = CBrickDisk::isEncryptPasswordCorrect(fs, CURI(folder), kPassword, nullptr);
    const View actual = readViewWith(fs, CURI(folder), old ? kPassword : kChangedPassword);
    for (int i = 0; i < kBrickCount; ++i)
        EXPECT_TRUE(actual[static_cast<size_t>(i)] == expected[static_cast<size_t>(i)])
            << folder << " brick " << i << " changed after " << context;
    return kBrickCount;
}

Scenario changePasswordWithOnlyThePrimaryIntact()
{
    Scenario scenario;
    scenario.setUp = [](IFileSystem* fs) {
        CBrickDisk::createAuthenticated(fs, CURI("/disk"), kDiskSize, 1, kPassword, "lz4", kBrickSize, kTestKdfCost);
        storeView(fs, CURI("/disk"), makeView("............", 0), kOld, false);
        testsupport::createLinkedChild(fs, CURI("/snapshot"), CURI("/disk"), kPassword);
        storeView(fs, CURI("/disk"), kOld, kNew, false);
        removeFallbackHeader(fs, "/disk");
        damageFallbackHeader(fs, "/snapshot");
    };
    scenario.work = [](IFileSystem* fs) {
        brick::CBrickDiskKeyWrap::changePassword(fs, {CURI("/disk"), CURI("/snapshot")}, kPassword, kChangedPassword,
                                                 kTestKdfCost);
    };
    scenario.verify = [](IFileSystem* fs, const std::string& context) {
        return expectViewWithEitherPassword(fs, "/disk", kNew, context) +
            expectViewWithEitherPassword(fs, "/snapshot", kOld, context);
    };
    return scenario;
}

// disk <- newer <- older: the middle snapshot is removed; the disk and the
// older snapshot must read exactly as before at every step, and the middle
// one too until its removal is decided (the disk's child link leaves it).
const View kNewer = changeView(kOld, "nn.p.zn.....", 600);
const View kDiskNow = changeView(kNewer, "p.n.n.zp.nn.", 700);

Scenario removeMiddleSnapshot(Format format)
{
    Scenario scenario;
    scenario.setUp = [format](IFileSystem* fs) {
        createTopDisk(fs, "/disk", format);
        storeView(fs, CURI("/disk"), makeView("............", 0), kOld, false);
        makeSnapshot(fs, "/older", "/disk");
        storeView(fs, CURI("/disk"), kOld, kNewer, false);
        makeSnapshot(fs, "/newer", "/disk");
        storeView(fs, CURI("/disk"), kNewer, kDiskNow, false);
    };
    scenario.work = [](IFileSystem* fs) { removeFromChain(fs, "/newer"); };
    scenario.verify = [](IFileSystem* fs, const std::string& context) {
        int bricks = expectView(fs, "/disk", kDiskNow, context) + expectView(fs, "/older", kOld, context);
        const bool decided =
            brick::CBrickDiskChain::loadLinkedFolder(fs, CURI("/disk"), CBrickDisk::getChildLinkFileName())
                .toString(true) != "/newer";
        // Until it is marked it reads as before; once the disk stops keeping
        // its view it is refused, never read with part of its content.
        if (isWholeDisk(fs, "/newer")) {
            EXPECT_FALSE(decided) << context;
            bricks += expectView(fs, "/newer", kNewer, context);
        } else {
            expectRefused(fs, "/newer", brick::CBrickDiskError::UnfinishedRemoval, context);
        }
        // Removing it again finishes the work, and later writes of the disk
        // keep preserving the older snapshot.
        if (!testsupport::filesBelow(fs, CURI("/newer")).empty())
            removeFromChain(fs, "/newer");
        EXPECT_TRUE(testsupport::filesBelow(fs, CURI("/newer")).empty()) << context;
        bricks += expectView(fs, "/older", kOld, context + " and finishing the removal");
        storeView(fs, CURI("/disk"), kDiskNow, kNew, false);
        bricks += expectView(fs, "/older", kOld, context + " and a later write of the disk");
        return bricks;
    };
    return scenario;
}

// The oldest snapshot, at the end of the chain, is removed.
Scenario removeOldestSnapshot(Format format)
{
    Scenario scenario = removeMiddleSnapshot(format);
    scenario.work = [](IFileSystem* fs) { removeFromChain(fs, "/older"); };
    scenario.verify = [](IFileSystem* fs, const std::string& context) {
        int bricks = expectView(fs, "/disk", kDiskNow, context) + expectView(fs, "/newer", kNewer, context);
        if (isWholeDisk(fs, "/older")) {
            EXPECT_EQ(brick::CBrickDiskChain::loadLinkedFolder(fs, CURI("/newer"), CBrickDisk::getChildLinkFileName())
                          .toString(true),
                      "/older")
                << context;
            bricks += expectView(fs, "/older", kOld, context);
        } else {
            expectRefused(fs, "/older", brick::CBrickDiskError::UnfinishedRemoval, context);
        }
        return bricks;
    };
    return scenario;
}

TEST(CrashSweep, RemovingTheMiddleSnapshotKeepsEveryOtherDiskIntact)
{
    sweep("removing the middle snapshot of a chain", memoryFileSystem, removeMiddleSnapshot(Format::PBKDF2));
    sweep("removing the middle snapshot of an authenticated chain", memoryFileSystem,
          removeMiddleSnapshot(Format::Authenticated));
}

TEST(CrashSweep, RemovingTheOldestSnapshotKeepsEveryOtherDiskIntact)
{
    sweep("removing the oldest snapshot of a chain", memoryFileSystem, removeOldestSnapshot(Format::PBKDF2));
    sweep("removing the oldest snapshot of an authenticated chain", memoryFileSystem,
          removeOldestSnapshot(Format::Authenticated));
}

TEST(CrashSweep, ARemovalStoppedAtACheckpointLeavesTheChainAsItWas)
{
    const P<IFileSystem> fs = memoryFileSystem();
    removeMiddleSnapshot(Format::PBKDF2).setUp(fs.get());
    struct Stop {};
    int calls = 0;
    EXPECT_THROW(brick::CBrickDiskRemover::remove(fs.get(), CURI("/newer"),
                                                  [&calls] {
                                                      if (++calls == 3)
                                                          throw Stop();
                                                  }),
                 Stop);
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(brick::CBrickDiskChain::loadLinkedFolder(fs.get(), CURI("/disk"), CBrickDisk::getChildLinkFileName()),
              CURI("/newer"));
    expectView(fs.get(), "/disk", kDiskNow, "a stopped removal");
    expectView(fs.get(), "/newer", kNewer, "a stopped removal");
    expectView(fs.get(), "/older", kOld, "a stopped removal");
    // Asked again without a stop, the removal goes through.
    brick::CBrickDiskRemover::remove(fs.get(), CURI("/newer"));
    EXPECT_TRUE(testsupport::filesBelow(fs.get(), CURI("/newer")).empty());
    expectView(fs.get(), "/older", kOld, "the removal finished later");
}

TEST(CrashSweep, ImportIntoADiskWithASnapshotLeavesEveryBrickOldOrNewAndTheSnapshotIntact)
{
    const SweepCounts counts =
        sweep("import into a disk with a snapshot", memoryFileSystem, importIntoDiskWithSnapshot());
    EXPECT_EQ(counts.crashes, testsupport::sweepCuts(counts.operations));
}

TEST(CrashSweep, APowerCutDuringAnImportIntoADiskWithASnapshotLeavesEveryBrickOldOrNewAndTheSnapshotIntact)
{
    const SweepCounts counts = sweep("power cut in an import into a disk with a snapshot", memoryFileSystem,
                                     importIntoDiskWithSnapshot(), Stop::PowerLosingEverything);
    EXPECT_EQ(counts.crashes, testsupport::sweepCuts(counts.operations));
    sweep("power cut losing new folders in an import into a disk with a snapshot", memoryFileSystem,
          importIntoDiskWithSnapshot(), Stop::PowerLosingNewFolders);
}

TEST(CrashSweep, APowerCutWhileClearingBricksOfADiskWithASnapshotLeavesEveryBrickOldOrNew)
{
    sweep("power cut while clearing bricks of a disk with a snapshot", memoryFileSystem,
          clearBricksOfDiskWithSnapshot(), Stop::PowerLosingEverything);
    sweep("power cut losing new folders while clearing bricks of a disk with a snapshot", memoryFileSystem,
          clearBricksOfDiskWithSnapshot(), Stop::PowerLosingNewFolders);
}

TEST(CrashSweep, APowerCutWhileWritingTheMiddleDiskOfAChainKeepsTheParentAndTheChildIntact)
{
    sweep("power cut while writing the middle disk of a chain", memoryFileSystem, writeMiddleDiskOfChain(),
          Stop::PowerLosingEverything);
    sweep("power cut losing new folders while writing the middle disk of a chain", memoryFileSystem,
          writeMiddleDiskOfChain(), Stop::PowerLosingNewFolders);
}

TEST(CrashSweep, APowerCutAfterAFlushLosesNoBrick)
{
    const P<IFileSystem> fs = memoryFileSystem();
    importIntoDiskWithSnapshot().setUp(fs.get());
    const P<testsupport::PowerCutFileSystem> power(new testsupport::PowerCutFileSystem(fs.get()));
    const P<CBrickDisk> disk =
        testsupport::openDisk(power.get(), CURI("/disk"), kPassword, IIOStream::AccessReadWrite, 4);
    writeView(*disk, kOld, kNew);
    disk->flushChanges();
    EXPECT_EQ(power->getUnsyncedChangeCount(), 0);
    power->cutPower(testsupport::PowerCutFileSystem::Loss::Everything);
    expectView(fs.get(), "/disk", kNew, "a power cut after a flush");
    expectView(fs.get(), "/snapshot", kOld, "a power cut after a flush");
}

TEST(CrashSweep, APowerCutAfterAFlushOfTheBlockDeviceLosesNoBrick)
{
    const P<IFileSystem> fs = memoryFileSystem();
    importIntoDiskWithSnapshot().setUp(fs.get());
    const P<testsupport::PowerCutFileSystem> power(new testsupport::PowerCutFileSystem(fs.get()));
    const P<CBrickDisk> disk =
        testsupport::openDisk(power.get(), CURI("/disk"), kPassword, IIOStream::AccessReadWrite, 4);
    const P<brick::CBrickDiskBlockDevice> device(new brick::CBrickDiskBlockDevice(disk.get(), 0));
    for (int i = 0; i < kBrickCount; ++i) {
        const Bytes& brick = kNew[static_cast<size_t>(i)];
        device->write(brick.getData(), static_cast<zo::int64>(i) * kBrickSize, brick.getUsed());
    }
    device->flush();
    EXPECT_EQ(power->getUnsyncedChangeCount(), 0);
    power->cutPower(testsupport::PowerCutFileSystem::Loss::Everything);
    expectView(fs.get(), "/disk", kNew, "a power cut after a flush of the block device");
    expectView(fs.get(), "/snapshot", kOld, "a power cut after a flush of the block device");
}

TEST(CrashSweep, ClearingBricksOfADiskWithASnapshotLeavesEveryBrickOldOrNew)
{
    sweep("clearing bricks of a disk with a snapshot", memoryFileSystem, clearBricksOfDiskWithSnapshot());
}

TEST(CrashSweep, WritingTheMiddleDiskOfAChainKeepsTheParentAndTheChildIntact)
{
    sweep("writing the middle disk of a chain", memoryFileSystem, writeMiddleDiskOfChain());
}

TEST(CrashSweep, MakingASnapshotCutShortIsRefusedAndFinishedByMakingItAgain)
{
    sweep("making a child of a disk with a snapshot", memoryFileSystem, makeChildOfDiskWithSnapshot(Format::PBKDF2));
    sweep("making a child of an authenticated disk with a snapshot", memoryFileSystem,
          makeChildOfDiskWithSnapshot(Format::Authenticated));
}

TEST(CrashSweep, MakingASnapshotCutShortIsRefusedAndRemovedByRemovingIt)
{
    sweep("removing a snapshot whose making was cut short", memoryFileSystem, removeUnfinishedChild(Format::PBKDF2));
    sweep("removing an authenticated snapshot whose making was cut short", memoryFileSystem,
          removeUnfinishedChild(Format::Authenticated));
}

TEST(CrashSweep, RepairingHeadersWhoseOnlyIntactCopyIsThePrimaryKeepsEveryDiskReadable)
{
    sweep("rewriting headers from their only intact copy", memoryFileSystem, repairHeadersWithOnlyThePrimaryIntact());
}

TEST(CrashSweep, ChangingThePasswordOfDisksWithOneIntactHeaderCopyKeepsEveryDiskReadable)
{
    sweep("changing the password of disks with one intact header copy", memoryFileSystem,
          changePasswordWithOnlyThePrimaryIntact());
}

TEST(CrashSweep, ImportIntoADiskWithASnapshotOnTheLocalFileSystem)
{
    // What the folders hold after a stop of the process is what happened
    // before it (the folder syncs that the local file system leaves for its
    // batch matter only when the machine stops too).
    std::vector<std::unique_ptr<testsupport::TempFolder>> folders;
    const auto makeFileSystem = [&folders]() {
        folders.push_back(std::make_unique<testsupport::TempFolder>());
        return P<IFileSystem>(new zo::CLocalFileSystem(2));
    };
    // The scenario's absolute paths are placed in the newest folder.
    Scenario local;
    const auto root = [&folders](const char* name) { return folders.back()->uri() << name; };
    local.setUp = [&](IFileSystem* fs) {
        testsupport::createDisk(fs, root("disk"), kDiskSize, kPassword);
        storeView(fs, root("disk"), makeView("............", 0), kOld, false);
        CBrickDisk::createChild(fs, root("snapshot"), root("disk"), CBrickDisk::linkedChild);
    };
    local.work = [&](IFileSystem* fs) { storeView(fs, root("disk"), kOld, kNew, false); };
    local.verify = [&](IFileSystem* fs, const std::string& context) {
        const View snapshot = readView(fs, root("snapshot"));
        const View disk = readView(fs, root("disk"));
        for (int i = 0; i < kBrickCount; ++i) {
            EXPECT_TRUE(snapshot[static_cast<size_t>(i)] == kOld[static_cast<size_t>(i)])
                << "snapshot brick " << i << " after " << context;
            EXPECT_TRUE(disk[static_cast<size_t>(i)] == kOld[static_cast<size_t>(i)] ||
                        disk[static_cast<size_t>(i)] == kNew[static_cast<size_t>(i)])
                << "disk brick " << i << " after " << context;
        }
        EXPECT_EQ(fs->removeTemporaryFiles(folders.back()->uri()), 0) << context;
        return 2 * kBrickCount;
    };
    sweep("import into a disk with a snapshot, local files", makeFileSystem, local);
}

} // namespace
