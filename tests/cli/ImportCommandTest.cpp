#include "CliTestFixture.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

namespace clitest {
namespace {

class ImportCommandTest : public CliTest {};

// The disk's bytes after an export, cut to `size`.
std::string head(const std::string& bytes, size_t size)
{
    return bytes.substr(0, size);
}

TEST_F(ImportCommandTest, ExportGivesTheImportedImageBack)
{
    createDisk("disk", "4M");
    // Not a whole number of bricks: the last brick is written in part.
    const std::string image = makeImage(3 * 1024 * 1024 + 12345, 1);
    writeFile(path("image"), image);

    importImage("disk", "image");
    const std::string exported = exportImage("disk");
    ASSERT_EQ(exported.size(), 4u * 1024 * 1024);
    EXPECT_EQ(head(exported, image.size()), image);
    EXPECT_EQ(exported.substr(image.size()), std::string(exported.size() - image.size(), '\0'));
}

TEST_F(ImportCommandTest, StandardInputWorksLikeAFile)
{
    createDisk("disk", "2M");
    RunOptions input;
    input.input = makeImage(2 * 1024 * 1024, 2);

    const RunResult result = runWithPassword({"import", path("disk"), "-"}, input);
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(exportImage("disk"), *input.input);
}

TEST_F(ImportCommandTest, ReimportOfAnUnchangedImageWritesNoBrick)
{
    createDisk("disk", "4M");
    writeFile(path("image"), makeImage(4 * 1024 * 1024, 3));
    importImage("disk", "image");
    const auto before = std::filesystem::last_write_time(brickFiles("disk").front());

    const RunResult again = runWithPassword({"import", path("disk"), path("image"), "--jobs", "3"});
    ASSERT_EQ(again.exitStatus, 0) << again.err;
    EXPECT_NE(again.out.find("bricks: 0 written, 64 skipped, 0 zero"), std::string::npos) << again.out;
    EXPECT_EQ(std::filesystem::last_write_time(brickFiles("disk").front()), before);
}

TEST_F(ImportCommandTest, ReimportOfAChangedImageWritesOnlyTheChangedBricks)
{
    createDisk("disk", "4M");
    std::string image = makeImage(4 * 1024 * 1024, 4);
    writeFile(path("image"), image);
    importImage("disk", "image");

    image[5 * kBrickSize + 17] ^= 0x5a;
    image[40 * kBrickSize] ^= 0x01;
    image[40 * kBrickSize + 1] ^= 0x01;
    writeFile(path("image"), image);
    const RunResult changed = runWithPassword({"import", path("disk"), path("image")});
    ASSERT_EQ(changed.exitStatus, 0) << changed.err;
    EXPECT_NE(changed.out.find("bricks: 2 written, 62 skipped"), std::string::npos) << changed.out;
    EXPECT_EQ(exportImage("disk"), image);
}

TEST_F(ImportCommandTest, BrickThatBecameAllZeroLosesItsFile)
{
    createDisk("disk", "1M");
    std::string image(1024 * 1024, 'x');
    writeFile(path("image"), image);
    importImage("disk", "image");
    ASSERT_EQ(brickFiles("disk").size(), 16u);

    image.replace(3 * kBrickSize, kBrickSize, std::string(kBrickSize, '\0'));
    writeFile(path("image"), image);
    const RunResult zeroed = runWithPassword({"import", path("disk"), path("image")});
    ASSERT_EQ(zeroed.exitStatus, 0) << zeroed.err;
    EXPECT_NE(zeroed.out.find("bricks: 0 written, 15 skipped, 1 zero"), std::string::npos) << zeroed.out;
    EXPECT_EQ(brickFiles("disk").size(), 15u);
    EXPECT_EQ(exportImage("disk"), image);
}

TEST_F(ImportCommandTest, HolesOfASparseImageReadAsZeros)
{
    createDisk("disk", "2M");
    writeFile(path("full"), std::string(2 * 1024 * 1024, 'f'));
    importImage("disk", "full");
    // A sparse image: data in bricks 3 and 20 only, holes everywhere else.
    std::string sparse(2 * 1024 * 1024, '\0');
    {
        std::ofstream file(path("sparse"), std::ios::binary | std::ios::trunc);
        for (const size_t brick : {3, 20}) {
            sparse.replace(brick * kBrickSize + 100, 5, "data!");
            file.seekp(static_cast<std::streamoff>(brick * kBrickSize + 100));
            file.write("data!", 5);
        }
    }
    std::filesystem::resize_file(path("sparse"), sparse.size());

    const RunResult first = runWithPassword({"import", path("disk"), path("sparse")});
    ASSERT_EQ(first.exitStatus, 0) << first.err;
    EXPECT_NE(first.out.find("bricks: 2 written, 0 skipped, 30 zero"), std::string::npos) << first.out;
    EXPECT_EQ(exportImage("disk"), sparse);
    EXPECT_EQ(brickFiles("disk").size(), 2u);

    const RunResult again = runWithPassword({"import", path("disk"), path("sparse")});
    EXPECT_NE(again.out.find("bricks: 0 written, 32 skipped, 0 zero"), std::string::npos) << again.out;
}

TEST_F(ImportCommandTest, ShortImageKeepsTheRestOfItsLastBrick)
{
    createDisk("disk", "1M");
    const std::string first = makeImage(1024 * 1024, 5);
    writeFile(path("first"), first);
    importImage("disk", "first");

    const std::string second(kBrickSize + kBrickSize / 2, 'n');
    writeFile(path("second"), second);
    importImage("disk", "second");
    EXPECT_EQ(exportImage("disk"), second + first.substr(second.size()));
}

TEST_F(ImportCommandTest, ImageLargerThanTheDiskIsRefusedBeforeAnythingIsWritten)
{
    createDisk("disk", "1M");
    writeFile(path("image"), makeImage(1024 * 1024 + 1, 6));

    const RunResult result = runWithPassword({"import", path("disk"), path("image")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("Image is larger than the disk."), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("imageSize: 1048577"), std::string::npos) << result.err;
    EXPECT_TRUE(brickFiles("disk").empty());
}

TEST_F(ImportCommandTest, StandardInputBeyondTheDiskSizeIsRefusedAndNothingPastTheEndIsWritten)
{
    createDisk("disk", "1M");
    RunOptions input;
    input.input = std::string(1024 * 1024, 'a') + std::string(3 * kBrickSize, 'b');

    const RunResult result = runWithPassword({"import", path("disk"), "-"}, input);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("Image holds more than the disk size."), std::string::npos) << result.err;
    EXPECT_EQ(countOf(result.err, "\n"), 1u) << result.err;
    EXPECT_EQ(exportImage("disk"), std::string(1024 * 1024, 'a'));
    EXPECT_EQ(brickFiles("disk").size(), 16u);
}

TEST_F(ImportCommandTest, WrongPasswordFailsAndWritesNothing)
{
    createDisk("disk", "1M");
    writeFile(path("image"), makeImage(500000, 7));
    RunOptions wrong;
    wrong.passwordVariable = "wrong password";

    const RunResult result = run({"import", path("disk"), path("image")}, wrong);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("brickdisk: The encryption password is incorrect."), std::string::npos) << result.err;
    EXPECT_TRUE(brickFiles("disk").empty());
}

TEST_F(ImportCommandTest, FolderWithoutHeaderIsNoDisk)
{
    std::filesystem::create_directories(path("half/fallback"));
    writeFile(path("image"), makeImage(1000, 8));

    const RunResult result = runWithPassword({"import", path("half"), path("image")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("Folder holds no brick disk"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find(path("half")), std::string::npos);

    const RunResult missing = runWithPassword({"import", path("nowhere"), path("image")});
    EXPECT_EQ(missing.exitStatus, 1);
    EXPECT_NE(missing.err.find("Disk folder does not exist."), std::string::npos) << missing.err;
}

TEST_F(ImportCommandTest, DiskWhoseFallbackHeaderIsMissingStillImports)
{
    createDisk("disk", "1M");
    std::filesystem::remove(path("disk/fallback/disk.brickdisk"));
    const std::string image = makeImage(1024 * 1024, 9);
    writeFile(path("image"), image);

    importImage("disk", "image");
    EXPECT_EQ(exportImage("disk"), image);
}

TEST_F(ImportCommandTest, FailedBrickStoreFailsTheImportNamingTheBrick)
{
    createDisk("disk", "1M");
    // A file where the brick tree's folder belongs: no brick can be stored.
    writeFile(path("disk/bricks"), "in the way");
    writeFile(path("image"), std::string(3 * kBrickSize, 's'));

    const RunResult result = runWithPassword({"import", path("disk"), path("image")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.err.rfind("brickdisk: Storing brick 0 failed.", 0), 0u) << result.err;
    EXPECT_NE(result.err.find("brickFile: " + path("disk/bricks/d00/c00/b00/a00/00.brick")), std::string::npos)
        << result.err;
    EXPECT_NE(result.err.find("failedBricks: 3"), std::string::npos) << result.err;
    EXPECT_EQ(countOf(result.err, "\n"), 1u) << result.err;

    const RunResult check = run({"check", path("disk")});
    EXPECT_EQ(check.exitStatus, 1);
    EXPECT_NE(check.out.find("unexpected entry in the brick tree: " + path("disk/bricks")), std::string::npos)
        << check.out;
}

TEST_F(ImportCommandTest, ABrickTheFileSystemCannotReadEndsTheImportInsteadOfBeingReplaced)
{
    createDisk("disk", "1M");
    // A folder where brick 0's file belongs: reading it fails in the file
    // system, which is no damaged brick to replace.
    const std::string brick = path("disk/bricks/d00/c00/b00/a00/00.brick");
    std::filesystem::create_directories(brick);
    writeFile(path("image"), std::string(2 * kBrickSize, 's'));

    const RunResult result = runWithPassword({"import", path("disk"), path("image")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.err, "brickdisk: open failed: Is a directory. (path: " + brick + ", action: open)\n");
    EXPECT_TRUE(std::filesystem::is_directory(brick));
}

TEST_F(ImportCommandTest, RunAgainAfterBeingKilledPartWayItCompletes)
{
    createDisk("disk", "8M");
    const std::string image = makeImage(8 * 1024 * 1024, 10);
    writeFile(path("image"), image);

    {
        // A slow standard input: a part of the image, then a wait until bricks
        // are being stored, then more, and the process is killed at once.
        RunningProgram import({"import", path("disk"), "-", "--password-file", path("pw")}, RunOptions{});
        ASSERT_TRUE(import.feed(image.substr(0, 40 * kBrickSize)));
        for (int i = 0; i < 200 && brickFiles("disk").size() < 4; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        import.feed(image.substr(40 * kBrickSize, 30 * kBrickSize));
        import.kill();
        EXPECT_EQ(import.wait().exitStatus, -1);
    }
    const size_t storedBeforeKill = brickFiles("disk").size();
    EXPECT_GE(storedBeforeKill, 4u);
    EXPECT_LT(storedBeforeKill, 128u);

    importImage("disk", "image");
    EXPECT_EQ(exportImage("disk"), image);
    const RunResult check = runWithPassword({"check", path("disk"), "--read-data"});
    EXPECT_EQ(check.exitStatus, 0) << check.out << check.err;
}

TEST_F(ImportCommandTest, ShowsNoProgressOnAPipe)
{
    createDisk("disk", "2M");
    writeFile(path("image"), makeImage(2 * 1024 * 1024, 12));

    const RunResult result = runWithPassword({"import", path("disk"), path("image")});
    ASSERT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_NE(result.out.find("imported 2.00 MiB"), std::string::npos) << result.out;
}

TEST_F(ImportCommandTest, ImageShorterThanTheDiskSaysHowManyBytesAtTheEndWereKept)
{
    createDisk("disk", "1M");
    const std::string full = makeImage(1024 * 1024, 21);
    writeFile(path("full"), full);
    const RunResult filled = runWithPassword({"import", path("disk"), path("full"), "--json"});
    ASSERT_EQ(filled.exitStatus, 0) << filled.err;
    EXPECT_NE(filled.out.find("\"bytesKeptAtEnd\": 0\n"), std::string::npos) << filled.out;
    EXPECT_EQ(filled.err.find("shorter"), std::string::npos) << filled.err;

    const std::string start = makeImage(300000, 22);
    writeFile(path("short"), start);
    const RunResult text = runWithPassword({"import", path("disk"), path("short")});
    ASSERT_EQ(text.exitStatus, 0) << text.err;
    EXPECT_NE(text.err.find("brickdisk: note: the image is shorter than the disk: the last 748576 bytes of the "
                            "disk (731"),
              std::string::npos)
        << text.err;
    EXPECT_NE(text.err.find(") were kept as they were\n"), std::string::npos) << text.err;
    const RunResult json = runWithPassword({"import", path("disk"), path("short"), "--json", "--quiet"});
    ASSERT_EQ(json.exitStatus, 0) << json.err;
    EXPECT_NE(json.out.find("\"bytesKeptAtEnd\": 748576\n"), std::string::npos) << json.out;
    EXPECT_NE(json.err.find("the last 748576 bytes"), std::string::npos) << json.err;

    EXPECT_TRUE(exportImage("disk") == start + full.substr(start.size()));
}

TEST_F(ImportCommandTest, ShowsProgressWithRateOnATerminal)
{
    createDisk("disk", "2M");
    writeFile(path("image"), makeImage(2 * 1024 * 1024, 13));

    const RunResult result = runOnTerminal({"import", path("disk"), path("image"), "--password-file", path("pw")}, {});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_NE(result.err.find("import ["), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("MB/s"), std::string::npos);
    EXPECT_NE(result.err.find("%"), std::string::npos);
}

TEST_F(ImportCommandTest, ChildDiskNeedsAllowParent)
{
    createDisk("disk", "1M");
    ASSERT_EQ(run({"child", path("disk"), path("overlay"), "--stand-alone"}).exitStatus, 0);
    const std::string image = makeImage(1024 * 1024, 14);
    writeFile(path("image"), image);

    const RunResult refused = runWithPassword({"import", path("overlay"), path("image")});
    EXPECT_EQ(refused.exitStatus, 2);
    EXPECT_NE(refused.err.find("--allow-parent"), std::string::npos) << refused.err;
    EXPECT_TRUE(brickFiles("overlay").empty());

    const RunResult allowed = runWithPassword({"import", path("overlay"), path("image"), "--allow-parent"});
    ASSERT_EQ(allowed.exitStatus, 0) << allowed.err;
    EXPECT_EQ(exportImage("overlay"), image);
    EXPECT_TRUE(brickFiles("disk").empty());
}

TEST_F(ImportCommandTest, DamagedBrickIsReplacedByTheImport)
{
    createDisk("disk", "1M");
    const std::string image = makeImage(1024 * 1024, 15);
    writeFile(path("image"), image);
    importImage("disk", "image");
    const std::string victim = brickFiles("disk")[2];
    std::string bytes = readFile(victim);
    bytes[bytes.size() / 2] ^= 0xff;
    writeFile(victim, bytes);

    const RunResult repaired = runWithPassword({"import", path("disk"), path("image")});
    ASSERT_EQ(repaired.exitStatus, 0) << repaired.err;
    EXPECT_NE(repaired.out.find("bricks: 1 written"), std::string::npos) << repaired.out;
    EXPECT_EQ(runWithPassword({"check", path("disk"), "--read-data"}).exitStatus, 0);
    EXPECT_EQ(exportImage("disk"), image);
}

} // namespace
} // namespace clitest
