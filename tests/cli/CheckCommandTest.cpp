#include "CliTestFixture.h"

#include "seal/Digest.h"

#include <cstring>
#include <filesystem>

namespace clitest {
namespace {

class CheckCommandTest : public CliTest {
protected:
    // A disk of 16 bricks, every one stored.
    void makeFullDisk()
    {
        createDisk("disk", "1M");
        writeFile(path("image"), std::string(1024 * 1024, 'c'));
        importImage("disk", "image");
        ASSERT_EQ(brickFiles("disk").size(), 16u);
    }
};

// Changes one byte of the encrypted part of a brick file and gives the file a
// matching outer digest (the disk's default, SHA-256) again, so that only
// decoding finds the damage.
void damageInsideOuterDigest(const std::string& file)
{
    std::string bytes = readFile(file);
    const zo::P<seal::IDigestContext> digest = seal::CDigestManager().getType("sha256")->createContext();
    const size_t digestSize = static_cast<size_t>(digest->getSize());
    bytes[bytes.size() / 2] ^= 0x40;
    digest->update(bytes.data(), static_cast<int>(bytes.size() - digestSize));
    digest->finish();
    std::memcpy(bytes.data() + bytes.size() - digestSize, digest->getDigest(), digestSize);
    writeFile(file, bytes);
}

TEST_F(CheckCommandTest, GoodDiskHasNoProblems)
{
    makeFullDisk();

    const RunResult result = runWithPassword({"check", path("disk"), "--read-data"});
    EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
    EXPECT_NE(result.out.find("16 brick files"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("no problems"), std::string::npos);
}

TEST_F(CheckCommandTest, FindsADamagedBrickWithItsIndexAndPath)
{
    makeFullDisk();
    const std::string victim = brickFiles("disk")[5];
    std::string bytes = readFile(victim);
    bytes[bytes.size() - 3] ^= 0x01;
    writeFile(victim, bytes);

    // No password is needed to compare the outer digests.
    const RunResult result = run({"check", path("disk")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.out.find("problem: brick 5 (" + victim + "): damaged"), std::string::npos) << result.out;
    EXPECT_EQ(countOf(result.out, "problem:"), 1u);
    EXPECT_NE(result.out.find("1 problem"), std::string::npos);
}

TEST_F(CheckCommandTest, TruncatedBrickIsFound)
{
    makeFullDisk();
    const std::string victim = brickFiles("disk")[15];
    std::filesystem::resize_file(victim, 20);

    const RunResult result = run({"check", path("disk")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.out.find("problem: brick 15"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("too short"), std::string::npos);
}

TEST_F(CheckCommandTest, ReadDataFindsDamageThatTheOuterDigestMisses)
{
    makeFullDisk();
    damageInsideOuterDigest(brickFiles("disk")[9]);

    const RunResult outer = run({"check", path("disk")});
    EXPECT_EQ(outer.exitStatus, 0) << outer.out;

    const RunResult deep = runWithPassword({"check", path("disk"), "--read-data", "--jobs", "2"});
    EXPECT_EQ(deep.exitStatus, 1);
    EXPECT_NE(deep.out.find("problem: brick 9 "), std::string::npos) << deep.out;
    EXPECT_NE(deep.out.find("do not decode"), std::string::npos);
    EXPECT_EQ(countOf(deep.out, "problem:"), 1u);
}

TEST_F(CheckCommandTest, ReadDataWithAWrongPasswordFails)
{
    makeFullDisk();
    RunOptions wrong;
    wrong.passwordVariable = "wrong";

    const RunResult result = run({"check", path("disk"), "--read-data"}, wrong);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("The encryption password is incorrect."), std::string::npos) << result.err;
}

TEST_F(CheckCommandTest, MissingFallbackHeaderIsAProblem)
{
    createDisk("disk", "1M");
    std::filesystem::remove(path("disk/fallback/disk.brickdisk"));

    const RunResult result = run({"check", path("disk")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.out.find("problem: header copy " + path("disk/fallback/disk.brickdisk") + ": missing"),
              std::string::npos)
        << result.out;
}

TEST_F(CheckCommandTest, DamagedPrimaryHeaderIsAProblemWhileTheDiskStillOpens)
{
    createDisk("disk", "1M");
    std::string header = readFile(path("disk/disk.brickdisk"));
    header[header.size() - 1] ^= 0x22;
    writeFile(path("disk/disk.brickdisk"), header);

    const RunResult result = runWithPassword({"check", path("disk"), "--read-data"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.out.find("disk.brickdisk: damaged (digest mismatch)"), std::string::npos) << result.out;
}

TEST_F(CheckCommandTest, FolderWithoutAnyHeaderFails)
{
    std::filesystem::create_directories(path("empty"));

    const RunResult result = run({"check", path("empty")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("Folder holds no brick disk"), std::string::npos) << result.err;
}

TEST_F(CheckCommandTest, DamagedLinkCopyAndABrokenChildAreProblems)
{
    createDisk("disk", "1M");
    ASSERT_EQ(run({"snapshot", path("disk"), path("snap")}).exitStatus, 0);
    EXPECT_EQ(run({"check", path("disk")}).exitStatus, 0);
    EXPECT_EQ(run({"check", path("snap")}).exitStatus, 0);

    std::string link = readFile(path("disk/child.bricklnk"));
    link[0] ^= 0x01;
    writeFile(path("disk/child.bricklnk"), link);
    const RunResult damaged = run({"check", path("disk")});
    EXPECT_EQ(damaged.exitStatus, 1);
    EXPECT_NE(damaged.out.find("problem: link copy " + path("disk/child.bricklnk")), std::string::npos) << damaged.out;

    std::filesystem::remove(path("snap/parent.bricklnk"));
    std::filesystem::remove(path("snap/fallback/parent.bricklnk"));
    const RunResult broken = run({"check", path("disk")});
    EXPECT_NE(broken.out.find("does not link back to this disk"), std::string::npos) << broken.out;
}

TEST_F(CheckCommandTest, LeftoverTemporaryFilesAreANoteAndStrayFilesAProblem)
{
    makeFullDisk();
    const std::filesystem::path folder = std::filesystem::path(brickFiles("disk")[0]).parent_path();
    writeFile((folder / ".tmp-12345-00.brick.part").string(), "half a brick");

    const RunResult withLeftover = run({"check", path("disk")});
    EXPECT_EQ(withLeftover.exitStatus, 0) << withLeftover.out;
    EXPECT_NE(withLeftover.out.find("note: 1 temporary file of"), std::string::npos) << withLeftover.out;

    writeFile((folder / "readme.txt").string(), "not a brick");
    const RunResult withStray = run({"check", path("disk")});
    EXPECT_EQ(withStray.exitStatus, 1);
    EXPECT_NE(withStray.out.find("unexpected entry in the brick tree: " + (folder / "readme.txt").string()),
              std::string::npos)
        << withStray.out;
}

} // namespace
} // namespace clitest

namespace clitest {
namespace {

class CheckRepairTest : public CliTest {};

TEST_F(CheckRepairTest, RepairRewritesADamagedHeaderOrLinkCopyFromItsTwinAndRemovesLeftovers)
{
    createDisk("disk", "1M");
    writeFile(path("image"), makeImage(1024 * 1024, 95));
    importImage("disk", "image");
    ASSERT_EQ(run({"snapshot", path("disk"), path("monday")}).exitStatus, 0);
    std::string header = readFile(path("disk/disk.brickdisk"));
    header[12] ^= 0x40;
    writeFile(path("disk/disk.brickdisk"), header);
    std::filesystem::remove(path("monday/fallback/parent.bricklnk"));
    const std::string leftover = brickFiles("disk")[0];
    const std::string temporary = leftover.substr(0, leftover.rfind('/') + 1) + ".tmp-0123456789abcdef-00.brick.part";
    writeFile(temporary, "half");

    const RunResult before = run({"check", path("disk")});
    EXPECT_EQ(before.exitStatus, 1) << before.out;
    const RunResult repaired = run({"check", path("disk"), "--repair"});
    EXPECT_EQ(repaired.exitStatus, 0) << repaired.out << repaired.err;
    EXPECT_NE(repaired.out.find("repaired: " + path("disk/disk.brickdisk")), std::string::npos) << repaired.out;
    EXPECT_NE(repaired.out.find("repaired: removed 1 temporary file of"), std::string::npos) << repaired.out;
    EXPECT_FALSE(std::filesystem::exists(temporary));
    EXPECT_EQ(readFile(path("disk/disk.brickdisk")), readFile(path("disk/fallback/disk.brickdisk")));
    EXPECT_EQ(run({"check", path("disk")}).exitStatus, 0);

    const RunResult child = run({"check", path("monday"), "--repair"});
    EXPECT_EQ(child.exitStatus, 0) << child.out << child.err;
    EXPECT_NE(child.out.find("repaired: " + path("monday/fallback/parent.bricklnk") + " (missing)"), std::string::npos)
        << child.out;
    EXPECT_TRUE(std::filesystem::exists(path("monday/fallback/parent.bricklnk")));
    EXPECT_EQ(runWithPassword({"check", path("monday"), "--read-data"}).exitStatus, 0);
}

} // namespace
} // namespace clitest
