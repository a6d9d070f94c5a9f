#include "CliTestFixture.h"

namespace clitest {
namespace {

class CommandLineTest : public CliTest {};

TEST_F(CommandLineTest, EverySubcommandHasHelp)
{
    for (const std::string command : {"create", "info", "import", "export", "snapshot", "child", "check"}) {
        SCOPED_TRACE(command);
        const RunResult result = run({command, "--help"});
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_NE(result.out.find("brickdisk " + command), std::string::npos) << result.out;
        EXPECT_NE(result.out.find("--help"), std::string::npos);
    }
    const RunResult top = run({"--help"});
    EXPECT_EQ(top.exitStatus, 0);
    EXPECT_NE(top.out.find("snapshot"), std::string::npos);
}

TEST_F(CommandLineTest, UnknownSubcommandIsAUsageErrorOnOneLine)
{
    const RunResult result = run({"frobnicate"});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_EQ(result.err.rfind("brickdisk: ", 0), 0u) << result.err;
    EXPECT_EQ(countOf(result.err, "\n"), 1u) << result.err;
}

TEST_F(CommandLineTest, MissingArgumentIsAUsageError)
{
    EXPECT_EQ(run({"import", path("disk")}).exitStatus, 2);
    EXPECT_EQ(run({"create", path("disk")}).exitStatus, 2);
    EXPECT_EQ(run({}).exitStatus, 2);
}

TEST_F(CommandLineTest, PasswordIsNeverAnArgument)
{
    createDisk("disk", "1M");
    const RunResult result = run({"export", path("disk"), path("out"), "--password", kPassword});
    EXPECT_EQ(result.exitStatus, 2);
}

TEST_F(CommandLineTest, JobsBelowOneAreAUsageError)
{
    createDisk("disk", "1M");
    writeFile(path("image"), "abc");
    EXPECT_EQ(runWithPassword({"import", path("disk"), path("image"), "--jobs", "0"}).exitStatus, 2);
    EXPECT_EQ(runWithPassword({"export", path("disk"), path("out"), "--jobs", "0"}).exitStatus, 2);
}

TEST_F(CommandLineTest, EmptyPasswordFileIsRefused)
{
    writeFile(path("empty"), "\n");
    const RunResult result = run({"create", path("disk"), "--size", "1M", "--password-file", path("empty")});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_NE(result.err.find("is empty"), std::string::npos) << result.err;
}

} // namespace
} // namespace clitest
