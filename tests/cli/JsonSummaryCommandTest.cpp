// The --json summaries of import, export and check: one JSON document with
// the same facts as the text summary, and nothing else on standard output.
#include "CliTestFixture.h"

#include <filesystem>

namespace clitest {
namespace {

class JsonSummaryCommandTest : public CliTest {
protected:
    // A disk of 16 bricks, every one stored.
    void makeFullDisk()
    {
        createDisk("disk", "1M");
        writeFile(path("image"), std::string(1024 * 1024, 'j'));
        importImage("disk", "image");
        ASSERT_EQ(brickFiles("disk").size(), 16u);
    }
    // Changes a byte of brick file `n`, which its outer digest then finds.
    std::string damageBrickFile(size_t n)
    {
        const std::string victim = brickFiles("disk")[n];
        std::string bytes = readFile(victim);
        bytes[bytes.size() - 3] ^= 0x01;
        writeFile(victim, bytes);
        return victim;
    }
};

bool isOneJsonObject(const std::string& text)
{
    return !text.empty() && text.front() == '{' && text.rfind("}\n") == text.size() - 2;
}

TEST_F(JsonSummaryCommandTest, ImportCountsWrittenAndSkippedBricks)
{
    createDisk("disk", "1M");
    writeFile(path("image"), std::string(1024 * 1024, 'j'));
    const RunResult first = runWithPassword({"import", path("disk"), path("image"), "--json"});
    EXPECT_EQ(first.exitStatus, 0) << first.err;
    EXPECT_TRUE(isOneJsonObject(first.out)) << first.out;
    EXPECT_NE(first.out.find("\"imageBytes\": 1048576"), std::string::npos) << first.out;
    EXPECT_NE(first.out.find("\"bricksWritten\": 16"), std::string::npos) << first.out;
    EXPECT_NE(first.out.find("\"bricksSkipped\": 0"), std::string::npos) << first.out;

    const RunResult again = runWithPassword({"import", path("disk"), path("image"), "--json"});
    EXPECT_EQ(again.exitStatus, 0) << again.err;
    EXPECT_NE(again.out.find("\"bricksWritten\": 0"), std::string::npos) << again.out;
    EXPECT_NE(again.out.find("\"bricksSkipped\": 16"), std::string::npos) << again.out;
}

TEST_F(JsonSummaryCommandTest, ExportListsEveryDamagedBrickWithItsFile)
{
    makeFullDisk();
    const std::string victim = damageBrickFile(3);
    const RunResult result = runWithPassword({"export", path("disk"), path("out"), "--skip-damaged", "--json"});
    EXPECT_EQ(result.exitStatus, 1) << result.err;
    EXPECT_TRUE(isOneJsonObject(result.out)) << result.out;
    EXPECT_NE(result.out.find("\"bytes\": 1048576"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("\"dataBricks\": 15"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("\"index\": 3,"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("\"file\": \"" + victim + "\""), std::string::npos) << result.out;
}

TEST_F(JsonSummaryCommandTest, ExportOfAGoodDiskHasNoDamagedBricks)
{
    makeFullDisk();
    const RunResult result = runWithPassword({"export", path("disk"), path("out"), "--json"});
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_NE(result.out.find("\"damagedBricks\": []"), std::string::npos) << result.out;
    EXPECT_EQ(readFile(path("out")), readFile(path("image")));
}

TEST_F(JsonSummaryCommandTest, ExportToStandardOutputPutsTheSummaryOnStandardError)
{
    makeFullDisk();
    const RunResult result = runWithPassword({"export", path("disk"), "-", "--json"});
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.out, readFile(path("image")));
    EXPECT_NE(result.err.find("\"dataBricks\": 16"), std::string::npos) << result.err;
}

TEST_F(JsonSummaryCommandTest, CheckGivesProblemsAsAList)
{
    makeFullDisk();
    const RunResult good = run({"check", path("disk"), "--json"});
    EXPECT_EQ(good.exitStatus, 0) << good.err;
    EXPECT_TRUE(isOneJsonObject(good.out)) << good.out;
    EXPECT_NE(good.out.find("\"brickFiles\": 16"), std::string::npos) << good.out;
    EXPECT_NE(good.out.find("\"problems\": []"), std::string::npos) << good.out;

    const std::string victim = damageBrickFile(5);
    const RunResult bad = run({"check", path("disk"), "--json"});
    EXPECT_EQ(bad.exitStatus, 1);
    EXPECT_TRUE(isOneJsonObject(bad.out)) << bad.out;
    EXPECT_NE(bad.out.find("\"brick 5 (" + victim + "): damaged"), std::string::npos) << bad.out;
    EXPECT_EQ(bad.out.find("problem:"), std::string::npos) << bad.out;
}

} // namespace
} // namespace clitest
