// The brickdisk program on disks in the Ceph test cluster: the main job
// (import, snapshot, re-import, export of both, check with data), imports
// killed at random moments, and the errors of a wrong pool and a wrong
// user's key.
#include "../RadosTestCluster.h"
#include "CliTestFixture.h"

#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>

namespace {

using clitest::RunResult;
using clitest::readFile;
using clitest::writeFile;

class CephCommandsTest : public clitest::CliTest {
protected:
    void TearDown() override { testsupport::removeRadosFolder(zo::CURI(zo::String::fromUTF8(folder))); }

    // Runs the program, with the password file when `withPassword`, and
    // expects success.
    RunResult runOk(const std::vector<std::string>& args, bool withPassword = true) const
    {
        const RunResult result = withPassword ? runWithPassword(args) : clitest::run(args);
        EXPECT_EQ(result.exitStatus, 0) << result.err;
        return result;
    }

    std::string folder = testsupport::uniqueRadosFolder("cli").toString(true).toUTF8();
    std::string disk = folder + "/disk";
    std::string snapshot = folder + "/snapshot";
};

TEST_F(CephCommandsTest, MainJobOnACephDiskGivesBothVersionsBackByteForByte)
{
    const std::string first = clitest::makeImage(3 * 1024 * 1024 + 12345, 11);
    std::string second = first;
    for (size_t at = 100000; at < second.size(); at += 700000)
        second.replace(at, 5000, std::string(5000, 'x'));
    writeFile(path("v1.img"), first);
    writeFile(path("v2.img"), second);

    runOk({"create", disk, "--size", std::to_string(first.size()), "--brick-size", "64K"});
    runOk({"import", disk, path("v1.img")});
    runOk({"snapshot", disk, snapshot}, false);
    runOk({"import", disk, path("v2.img")});
    runOk({"export", disk, path("v2.exported")});
    runOk({"export", snapshot, path("v1.exported")});
    EXPECT_TRUE(readFile(path("v2.exported")) == second);
    EXPECT_TRUE(readFile(path("v1.exported")) == first);
    runOk({"check", disk, "--read-data"});
    runOk({"check", snapshot, "--read-data"});
    const RunResult info = runOk({"info", snapshot}, false);
    EXPECT_NE(info.out.find(disk), std::string::npos) << info.out;
}

TEST_F(CephCommandsTest, ImportKilledAtRandomMomentsLeavesEveryBrickOldOrNewAndTheSnapshotExact)
{
    // A killed import's lock keeps others out for its lease: a short one here.
    const std::vector<std::string> lease{"--ceph-lock-lease", "1"};
    const size_t size = 2 * 1024 * 1024;
    const std::string old = clitest::makeImage(size, 31);
    std::string fresh = clitest::makeImage(size, 32);
    for (size_t at = 0; at < size; at += 5 * kBrickSize)
        fresh.replace(at, kBrickSize, std::string(kBrickSize, '\0'));
    writeFile(path("old"), old);
    writeFile(path("fresh"), fresh);
    runOk({"create", disk, "--size", std::to_string(size), "--brick-size", "64K"});
    runOk({"import", disk, path("old")});
    runOk({"snapshot", disk, snapshot}, false);

    std::mt19937 random(2026);
    for (int round = 0; round < 6 && !HasFailure(); ++round) {
        const std::string context = "kill " + std::to_string(round + 1);
        {
            std::vector<std::string> args = lease;
            args.insert(args.end(), {"import", disk, "-", "--password-file", path("pw")});
            clitest::RunningProgram import(args, clitest::RunOptions{});
            const size_t pieces = 1 + random() % 8;
            for (size_t piece = 0; piece < pieces; ++piece)
                import.feed(fresh.substr(piece * size / 8, size / 8));
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 100));
            import.kill();
            import.wait();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        runOk({"check", disk, "--read-data"});
        runOk({"check", snapshot, "--read-data"});
        runOk({"export", snapshot, path("snapshot.img"), "--force"});
        EXPECT_TRUE(readFile(path("snapshot.img")) == old) << context;
        runOk({"export", disk, path("disk.img"), "--force"});
        const std::string exported = readFile(path("disk.img"));
        ASSERT_EQ(exported.size(), size) << context;
        for (size_t at = 0; at < size; at += kBrickSize) {
            const std::string brick = exported.substr(at, kBrickSize);
            EXPECT_TRUE(brick == old.substr(at, kBrickSize) || brick == fresh.substr(at, kBrickSize))
                << context << ": the brick at " << at << " holds neither its old nor its new content";
        }
    }
    runOk({"import", disk, path("fresh")});
    runOk({"export", disk, path("disk.img"), "--force"});
    EXPECT_TRUE(readFile(path("disk.img")) == fresh);
}

TEST_F(CephCommandsTest, ASecondImportIsRefusedWhileTheFirstHoldsTheDisk)
{
    const std::string image = clitest::makeImage(2 * 1024 * 1024, 41);
    writeFile(path("image"), image);
    runOk({"create", disk, "--size", std::to_string(image.size()), "--brick-size", "64K"});
    clitest::RunningProgram first({"import", disk, "-", "--password-file", path("pw")}, clitest::RunOptions{});
    first.feed(image.substr(0, image.size() / 2));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const RunResult refused = runWithPassword({"import", disk, path("image")});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_NE(refused.err.find("The disk is in use by another process."), std::string::npos) << refused.err;
    first.feed(image.substr(image.size() / 2));
    first.closeInput();
    EXPECT_EQ(first.wait().exitStatus, 0);
    runOk({"export", disk, path("exported")});
    EXPECT_TRUE(readFile(path("exported")) == image);
}

TEST_F(CephCommandsTest, AMissingPoolIsReportedWithItsName)
{
    const RunResult result = runWithPassword({"create", "rados://no-such-pool/disk", "--size", "1M"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("no-such-pool"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("No such file or directory"), std::string::npos) << result.err;
}

TEST_F(CephCommandsTest, AWrongKeyIsRefusedWithAClearError)
{
    const std::string conf = readFile(std::getenv("CEPH_CONF"));
    writeFile(path("keyring"), "[client.admin]\n\tkey = AQBLAAAAAAAAABAAm8uF6mJZ3PX9vWg0rUbj3A==\n");
    std::string wrongConf = conf;
    const size_t keyring = wrongConf.find("keyring = ");
    ASSERT_NE(keyring, std::string::npos);
    wrongConf.replace(keyring, wrongConf.find('\n', keyring) - keyring, "keyring = " + path("keyring"));
    writeFile(path("ceph.conf"), wrongConf);

    // The key comes from the configuration's keyring only when CEPH_KEYRING
    // names none.
    const std::string keyringVariable = std::getenv("CEPH_KEYRING") ? std::getenv("CEPH_KEYRING") : "";
    ::unsetenv("CEPH_KEYRING");
    const RunResult result = runWithPassword({"--ceph-conf", path("ceph.conf"), "create", disk, "--size", "1M"});
    if (!keyringVariable.empty())
        ::setenv("CEPH_KEYRING", keyringVariable.c_str(), 1);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("connect to the Ceph cluster failed: Permission denied"), std::string::npos) << result.err;
}

TEST_F(CephCommandsTest, AChildOnAnotherKindOfFolderIsAUsageError)
{
    runOk({"create", disk, "--size", "1M", "--brick-size", "64K"});
    const RunResult result = runWithPassword({"snapshot", disk, path("local-snapshot")});
    EXPECT_EQ(result.exitStatus, 2) << result.err;
}

} // namespace
