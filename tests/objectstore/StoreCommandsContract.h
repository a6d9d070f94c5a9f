// The brickdisk program on disks in an object store, as every store must
// serve it: the main job (import, snapshot, re-import, export of both, check
// with data), imports killed at random moments, a second import refused while
// the first holds the disk, a child in another kind of folder refused, and
// chains copied into the store and back.
//
// A test program includes this once, defines a type with
// `static zo::CURI uniqueFolder(const std::string& label)`,
// `static void removeFolder(const zo::CURI& folder)`,
// `static void prepareEnvironment()` (what the program needs to find the
// store) and `static constexpr const char* kLockLeaseOption` (the option that
// sets the disk lock's lease), instantiates the suite with it and writes its
// own tests on `StoreCommandsTest<Type>`.
#pragma once

#include "CliTestFixture.h"
#include "support/SweepRounds.h"

#include "zo/URI.h"

#include <chrono>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

template <class Store>
class StoreCommandsTest : public clitest::CliTest {
protected:
    void SetUp() override
    {
        clitest::CliTest::SetUp();
        Store::prepareEnvironment();
    }
    void TearDown() override { Store::removeFolder(zo::CURI(zo::String::fromUTF8(folder))); }

    // Runs the program, with the password file when `withPassword`, and
    // expects success.
    clitest::RunResult runOk(const std::vector<std::string>& args, bool withPassword = true) const
    {
        const clitest::RunResult result = withPassword ? runWithPassword(args) : clitest::run(args);
        EXPECT_EQ(result.exitStatus, 0) << result.err;
        return result;
    }

    std::string folder = Store::uniqueFolder("cli").toString(true).toUTF8();
    std::string disk = folder + "/disk";
    std::string snapshot = folder + "/snapshot";
};

template <class Store>
class StoreCommandsContractTest : public StoreCommandsTest<Store> {};

TYPED_TEST_SUITE_P(StoreCommandsContractTest);

TYPED_TEST_P(StoreCommandsContractTest, MainJobGivesBothVersionsBackByteForByte)
{
    const std::string first = clitest::makeImage(3 * 1024 * 1024 + 12345, 11);
    std::string second = first;
    for (size_t at = 100000; at < second.size(); at += 700000)
        second.replace(at, 5000, std::string(5000, 'x'));
    clitest::writeFile(this->path("v1.img"), first);
    clitest::writeFile(this->path("v2.img"), second);

    const std::string& disk = this->disk;
    const std::string& snapshot = this->snapshot;
    this->runOk({"create", disk, "--size", std::to_string(first.size()), "--brick-size", "64K"});
    this->runOk({"import", disk, this->path("v1.img")});
    this->runOk({"snapshot", disk, snapshot});
    this->runOk({"import", disk, this->path("v2.img")});
    this->runOk({"export", disk, this->path("v2.exported")});
    this->runOk({"export", snapshot, this->path("v1.exported")});
    EXPECT_TRUE(clitest::readFile(this->path("v2.exported")) == second);
    EXPECT_TRUE(clitest::readFile(this->path("v1.exported")) == first);
    this->runOk({"check", disk, "--read-data"});
    this->runOk({"check", snapshot, "--read-data"});
    const clitest::RunResult info = this->runOk({"info", snapshot}, false);
    EXPECT_NE(info.out.find(disk), std::string::npos) << info.out;
}

