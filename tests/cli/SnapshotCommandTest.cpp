#include "CliTestFixture.h"

#include "brick/format/BrickDiskCreationTime.h"
#include "zo/LocalFileSystem.h"

#include <chrono>
#include <filesystem>
#include <optional>

namespace clitest {
namespace {

class SnapshotCommandTest : public CliTest {};

TEST_F(SnapshotCommandTest, CreationTimesAreTheDisksOwnAndStayWithACopiedChain)
{
    createDisk("disk", "1M");
    ASSERT_EQ(run({"snapshot", path("disk"), path("snap")}).exitStatus, 0);
    // The times of a chain made long ago.
    const zo::P<zo::CLocalFileSystem> fs(new zo::CLocalFileSystem(1));
    brick::CBrickDiskCreationTime::store(fs.get(), zo::CURI(zo::String(path("disk"))), 1000000000);
    brick::CBrickDiskCreationTime::store(fs.get(), zo::CURI(zo::String(path("snap"))), 1000086400);
    std::filesystem::create_directory(path("copy"));
    for (const std::string disk : {"disk", "snap"})
        std::filesystem::copy(path(disk), path("copy/" + disk), std::filesystem::copy_options::recursive);

    const RunResult text = run({"snapshots", path("copy/snap")});
    ASSERT_EQ(text.exitStatus, 0) << text.err;
    EXPECT_NE(text.out.find("created 2001-09-09 01:46:40 UTC"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("created 2001-09-10 01:46:40 UTC"), std::string::npos) << text.out;
    const RunResult json = run({"snapshots", path("copy/disk"), "--json"});
    EXPECT_NE(json.out.find("\"created\": \"2001-09-09 01:46:40\""), std::string::npos) << json.out;
    EXPECT_NE(json.out.find("\"created\": \"2001-09-10 01:46:40\""), std::string::npos) << json.out;
}

TEST_F(SnapshotCommandTest, NewDiskAndSnapshotRecordWhenTheyWereMade)
{
    const auto now = [] {
        return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    const zo::int64 before = now();
    createDisk("disk", "1M");
    ASSERT_EQ(run({"snapshot", path("disk"), path("snap")}).exitStatus, 0);
    const zo::int64 after = now();
    const zo::P<zo::CLocalFileSystem> fs(new zo::CLocalFileSystem(1));
    for (const std::string disk : {"disk", "snap"}) {
        const std::optional<zo::int64> created =
            brick::CBrickDiskCreationTime::load(fs.get(), zo::CURI(zo::String(path(disk))));
        ASSERT_TRUE(created.has_value()) << disk;
        EXPECT_GE(*created, before) << disk;
        EXPECT_LE(*created, after) << disk;
    }
}

TEST_F(SnapshotCommandTest, DiskWithoutCreationRecordShowsItsFolderTime)
{
    createDisk("disk", "1M");
    std::filesystem::remove(path("disk/created.bricktime"));
    std::filesystem::remove(path("disk/fallback/created.bricktime"));
    const RunResult json = run({"snapshots", path("disk"), "--json"});
    ASSERT_EQ(json.exitStatus, 0) << json.err;
    EXPECT_EQ(json.out.find("\"created\": \"\""), std::string::npos) << json.out;
    EXPECT_NE(json.out.find("\"created\": \"20"), std::string::npos) << json.out;
}

TEST_F(SnapshotCommandTest, SnapshotKeepsTheOldImageAfterAChangedImport)
{
    createDisk("disk", "2M");
    const std::string before = makeImage(2 * 1024 * 1024, 30);
    writeFile(path("image"), before);
    importImage("disk", "image");
    const RunResult snapshot = run({"snapshot", path("disk"), path("snap")});
    ASSERT_EQ(snapshot.exitStatus, 0) << snapshot.err;
    EXPECT_TRUE(brickFiles("snap").empty());

    std::string after = before;
    after.replace(3 * kBrickSize, 100, std::string(100, 'C'));
    after.replace(20 * kBrickSize, kBrickSize, std::string(kBrickSize, '\0'));
    writeFile(path("image"), after);
    importImage("disk", "image");

    EXPECT_EQ(exportImage("snap"), before);
    EXPECT_EQ(exportImage("disk"), after);
    // The snapshot holds only the old versions of the two changed bricks.
    EXPECT_EQ(brickFiles("snap").size(), 2u);
}

TEST_F(SnapshotCommandTest, EachSnapshotOfAChainKeepsItsOwnView)
{
    createDisk("disk", "1M");
    std::vector<std::string> versions{makeImage(1024 * 1024, 31)};
    writeFile(path("image"), versions[0]);
    importImage("disk", "image");
    for (int i = 1; i <= 2; ++i) {
        ASSERT_EQ(run({"snapshot", path("disk"), path("snap" + std::to_string(i))}).exitStatus, 0);
        std::string next = versions.back();
        next.replace(static_cast<size_t>(i) * kBrickSize, 10, std::string(10, static_cast<char>('0' + i)));
        next.replace(7 * kBrickSize, 10, std::string(10, static_cast<char>('a' + i)));
        versions.push_back(next);
        writeFile(path("image"), next);
        importImage("disk", "image");
    }

    EXPECT_EQ(exportImage("snap1"), versions[0]);
    EXPECT_EQ(exportImage("snap2"), versions[1]);
    EXPECT_EQ(exportImage("disk"), versions[2]);
}

TEST_F(SnapshotCommandTest, StandAloneChildTakesWritesWithoutChangingItsParent)
{
    createDisk("disk", "1M");
    const std::string base = makeImage(1024 * 1024, 32);
    writeFile(path("image"), base);
    importImage("disk", "image");
    ASSERT_EQ(run({"child", path("disk"), path("overlay"), "--stand-alone"}).exitStatus, 0);
    EXPECT_EQ(exportImage("overlay"), base);

    std::string changed = base;
    changed.replace(kBrickSize, kBrickSize, std::string(kBrickSize, '\0'));
    changed[9 * kBrickSize] = 'Q';
    writeFile(path("changed"), changed);
    ASSERT_EQ(runWithPassword({"import", path("overlay"), path("changed"), "--allow-parent"}).exitStatus, 0);

    EXPECT_EQ(exportImage("overlay"), changed);
    EXPECT_EQ(exportImage("disk"), base);
    const RunResult info = run({"info", path("disk"), "--json"});
    EXPECT_NE(info.out.find("\"child\": null"), std::string::npos) << info.out;
}

TEST_F(SnapshotCommandTest, LinkedChildIsWhatSnapshotMakes)
{
    createDisk("disk", "1M");
    ASSERT_EQ(run({"child", path("disk"), path("linked")}).exitStatus, 0);

    const RunResult info = run({"info", path("disk"), "--json"});
    EXPECT_NE(info.out.find("\"child\": \"" + path("linked") + "\""), std::string::npos) << info.out;
    const RunResult childInfo = run({"info", path("linked"), "--json"});
    EXPECT_NE(childInfo.out.find("\"parents\": [\n    \"" + path("disk") + "\"\n  ]"), std::string::npos)
        << childInfo.out;
}

TEST_F(SnapshotCommandTest, RefusesAFolderThatIsNotEmptyAndAMissingParent)
{
    createDisk("disk", "1M");
    createDisk("other", "1M");
    const RunResult busy = run({"snapshot", path("disk"), path("other")});
    EXPECT_EQ(busy.exitStatus, 1);
    EXPECT_NE(busy.err.find("not empty"), std::string::npos) << busy.err;

    const RunResult missing = run({"snapshot", path("nothing"), path("snap")});
    EXPECT_EQ(missing.exitStatus, 1);
    EXPECT_NE(missing.err.find("Disk folder does not exist."), std::string::npos) << missing.err;
}

} // namespace
} // namespace clitest

namespace clitest {
namespace {

class StandAloneChildTest : public CliTest {};

TEST_F(StandAloneChildTest, StandAloneChildOfADiskWithASnapshotLeavesTheSnapshotAlone)
{
    createDisk("disk", "1M");
    const std::string image = makeImage(1024 * 1024, 91);
    writeFile(path("image"), image);
    importImage("disk", "image");
    ASSERT_EQ(run({"snapshot", path("disk"), path("monday")}).exitStatus, 0);
    ASSERT_EQ(run({"child", path("disk"), path("overlay"), "--stand-alone"}).exitStatus, 0);
    EXPECT_FALSE(std::filesystem::exists(path("overlay/child.bricklnk")));
    EXPECT_FALSE(std::filesystem::exists(path("overlay/fallback/child.bricklnk")));

    writeFile(path("other"), makeImage(1024 * 1024, 92));
    const RunResult written = runWithPassword({"import", path("overlay"), path("other"), "--allow-parent"});
    ASSERT_EQ(written.exitStatus, 0) << written.err;
    EXPECT_TRUE(brickFiles("monday").empty());
    EXPECT_EQ(exportImage("monday"), image);
    const RunResult check = runWithPassword({"check", path("monday"), "--read-data"});
    EXPECT_EQ(check.exitStatus, 0) << check.out;
}

} // namespace
} // namespace clitest
