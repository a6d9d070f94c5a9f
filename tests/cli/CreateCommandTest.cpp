#include "CliTestFixture.h"

#include <filesystem>

namespace clitest {
namespace {

class CreateCommandTest : public CliTest {};

TEST_F(CreateCommandTest, MakesAnEncryptedDiskOfTheRequestedSizes)
{
    createDisk("disk", "3M", {"--compression", "zlib-6"});

    const RunResult info = run({"info", path("disk"), "--json"});
    ASSERT_EQ(info.exitStatus, 0) << info.err;
    EXPECT_NE(info.out.find("\"diskSize\": 3145728"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("\"brickSize\": 65536"), std::string::npos);
    EXPECT_NE(info.out.find("\"brickCount\": 48"), std::string::npos);
    EXPECT_NE(info.out.find("\"encrypted\": true"), std::string::npos);
    EXPECT_NE(info.out.find("\"compression\": \"zlib-6\""), std::string::npos);
    EXPECT_TRUE(brickFiles("disk").empty());
}

TEST_F(CreateCommandTest, NewDisksInAFolderGetHalfAMiBBricksByDefault)
{
    const RunResult created = run({"create", path("disk"), "--size", "4M", "--no-encryption"});
    ASSERT_EQ(created.exitStatus, 0) << created.err;
    EXPECT_NE(created.out.find("in 8 bricks of 512 KiB"), std::string::npos) << created.out;
    EXPECT_NE(run({"info", path("disk"), "--json"}).out.find("\"brickSize\": 524288"), std::string::npos);
}

TEST_F(CreateCommandTest, NewDisksInAFolderGetLZ4ByDefault)
{
    const RunResult created = run({"create", path("disk"), "--size", "1M", "--no-encryption"});
    ASSERT_EQ(created.exitStatus, 0) << created.err;
    EXPECT_NE(created.out.find("compression lz4,"), std::string::npos) << created.out;
    const RunResult info = run({"info", path("disk"), "--json"});
    EXPECT_NE(info.out.find("\"compression\": \"lz4\""), std::string::npos) << info.out;
}

TEST_F(CreateCommandTest, SizeSuffixesArePowersOf1024)
{
    const RunResult result = run({"create", path("disk"), "--size", "1G", "--brick-size", "1m", "--no-encryption"});
    ASSERT_EQ(result.exitStatus, 0) << result.err;

    const RunResult info = run({"info", path("disk"), "--json"});
    EXPECT_NE(info.out.find("\"diskSize\": 1073741824"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("\"brickSize\": 1048576"), std::string::npos);
}

TEST_F(CreateCommandTest, DiskWithoutEncryptionNeedsNoPassword)
{
    const RunResult created = run({"create", path("disk"), "--size", "1M", "--brick-size", "64K", "--no-encryption"});
    ASSERT_EQ(created.exitStatus, 0) << created.err;
    const std::string image = makeImage(300000, 3);
    writeFile(path("image"), image);

    EXPECT_EQ(run({"import", path("disk"), path("image")}).exitStatus, 0);
    const RunResult exported = run({"export", path("disk"), "-"});
    ASSERT_EQ(exported.exitStatus, 0) << exported.err;
    EXPECT_EQ(exported.out.substr(0, image.size()), image);
    EXPECT_NE(run({"info", path("disk")}).out.find("encryption:        none"), std::string::npos);
}

TEST_F(CreateCommandTest, EveryCompressorFamilyStoresAndRestoresAnImage)
{
    const std::string image = makeImage(400000, 11);
    writeFile(path("image"), image);
    for (const std::string id : {"null", "lz4", "lz4hc", "zlib-1", "lzma-2", "lzma-1-1", "zstd-3"}) {
        SCOPED_TRACE(id);
        const std::string disk = "disk-" + id;
        createDisk(disk, "1M", {"--compression", id});
        importImage(disk, "image");
        EXPECT_EQ(exportImage(disk).substr(0, image.size()), image);
    }
}

TEST_F(CreateCommandTest, ZstdDiskNamesItsLevelAndRestoresItsImage)
{
    const std::string image = makeImage(1500000, 12);
    writeFile(path("image"), image);
    createDisk("disk", "2M", {"--compression", "zstd-3"});

    const RunResult info = run({"info", path("disk"), "--json"});
    ASSERT_EQ(info.exitStatus, 0) << info.err;
    EXPECT_NE(info.out.find("\"compression\": \"zstd-3\""), std::string::npos) << info.out;
    importImage("disk", "image");
    EXPECT_FALSE(brickFiles("disk").empty());
    EXPECT_EQ(exportImage("disk").substr(0, image.size()), image);
}

TEST_F(CreateCommandTest, BrickDigestIsSha256UnlessMd5IsChosen)
{
    const std::string image(1024 * 1024, 'h');
    writeFile(path("image"), image);
    for (const auto& [digest, size] : {std::pair<std::string, size_t>{"sha256", 32}, {"md5", 16}}) {
        SCOPED_TRACE(digest);
        const std::string disk = "disk-" + digest;
        if (digest == "sha256")
            createDisk(disk, "1M");
        else
            createDisk(disk, "1M", {"--checksum", digest});
        importImage(disk, "image");

        EXPECT_NE(run({"info", path(disk), "--json"}).out.find("\"brickDigest\": \"" + digest + "\""),
                  std::string::npos);
        EXPECT_EQ(exportImage(disk), image);
        EXPECT_EQ(runWithPassword({"check", path(disk), "--read-data"}).exitStatus, 0);
        // The last `size` bytes of a brick file are its outer digest: a
        // changed byte there is found, one just before them is found too.
        for (const size_t fromEnd : {size, size + 1}) {
            const std::string victim = brickFiles(disk)[1];
            const std::string good = readFile(victim);
            std::string bytes = good;
            bytes[bytes.size() - fromEnd] ^= 0x08;
            writeFile(victim, bytes);
            const RunResult check = run({"check", path(disk)});
            EXPECT_EQ(check.exitStatus, 1);
            EXPECT_NE(check.out.find("problem: brick 1 "), std::string::npos) << check.out;
            writeFile(victim, good);
        }
    }
}

TEST_F(CreateCommandTest, UnknownChecksumIsAUsageError)
{
    const RunResult result = runWithPassword({"create", path("disk"), "--size", "1M", "--checksum", "crc32"});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_FALSE(std::filesystem::exists(path("disk")));
}

TEST_F(CreateCommandTest, UnknownCompressionIsAUsageErrorAndCreatesNothing)
{
    for (const std::string id : {"lz5", "zlib-99", "zlib-x", "lzma-", "zstd-0", "zstd-01", "zstd--1", "zstd-20"}) {
        SCOPED_TRACE(id);
        const RunResult result = runWithPassword({"create", path("disk"), "--size", "1M", "--compression", id});
        EXPECT_EQ(result.exitStatus, 2);
        EXPECT_NE(result.err.find("brickdisk: unknown compression '" + id + "'"), std::string::npos) << result.err;
        EXPECT_FALSE(std::filesystem::exists(path("disk")));
    }
}

TEST_F(CreateCommandTest, BadSizesAreUsageErrorsAndCreateNothing)
{
    const std::vector<std::vector<std::string>> badSizes{{"--size", "12X"},
                                                         {"--size", "0"},
                                                         {"--size", "-5M"},
                                                         {"--size", "99999999999T"},
                                                         {"--size", "4M", "--brick-size", "3000"},
                                                         {"--size", "4M", "--brick-size", "1K"},
                                                         {"--size", "4M", "--brick-size", "128M"},
                                                         {"--size", "1024T", "--brick-size", "4K"},
                                                         {"--size", "9223372036854775807"},
                                                         {"--size", "9223372036854775807", "--brick-size", "64M"}};
    for (const std::vector<std::string>& sizes : badSizes) {
        SCOPED_TRACE(sizes[1] + (sizes.size() > 2 ? " " + sizes[3] : ""));
        std::vector<std::string> args{"create", path("disk")};
        args.insert(args.end(), sizes.begin(), sizes.end());
        const RunResult result = runWithPassword(args);
        EXPECT_EQ(result.exitStatus, 2) << result.err;
        EXPECT_EQ(result.err.rfind("brickdisk: ", 0), 0u) << result.err;
        EXPECT_FALSE(std::filesystem::exists(path("disk")));
    }
}

TEST_F(CreateCommandTest, RefusesAFolderThatIsNotEmpty)
{
    createDisk("disk");
    const std::string header = readFile(path("disk/disk.brickdisk"));

    const RunResult again = runWithPassword({"create", path("disk"), "--size", "2M"});
    EXPECT_EQ(again.exitStatus, 1);
    EXPECT_NE(again.err.find("not empty"), std::string::npos) << again.err;
    EXPECT_EQ(readFile(path("disk/disk.brickdisk")), header);

    std::filesystem::create_directory(path("other"));
    writeFile(path("other/notes.txt"), "keep me");
    EXPECT_EQ(runWithPassword({"create", path("other"), "--size", "2M"}).exitStatus, 1);
    EXPECT_FALSE(std::filesystem::exists(path("other/disk.brickdisk")));
}

TEST_F(CreateCommandTest, WithoutAnyPasswordSourceFailsClearly)
{
    const RunResult result = run({"create", path("disk"), "--size", "1M"});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_NE(result.err.find("--password-file"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("BRICKDISK_PASSWORD"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(path("disk/disk.brickdisk")));
}

TEST_F(CreateCommandTest, PasswordFromTheEnvironmentOpensTheDisk)
{
    RunOptions withVariable;
    withVariable.passwordVariable = kPassword;
    ASSERT_EQ(run({"create", path("disk"), "--size", "1M", "--brick-size", "64K"}, withVariable).exitStatus, 0);
    writeFile(path("image"), makeImage(100000, 5));

    // The password file holds the same password with a trailing newline.
    EXPECT_EQ(runWithPassword({"import", path("disk"), path("image")}).exitStatus, 0);
    RunOptions wrongVariable;
    wrongVariable.passwordVariable = "not the password";
    EXPECT_EQ(run({"export", path("disk"), path("out")}, wrongVariable).exitStatus, 1);
}

TEST_F(CreateCommandTest, AsksTwiceOnTheTerminalWithoutEcho)
{
    const RunResult result = runOnTerminal({"create", path("disk"), "--size", "1M", "--brick-size", "64K"},
                                           {{"New password", "typed secret\n"}, {"again", "typed secret\n"}});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.err.find("typed secret"), std::string::npos) << result.err;

    RunOptions typed;
    typed.passwordVariable = "typed secret";
    writeFile(path("image"), makeImage(70000, 9));
    EXPECT_EQ(run({"import", path("disk"), path("image")}, typed).exitStatus, 0);
}

TEST_F(CreateCommandTest, DifferentAnswersOnTheTerminalCreateNothing)
{
    const RunResult result =
        runOnTerminal({"create", path("disk"), "--size", "1M"}, {{"New password", "one\n"}, {"again", "two\n"}});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_NE(result.err.find("differ"), std::string::npos) << result.err;
    EXPECT_FALSE(std::filesystem::exists(path("disk/disk.brickdisk")));
}

TEST_F(CreateCommandTest, NoEncryptionAndAPasswordFileExcludeEachOther)
{
    const RunResult result = runWithPassword({"create", path("disk"), "--size", "1M", "--no-encryption"});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_FALSE(std::filesystem::exists(path("disk")));
}

} // namespace
} // namespace clitest