TYPED_TEST_P(StoreCommandsContractTest, ImportKilledAtRandomMomentsLeavesEveryBrickOldOrNewAndTheSnapshotExact)
{
    constexpr size_t kBrickSize = clitest::CliTest::kBrickSize;
    const std::string& disk = this->disk;
    const std::string& snapshot = this->snapshot;
    // A killed import's lock keeps others out for its lease: a short one here.
    const std::vector<std::string> lease{TypeParam::kLockLeaseOption, "1"};
    const size_t size = 2 * 1024 * 1024;
    const std::string old = clitest::makeImage(size, 31);
    std::string fresh = clitest::makeImage(size, 32);
    for (size_t at = 0; at < size; at += 5 * kBrickSize)
        fresh.replace(at, kBrickSize, std::string(kBrickSize, '\0'));
    clitest::writeFile(this->path("old"), old);
    clitest::writeFile(this->path("fresh"), fresh);
    this->runOk({"create", disk, "--size", std::to_string(size), "--brick-size", "64K"});
    this->runOk({"import", disk, this->path("old")});
    this->runOk({"snapshot", disk, snapshot});

    std::mt19937 random(2026);
    for (int round = 0; round < testsupport::sweepRounds(5) && !this->HasFailure(); ++round) {
        const std::string context = "kill " + std::to_string(round + 1);
        {
            std::vector<std::string> args = lease;
            args.insert(args.end(), {"import", disk, "-", "--password-file", this->path("pw")});
            clitest::RunningProgram import(args, clitest::RunOptions{});
            const size_t pieces = 1 + random() % 8;
            for (size_t piece = 0; piece < pieces; ++piece)
                import.feed(fresh.substr(piece * size / 8, size / 8));
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 100));
            import.kill();
            import.wait();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        this->runOk({"check", disk, "--read-data"});
        this->runOk({"check", snapshot, "--read-data"});
        this->runOk({"export", snapshot, this->path("snapshot.img"), "--force"});
        EXPECT_TRUE(clitest::readFile(this->path("snapshot.img")) == old) << context;
        this->runOk({"export", disk, this->path("disk.img"), "--force"});
        const std::string exported = clitest::readFile(this->path("disk.img"));
        ASSERT_EQ(exported.size(), size) << context;
        for (size_t at = 0; at < size; at += kBrickSize) {
            const std::string brick = exported.substr(at, kBrickSize);
            EXPECT_TRUE(brick == old.substr(at, kBrickSize) || brick == fresh.substr(at, kBrickSize))
                << context << ": the brick at " << at << " holds neither its old nor its new content";
        }
    }
    this->runOk({"import", disk, this->path("fresh")});
    this->runOk({"export", disk, this->path("disk.img"), "--force"});
    EXPECT_TRUE(clitest::readFile(this->path("disk.img")) == fresh);
}

TYPED_TEST_P(StoreCommandsContractTest, ASecondImportIsRefusedWhileTheFirstHoldsTheDisk)
{
    const std::string& disk = this->disk;
    const std::string image = clitest::makeImage(2 * 1024 * 1024, 41);
    clitest::writeFile(this->path("image"), image);
    this->runOk({"create", disk, "--size", std::to_string(image.size()), "--brick-size", "64K"});
    clitest::RunningProgram first({"import", disk, "-", "--password-file", this->path("pw")}, clitest::RunOptions{});
    first.feed(image.substr(0, image.size() / 2));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const clitest::RunResult refused = this->runWithPassword({"import", disk, this->path("image")});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_NE(refused.err.find("The disk is in use by another process."), std::string::npos) << refused.err;
    first.feed(image.substr(image.size() / 2));
    first.closeInput();
    EXPECT_EQ(first.wait().exitStatus, 0);
    this->runOk({"export", disk, this->path("exported")});
    EXPECT_TRUE(clitest::readFile(this->path("exported")) == image);
}

TYPED_TEST_P(StoreCommandsContractTest, AChildOnAnotherKindOfFolderIsAUsageError)
{
    this->runOk({"create", this->disk, "--size", "1M", "--brick-size", "64K"});
    const clitest::RunResult result = this->runWithPassword({"snapshot", this->disk, this->path("local-snapshot")});
    EXPECT_EQ(result.exitStatus, 2) << result.err;
}

