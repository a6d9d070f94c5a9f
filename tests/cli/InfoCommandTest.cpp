#include "CliTestFixture.h"

#include <filesystem>

namespace clitest {
namespace {

class InfoCommandTest : public CliTest {};

TEST_F(InfoCommandTest, CountsTheBrickFilesAndTheirSize)
{
    createDisk("disk", "2M");
    // Bricks 0 to 9 hold data, the others stay zero.
    writeFile(path("image"), makeImage(10 * kBrickSize, 50));
    importImage("disk", "image");
    std::uintmax_t stored = 0;
    for (const std::string& file : brickFiles("disk"))
        stored += std::filesystem::file_size(file);
    const size_t present = brickFiles("disk").size();
    ASSERT_GT(present, 0u);

    const RunResult result = run({"info", path("disk"), "--json"});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_NE(result.out.find("\"brickFiles\": " + std::to_string(present) + ","), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("\"storedBytes\": " + std::to_string(stored) + ","), std::string::npos);
    EXPECT_NE(result.out.find("\"presentBytes\": " + std::to_string(present * kBrickSize) + ","), std::string::npos);
    EXPECT_NE(result.out.find("\"storedRatio\": 0."), std::string::npos);

    const RunResult text = run({"info", path("disk")});
    EXPECT_NE(text.out.find("brick files:       " + std::to_string(present) + " of 32"), std::string::npos) << text.out;
}

TEST_F(InfoCommandTest, NeedsNoPassword)
{
    createDisk("disk", "1M");
    const RunResult result = run({"info", path("disk")});
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_NE(result.out.find("encryption:        aes256cbc"), std::string::npos) << result.out;
}

TEST_F(InfoCommandTest, ShowsTheParentChainAndTheChild)
{
    createDisk("disk", "1M");
    ASSERT_EQ(run({"snapshot", path("disk"), path("old")}).exitStatus, 0);
    ASSERT_EQ(run({"snapshot", path("disk"), path("new")}).exitStatus, 0);

    const RunResult oldest = run({"info", path("old")});
    ASSERT_EQ(oldest.exitStatus, 0) << oldest.err;
    EXPECT_NE(oldest.out.find("parents:           " + path("new") + "\n                   " + path("disk")),
              std::string::npos)
        << oldest.out;
    EXPECT_NE(oldest.out.find("child:             none"), std::string::npos);
    EXPECT_NE(run({"info", path("disk")}).out.find("child:             " + path("new")), std::string::npos);
}

TEST_F(InfoCommandTest, ShowsAMissingFallbackHeader)
{
    createDisk("disk", "1M");
    std::filesystem::remove(path("disk/fallback/disk.brickdisk"));

    const RunResult result = run({"info", path("disk"), "--json"});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_NE(result.out.find("\"fallback\": \"missing\""), std::string::npos) << result.out;
}

TEST_F(InfoCommandTest, FolderWithoutHeaderFails)
{
    std::filesystem::create_directories(path("half"));
    writeFile(path("half/notes"), "x");

    const RunResult result = run({"info", path("half")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.err,
              "brickdisk: Folder holds no brick disk: disk.brickdisk and its fallback copy are both "
              "missing. (diskFolder: " +
                  path("half") + ")\n");
}

} // namespace
} // namespace clitest
