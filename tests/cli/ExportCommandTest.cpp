#include "CliTestFixture.h"

#include <chrono>
#include <filesystem>
#include <sys/stat.h>
#include <thread>

namespace clitest {
namespace {

class ExportCommandTest : public CliTest {};

TEST_F(ExportCommandTest, RegularFileGetsHolesWhereTheDiskReadsZeros)
{
    createDisk("disk", "8M");
    // Two bricks of data at the start, the rest of the disk never written.
    const std::string image = makeImage(2 * kBrickSize, 20) + std::string(kBrickSize, 'z');
    writeFile(path("image"), image);
    importImage("disk", "image");

    const RunResult result = runWithPassword({"export", path("disk"), path("out"), "--jobs", "2"});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_NE(result.out.find("(left as holes)"), std::string::npos) << result.out;
    struct stat info {};
    ASSERT_EQ(::stat(path("out").c_str(), &info), 0);
    EXPECT_EQ(info.st_size, 8 * 1024 * 1024);
    EXPECT_LT(info.st_blocks * 512, 1024 * 1024) << "the zero bricks should be holes";
    const std::string exported = readFile(path("out"));
    EXPECT_EQ(exported.substr(0, image.size()), image);
    EXPECT_EQ(exported.find_first_not_of('\0', image.size()), std::string::npos);
}

TEST_F(ExportCommandTest, DataAndZeroBricksInTurnAndAShortLastBrickComeBackExactly)
{
    // 20 bricks and 1000 bytes: data, zeros, data, ... so that buffers that
    // held data are filled with zeros next, and the other way round.
    createDisk("disk", std::to_string(20 * kBrickSize + 1000));
    // (makeImage has runs of zeros: the first byte makes sure a data brick is not all zero.)
    const auto dataBrick = [](int size, unsigned seed) { return "d" + makeImage(size - 1, seed); };
    std::string image;
    for (int brick = 0; brick < 20; ++brick)
        image += brick % 2 == 0 ? dataBrick(kBrickSize, 30 + brick) : std::string(kBrickSize, '\0');
    image += dataBrick(1000, 60);
    writeFile(path("image"), image);
    importImage("disk", "image");

    for (const std::string jobs : {"1", "3"}) {
        SCOPED_TRACE("jobs " + jobs);
        const RunResult toFile = runWithPassword({"export", path("disk"), path("out"), "--jobs", jobs, "--force"});
        ASSERT_EQ(toFile.exitStatus, 0) << toFile.err;
        EXPECT_NE(toFile.out.find("bricks: 11 with data, 10 all zero"), std::string::npos) << toFile.out;
        EXPECT_TRUE(readFile(path("out")) == image);
        const RunResult toPipe = runWithPassword({"export", path("disk"), "-", "--jobs", jobs});
        ASSERT_EQ(toPipe.exitStatus, 0) << toPipe.err;
        EXPECT_TRUE(toPipe.out == image);
    }
}

TEST_F(ExportCommandTest, StandardOutputGetsEveryByteAndTheSummaryGoesToStderr)
{
    createDisk("disk", "1M");
    const std::string image = makeImage(1024 * 1024, 21);
    writeFile(path("image"), image);
    importImage("disk", "image");

    const RunResult result = runWithPassword({"export", path("disk"), "-", "--jobs", "1"});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.out, image);
    EXPECT_NE(result.err.find("exported 1.00 MiB"), std::string::npos) << result.err;
}

TEST_F(ExportCommandTest, RefusesAnExistingFileAndReplacesItWholeOnlyWithForce)
{
    createDisk("disk", "1M");
    const std::string image = makeImage(1024 * 1024, 22);
    writeFile(path("image"), image);
    importImage("disk", "image");
    const std::string old(3 * 1024 * 1024, 'o');
    writeFile(path("out"), old);

    const RunResult refused = runWithPassword({"export", path("disk"), path("out")});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_NE(refused.err.find("exists and is not empty; give --force"), std::string::npos) << refused.err;
    EXPECT_TRUE(readFile(path("out")) == old);

    ASSERT_EQ(runWithPassword({"export", path("disk"), path("out"), "--force"}).exitStatus, 0);
    EXPECT_EQ(readFile(path("out")), image);
}

TEST_F(ExportCommandTest, TypedForAnImportItRefusesToOverwriteTheImage)
{
    createDisk("disk", "1M");
    const std::string image = makeImage(1024 * 1024, 23);
    writeFile(path("image"), image);
    const RunResult mistaken = runWithPassword({"export", path("disk"), path("image")});
    EXPECT_EQ(mistaken.exitStatus, 1);
    EXPECT_TRUE(readFile(path("image")) == image);
}

TEST_F(ExportCommandTest, SymbolicLinkIsNotFollowedAndWithForceTheLinkItselfIsReplaced)
{
    createDisk("disk", "1M");
    writeFile(path("precious"), "keep me");
    std::filesystem::create_symlink(path("precious"), path("link"));

    const RunResult refused = runWithPassword({"export", path("disk"), path("link")});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_NE(refused.err.find("symbolic link"), std::string::npos) << refused.err;
    ASSERT_EQ(runWithPassword({"export", path("disk"), path("link"), "--force"}).exitStatus, 0);
    EXPECT_EQ(readFile(path("precious")), "keep me");
    EXPECT_FALSE(std::filesystem::is_symlink(path("link")));
    EXPECT_EQ(std::filesystem::file_size(path("link")), 1024u * 1024u);
}

TEST_F(ExportCommandTest, KilledExportLeavesTheOldFileAndNoPartialImage)
{
    createDisk("disk", "32M");
    const std::string image = makeImage(32 * 1024 * 1024, 24);
    writeFile(path("image"), image);
    importImage("disk", "image");
    writeFile(path("out"), "the old image");
    {
        RunningProgram exporting({"export", path("disk"), path("out"), "--force", "--password-file", path("pw")},
                                 RunOptions{});
        // Wait until the temporary image is being written, then kill.
        bool started = false;
        for (int i = 0; i < 400 && !started; ++i) {
            for (const auto& entry : std::filesystem::directory_iterator(path("")))
                started = started || entry.path().filename().string().rfind(".out.", 0) == 0;
            if (!started)
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        exporting.kill();
        exporting.wait();
    }
    EXPECT_EQ(readFile(path("out")), "the old image");
}

TEST_F(ExportCommandTest, DamagedBrickFailsTheExportNamingTheBrick)
{
    createDisk("disk", "1M");
    writeFile(path("image"), std::string(1024 * 1024, 'd'));
    importImage("disk", "image");
    // Brick 6 is the seventh file in index order.
    const std::string victim = brickFiles("disk")[6];
    std::string bytes = readFile(victim);
    bytes[20] ^= 0x10;
    writeFile(victim, bytes);

    const RunResult result = runWithPassword({"export", path("disk"), path("out")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.err.rfind("brickdisk: Cannot read brick 6.", 0), 0u) << result.err;
    EXPECT_NE(result.err.find("brickIndex: 6"), std::string::npos);
    EXPECT_NE(result.err.find(victim), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("Brick file is corrupted."), std::string::npos);
    EXPECT_EQ(countOf(result.err, "\n"), 1u) << result.err;
    EXPECT_FALSE(std::filesystem::exists(path("out"))) << "a partial image is removed";
}

TEST_F(ExportCommandTest, SkipDamagedWritesDamagedBricksAsZerosListsThemAndStillFails)
{
    createDisk("disk", "1M");
    const std::string image(1024 * 1024, 'd');
    writeFile(path("image"), image);
    importImage("disk", "image");
    const std::vector<std::string> files = brickFiles("disk");
    for (const size_t victim : {6u, 9u}) {
        std::string bytes = readFile(files[victim]);
        bytes[20] ^= 0x10;
        writeFile(files[victim], bytes);
    }

    const RunResult result = runWithPassword({"export", path("disk"), path("out"), "--skip-damaged", "--jobs", "2"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("damaged brick 6 written as zeros (" + files[6] + ")"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("damaged brick 9 written as zeros (" + files[9] + ")"), std::string::npos) << result.err;
    EXPECT_NE(result.out.find("2 damaged (written as zeros)"), std::string::npos) << result.out;
    std::string expected = image;
    for (const size_t victim : {6u, 9u})
        expected.replace(victim * kBrickSize, kBrickSize, std::string(kBrickSize, '\0'));
    EXPECT_TRUE(readFile(path("out")) == expected);
}

TEST_F(ExportCommandTest, WrongPasswordFails)
{
    createDisk("disk", "1M");
    RunOptions wrong;
    wrong.passwordVariable = "nope";

    const RunResult result = run({"export", path("disk"), path("out")}, wrong);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("The encryption password is incorrect."), std::string::npos) << result.err;
    EXPECT_NE(result.err.find(path("disk")), std::string::npos);
}

TEST_F(ExportCommandTest, NoPasswordAndNoTerminalIsAUsageError)
{
    createDisk("disk", "1M");

    const RunResult result = run({"export", path("disk"), path("out")});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_NE(result.err.find("no terminal"), std::string::npos) << result.err;
}

TEST_F(ExportCommandTest, MissingDiskFails)
{
    const RunResult result = runWithPassword({"export", path("missing"), path("out")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("Disk folder does not exist."), std::string::npos) << result.err;
}

TEST_F(ExportCommandTest, HeaderReadFromTheFallbackWhenThePrimaryIsDamaged)
{
    createDisk("disk", "1M");
    const std::string image = makeImage(1024 * 1024, 23);
    writeFile(path("image"), image);
    importImage("disk", "image");
    std::string header = readFile(path("disk/disk.brickdisk"));
    header[10] ^= 1;
    writeFile(path("disk/disk.brickdisk"), header);

    EXPECT_EQ(exportImage("disk"), image);
}

} // namespace
} // namespace clitest