TYPED_TEST_P(StoreCommandsContractTest, NewDisksGetFourMiBBricksUnlessAskedOtherwise)
{
    const clitest::RunResult created = this->runOk({"create", this->disk, "--size", "64M"});
    EXPECT_NE(created.out.find("in 16 bricks of 4.00 MiB"), std::string::npos) << created.out;
    const clitest::RunResult info = this->runOk({"info", this->disk, "--json"}, false);
    EXPECT_NE(info.out.find("\"brickSize\": 4194304"), std::string::npos) << info.out;

    const std::string other = this->folder + "/other";
    this->runOk({"create", other, "--size", "64M", "--brick-size", "512K"});
    EXPECT_NE(this->runOk({"info", other, "--json"}, false).out.find("\"brickSize\": 524288"), std::string::npos);
}

TYPED_TEST_P(StoreCommandsContractTest, NewDisksGetZstdLevelThreeUnlessAskedOtherwise)
{
    const clitest::RunResult created = this->runOk({"create", this->disk, "--size", "64M"});
    EXPECT_NE(created.out.find("compression zstd-3"), std::string::npos) << created.out;
    const clitest::RunResult info = this->runOk({"info", this->disk, "--json"}, false);
    EXPECT_NE(info.out.find("\"compression\": \"zstd-3\""), std::string::npos) << info.out;

    const std::string other = this->folder + "/other";
    this->runOk({"create", other, "--size", "64M", "--compression", "lz4"});
    EXPECT_NE(this->runOk({"info", other, "--json"}, false).out.find("\"compression\": \"lz4\""), std::string::npos);
}

// A chain copied from a local folder into the store and back, without the
// password: every disk reads like its source, and a second copy sends only
// what changed.
TYPED_TEST_P(StoreCommandsContractTest, CopyTakesAChainIntoTheStoreAndBack)
{
    const std::string first = clitest::makeImage(512 * 1024, 41);
    const std::string second = clitest::makeImage(512 * 1024, 42);
    clitest::writeFile(this->path("v1.img"), first);
    clitest::writeFile(this->path("v2.img"), second);
    const std::string local = this->path("local/disk");
    this->runOk({"create", local, "--size", std::to_string(first.size()), "--brick-size", "64K", "--kdf", "argon2id",
                 "--kdf-memory", "64K", "--kdf-passes", "1"});
    this->runOk({"import", local, this->path("v1.img")});
    // Next to the disk, as the store's snapshot is next to its disk.
    this->runOk({"snapshot", local, this->path("local/snapshot")});
    this->runOk({"import", local, this->path("v2.img")});

    const clitest::RunResult copied = this->runOk({"copy", local, this->disk, "--json", "--verify"}, false);
    EXPECT_NE(copied.out.find("\"verified\": true"), std::string::npos) << copied.out;
    this->runOk({"export", this->disk, this->path("v2.exported")});
    this->runOk({"export", this->snapshot, this->path("v1.exported")});
    EXPECT_TRUE(clitest::readFile(this->path("v2.exported")) == second);
    EXPECT_TRUE(clitest::readFile(this->path("v1.exported")) == first);
    this->runOk({"check", this->snapshot, "--read-data"});
    const clitest::RunResult again = this->runOk({"copy", local, this->disk, "--json"}, false);
    EXPECT_NE(again.out.find("\"filesSent\": 0,"), std::string::npos) << again.out;

    const std::string back = this->path("back/disk");
    this->runOk({"copy", this->disk, back}, false);
    this->runOk({"export", back, this->path("v2.back")});
    this->runOk({"export", this->path("back/snapshot"), this->path("v1.back")});
    EXPECT_TRUE(clitest::readFile(this->path("v2.back")) == second);
    EXPECT_TRUE(clitest::readFile(this->path("v1.back")) == first);
}

