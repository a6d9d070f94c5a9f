#include "CliTestFixture.h"

#include <filesystem>

namespace clitest {
namespace {

class CommandLineTest : public CliTest {};

TEST_F(CommandLineTest, EverySubcommandHasHelp)
{
    for (const std::string command :
         {"create", "info", "import", "export", "snapshot", "child", "check", "serve", "mount", "unmount"}) {
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

TEST_F(CommandLineTest, VersionIsTheProjectsVersion)
{
    const RunResult result = run({"--version"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.out, std::string("brickdisk ") + BRICKDISK_PROJECT_VERSION + "\n");
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

TEST_F(CommandLineTest, JobsAboveTheMaximumAreAUsageError)
{
    createDisk("disk", "1M");
    writeFile(path("image"), "abc");
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"import", path("disk"), path("image"), "--jobs", "257"},
          std::vector<std::string>{"export", path("disk"), path("out"), "--jobs", "257"},
          std::vector<std::string>{"check", path("disk"), "--jobs", "257"}}) {
        SCOPED_TRACE(args[0]);
        const RunResult result = runWithPassword(args);
        EXPECT_EQ(result.exitStatus, 2);
        EXPECT_NE(result.err.find("--jobs must be between 1 and 256"), std::string::npos) << result.err;
    }
    EXPECT_FALSE(std::filesystem::exists(path("out")));
    const RunResult most = runWithPassword({"import", path("disk"), path("image"), "--jobs", "256"});
    EXPECT_EQ(most.exitStatus, 0) << most.err;
}

TEST_F(CommandLineTest, MistypedStoreAddressIsRefusedInsteadOfBecomingAFolder)
{
    RunOptions inTestFolder;
    inTestFolder.workingFolder = m_folder.path();
    for (const std::string disk : {"s3:/mybucket/vm", "S3://mybucket/vm", "file:///srv/vm", "http://host/vm",
                                   "rados:/pool/vm", "Rados://pool/vm"}) {
        SCOPED_TRACE(disk);
        const RunResult result = runWithPassword({"create", disk, "--size", "1M", "--kdf", "pbkdf2"}, inTestFolder);
        EXPECT_EQ(result.exitStatus, 2);
        EXPECT_NE(result.err.find("Unknown storage scheme"), std::string::npos) << result.err;
        EXPECT_NE(result.err.find("rados://"), std::string::npos) << result.err;
        EXPECT_NE(result.err.find("s3://"), std::string::npos) << result.err;
    }
    for (const std::string word : {"s3:", "S3:", "file:", "http:", "rados:", "Rados:"})
        EXPECT_FALSE(std::filesystem::exists(path(word))) << word;
    const RunResult info = run({"info", "s3:/mybucket/vm"}, inTestFolder);
    EXPECT_EQ(info.exitStatus, 2);
    EXPECT_NE(info.err.find("Unknown storage scheme"), std::string::npos) << info.err;
}

TEST_F(CommandLineTest, FolderNamedLikeAnAddressIsGivenWithDotSlash)
{
    RunOptions inTestFolder;
    inTestFolder.workingFolder = m_folder.path();
    const RunResult created =
        runWithPassword({"create", "./s3:/mybucket/vm", "--size", "1M", "--kdf", "pbkdf2"}, inTestFolder);
    ASSERT_EQ(created.exitStatus, 0) << created.err;
    EXPECT_TRUE(std::filesystem::exists(path("s3:/mybucket/vm/disk.brickdisk")));
}

TEST_F(CommandLineTest, EmptyPasswordFileIsRefused)
{
    writeFile(path("empty"), "\n");
    const RunResult result = run({"create", path("disk"), "--size", "1M", "--password-file", path("empty")});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_NE(result.err.find("is empty"), std::string::npos) << result.err;
}

TEST_F(CommandLineTest, PasswordFileThatIsAFolderIsRefused)
{
    std::filesystem::create_directories(path("folder"));
    const RunResult result = run({"create", path("disk"), "--size", "1M", "--password-file", path("folder")});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_NE(result.err.find("is a folder, not a file"), std::string::npos) << result.err;
    EXPECT_FALSE(std::filesystem::exists(path("disk")));
}

TEST_F(CommandLineTest, EndlessPasswordFileIsRefusedAfter64KiB)
{
    const RunResult result = run({"create", path("disk"), "--size", "1M", "--password-file", "/dev/zero"});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_NE(result.err.find("is longer than 64 KiB"), std::string::npos) << result.err;
    EXPECT_FALSE(std::filesystem::exists(path("disk")));
}

TEST_F(CommandLineTest, PasswordFileOf64KiBIsStillAccepted)
{
    writeFile(path("long"), std::string(64 * 1024, 'p'));
    const RunResult result =
        run({"create", path("disk"), "--size", "1M", "--kdf", "pbkdf2", "--password-file", path("long")});
    EXPECT_EQ(result.exitStatus, 0) << result.err;
}

} // namespace
} // namespace clitest

namespace clitest {
namespace {

class BadInputTest : public CliTest {};

TEST_F(BadInputTest, UnknownCommandIsNamed)
{
    const RunResult result = run({"frobnicate", path("disk")});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_NE(result.err.find("unknown command 'frobnicate'"), std::string::npos) << result.err;
}

TEST_F(BadInputTest, DiskPathThatIsAFileIsCalledOne)
{
    writeFile(path("file"), "not a disk");
    const RunResult result = run({"info", path("file")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("The disk path is a file, not a folder."), std::string::npos) << result.err;
}

TEST_F(BadInputTest, EmptyDiskPathIsAUsageError)
{
    const RunResult result = run({"info", ""});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_NE(result.err.find("the disk path is empty"), std::string::npos) << result.err;
}

TEST_F(BadInputTest, EmptyImportWarnsAndChangesNothing)
{
    createDisk("disk", "1M");
    writeFile(path("empty"), "");
    const RunResult result = runWithPassword({"import", path("disk"), path("empty")});
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_NE(result.err.find("warning: the image " + path("empty") + " is empty"), std::string::npos) << result.err;
    EXPECT_TRUE(brickFiles("disk").empty());
}

TEST_F(BadInputTest, FileSystemFailuresAreToldInWordsWithoutInternalNumbers)
{
    createDisk("disk", "1M");
    // A file where the brick folders belong: every brick store fails.
    writeFile(path("disk/bricks"), "in the way");
    writeFile(path("image"), makeImage(1024 * 1024, 81));
    const RunResult result = runWithPassword({"import", path("disk"), path("image")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("Not a directory"), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find("fileSystemProblem"), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find("errno"), std::string::npos) << result.err;
}

} // namespace
} // namespace clitest
