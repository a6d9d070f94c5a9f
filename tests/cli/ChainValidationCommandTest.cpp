// Disks whose chain is broken are refused with the broken link named, instead
// of reading zeros where the missing parent's bricks were.
#include "CliTestFixture.h"

#include <filesystem>

namespace clitest {
namespace {

class ChainValidationCommandTest : public CliTest {
protected:
    void SetUp() override
    {
        createDisk("base", "4M");
        writeFile(path("image"), makeImage(4 * 1024 * 1024, 61));
        importImage("base", "image");
        ASSERT_EQ(run({"snapshot", path("base"), path("monday")}).exitStatus, 0);
    }
};

TEST_F(ChainValidationCommandTest, ExportOfASnapshotWhoseParentIsGoneFailsNamingTheParent)
{
    std::filesystem::rename(path("base"), path("moved"));
    const RunResult exported = runWithPassword({"export", path("monday"), path("out")});
    EXPECT_EQ(exported.exitStatus, 1);
    EXPECT_NE(exported.err.find("A parent disk of the disk is missing or does not match it."), std::string::npos)
        << exported.err;
    EXPECT_NE(exported.err.find("parentFolder: " + path("base")), std::string::npos) << exported.err;
    EXPECT_NE(exported.err.find("the folder is missing"), std::string::npos) << exported.err;
    EXPECT_FALSE(std::filesystem::exists(path("out")));
}

TEST_F(ChainValidationCommandTest, ParentOfAnotherSizeIsRefusedSayingWhatDiffers)
{
    std::filesystem::rename(path("base"), path("moved"));
    createDisk("base", "8M");
    const RunResult exported = runWithPassword({"export", path("monday"), path("out")});
    EXPECT_EQ(exported.exitStatus, 1);
    EXPECT_NE(exported.err.find("disk size 8388608 instead of 4194304"), std::string::npos) << exported.err;
    EXPECT_NE(exported.err.find("another password or key"), std::string::npos) << exported.err;
    const RunResult snapshot = run({"snapshot", path("monday"), path("tuesday")});
    EXPECT_EQ(snapshot.exitStatus, 1);
    EXPECT_FALSE(std::filesystem::exists(path("tuesday/disk.brickdisk")));
}

TEST_F(ChainValidationCommandTest, SnapshotInsideAFolderOfTheChainIsRefused)
{
    const RunResult inside = run({"snapshot", path("base"), path("base/bricks/snap")});
    EXPECT_EQ(inside.exitStatus, 1);
    EXPECT_NE(inside.err.find("inside the folder of a disk of the chain"), std::string::npos) << inside.err;
    EXPECT_FALSE(std::filesystem::exists(path("base/bricks/snap")));
    const RunResult insideChild = run({"snapshot", path("base"), path("monday/snap")});
    EXPECT_EQ(insideChild.exitStatus, 1);
    EXPECT_FALSE(std::filesystem::exists(path("monday/snap")));
}

} // namespace
} // namespace clitest