// A local chain of five snapshots copied into the store: every disk exports
// like its source; after one more import a second copy sends only the brick
// files that changed.
TYPED_TEST_P(StoreCommandsContractTest, CopyOfAChainOfFiveSnapshotsExportsExactlyAndSendsOnlyWhatChanged)
{
    constexpr size_t size = 1024 * 1024;
    constexpr size_t brickSize = clitest::CliTest::kBrickSize;
    const std::string local = this->path("local/disk");
    this->runOk({"create", local, "--size", std::to_string(size), "--brick-size", "64K", "--kdf", "argon2id",
                 "--kdf-memory", "64K", "--kdf-passes", "1"});
    std::string image = clitest::makeImage(size, 61);
    std::vector<std::string> disks{"disk"};
    for (int i = 1; i <= 6; ++i) {
        clitest::writeFile(this->path("image"), image);
        this->runOk({"import", local, this->path("image")});
        if (i == 6)
            break;
        // Next to the disk, as the store's snapshots are next to its disk.
        disks.push_back("s" + std::to_string(i));
        this->runOk({"snapshot", local, this->path("local/" + disks.back())});
        const std::string fresh = clitest::makeImage(size, 61 + static_cast<unsigned>(i));
        for (size_t at = static_cast<size_t>(i) * brickSize; at < size; at += 3 * brickSize)
            image.replace(at, brickSize, fresh.substr(at, brickSize));
    }

    this->runOk({"copy", local, this->disk, "--json"}, false);
    for (const std::string& name : disks) {
        this->runOk({"export", this->path("local/" + name), this->path("source.img"), "--force"});
        this->runOk({"export", this->folder + "/" + name, this->path("copy.img"), "--force"});
        EXPECT_TRUE(clitest::readFile(this->path("copy.img")) == clitest::readFile(this->path("source.img"))) << name;
    }

    // One more import that rewrites two bricks; the brick files it changes
    // (the top's, and the newest snapshot's copies of the old bricks) are
    // what a second copy sends.
    const auto localBrickFiles = [&] {
        std::map<std::string, std::string> files;
        for (const std::string& name : disks)
            for (const std::string& file : this->brickFiles("local/" + name))
                files[file] = clitest::readFile(file);
        return files;
    };
    const std::map<std::string, std::string> before = localBrickFiles();
    image.replace(0, 2 * brickSize, std::string(2 * brickSize, 'n'));
    clitest::writeFile(this->path("image"), image);
    this->runOk({"import", local, this->path("image")});
    size_t changed = 0;
    for (const auto& [file, bytes] : localBrickFiles())
        changed += before.count(file) == 0 || before.at(file) != bytes ? 1 : 0;
    ASSERT_GE(changed, 2u);
    const clitest::RunResult again = this->runOk({"copy", local, this->disk, "--json"}, false);
    EXPECT_NE(again.out.find("\"filesSent\": " + std::to_string(changed) + ","), std::string::npos) << again.out;
    this->runOk({"export", this->disk, this->path("copy.img"), "--force"});
    EXPECT_TRUE(clitest::readFile(this->path("copy.img")) == image);
    this->runOk({"export", this->folder + "/s5", this->path("copy.img"), "--force"});
    this->runOk({"export", this->path("local/s5"), this->path("source.img"), "--force"});
    EXPECT_TRUE(clitest::readFile(this->path("copy.img")) == clitest::readFile(this->path("source.img")));
}

REGISTER_TYPED_TEST_SUITE_P(StoreCommandsContractTest, MainJobGivesBothVersionsBackByteForByte,
                            ImportKilledAtRandomMomentsLeavesEveryBrickOldOrNewAndTheSnapshotExact,
                            ASecondImportIsRefusedWhileTheFirstHoldsTheDisk, AChildOnAnotherKindOfFolderIsAUsageError,
                            NewDisksGetFourMiBBricksUnlessAskedOtherwise, NewDisksGetZstdLevelThreeUnlessAskedOtherwise,
                            CopyTakesAChainIntoTheStoreAndBack,
                            CopyOfAChainOfFiveSnapshotsExportsExactlyAndSendsOnlyWhatChanged);

} // namespace
