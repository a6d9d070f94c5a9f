// forget and du, used as a user would: a chain of snapshots made on given
// days, thinned by retention rules (planned only, then carried out), and the
// space that each disk of a chain takes.
#include "CliTestFixture.h"

#include "brick/format/BrickDiskCreationTime.h"
#include "zo/LocalFileSystem.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace clitest {
namespace {

// 2026-05-01 00:00:00 UTC.
constexpr long long kFirstDay = 1777593600;
constexpr long long kDay = 86400;

class ForgetCommandTest : public CliTest {
protected:
    // The disk "disk" and its snapshots s1 (oldest, day 1) to s4 (day 4), each
    // of a different image; `images` holds what each disk reads.
    void makeChain()
    {
        createDisk("disk", "1M");
        for (int i = 1; i <= 4; ++i) {
            const std::string image = "v" + std::to_string(i);
            writeFile(path(image), makeImage(1024 * 1024, static_cast<unsigned>(i)).substr(0, 200000 * i));
            importImage("disk", image);
            const std::string snapshot = "s" + std::to_string(i);
            ASSERT_EQ(run({"snapshot", path("disk"), path(snapshot)}).exitStatus, 0);
            setCreated(snapshot, kFirstDay + i * kDay + 9 * 3600);
        }
        writeFile(path("v5"), makeImage(1024 * 1024, 5));
        importImage("disk", "v5");
        for (const std::string name : {"disk", "s1", "s2", "s3", "s4"})
            images[name] = exportImage(name);
    }
    void setCreated(const std::string& disk, long long seconds) const
    {
        const zo::P<zo::CLocalFileSystem> fs(new zo::CLocalFileSystem(1));
        brick::CBrickDiskCreationTime::store(fs.get(), zo::CURI(zo::String(path(disk))), seconds);
    }
    std::vector<std::string> folders() const
    {
        std::vector<std::string> present;
        for (const std::string name : {"disk", "s1", "s2", "s3", "s4"}) {
            if (std::filesystem::exists(path(name)))
                present.push_back(name);
        }
        return present;
    }

    std::map<std::string, std::string> images;
};

TEST_F(ForgetCommandTest, DryRunPrintsThePlanWithItsReasonsAndChangesNothing)
{
    makeChain();
    const RunResult result = run({"forget", path("disk"), "--keep-last", "1", "--keep-within", "2d", "--dry-run"});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_NE(result.out.find("keep   " + path("disk") + "  "), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("(top of the chain)"), std::string::npos) << result.out;
    // s4 is the newest; s3 was made a day before it, s2 two days before.
    EXPECT_NE(result.out.find("keep   " + path("s4") + "  2026-05-05 09:00:00 UTC  (last, within)"), std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("keep   " + path("s3") + "  2026-05-04 09:00:00 UTC  (within)"), std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("delete " + path("s2") + "  2026-05-03 09:00:00 UTC\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("delete " + path("s1") + "  "), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("dry run: 3 disks kept, 2 snapshots would be deleted; nothing changed"),
              std::string::npos)
        << result.out;
    EXPECT_EQ(folders(), (std::vector<std::string>{"disk", "s1", "s2", "s3", "s4"}));
    for (const auto& [name, image] : images)
        EXPECT_TRUE(exportImage(name) == image) << name;
}

TEST_F(ForgetCommandTest, DeletesWhatNoRuleKeepsAndKeptDisksReadAsBefore)
{
    makeChain();
    // Weekly: 2026-05-02 is a Saturday, 2026-05-03 a Sunday, 2026-05-04 a
    // Monday; the newest of each week is s2 and s4.
    const RunResult result = run({"forget", path("s1"), "--keep-weekly", "5", "--json"});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.out.front(), '{');
    EXPECT_NE(result.out.find("\"dryRun\": false"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("\"folder\": \"" + path("s4") +
                              "\",\n      \"created\": \"2026-05-05 09:00:00\",\n"
                              "      \"kept\": true,\n      \"reasons\": [\n        \"weekly\"\n      ]"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("\"folder\": \"" + path("s3") +
                              "\",\n      \"created\": \"2026-05-04 09:00:00\",\n"
                              "      \"kept\": false,\n      \"reasons\": [],\n      \"filesDeleted\": "),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("\"kept\": 3,\n  \"deleted\": 2\n}\n"), std::string::npos) << result.out;

    EXPECT_EQ(folders(), (std::vector<std::string>{"disk", "s2", "s4"}));
    for (const std::string name : {"disk", "s2", "s4"})
        EXPECT_TRUE(exportImage(name) == images[name]) << name;
    const RunResult listed = run({"snapshots", path("disk")});
    EXPECT_EQ(countOf(listed.out, path("")), 3u) << listed.out;

    // The chain now holds only what the rules keep: a second run deletes nothing.
    const RunResult again = run({"forget", path("disk"), "--keep-weekly", "5"});
    ASSERT_EQ(again.exitStatus, 0) << again.err;
    EXPECT_NE(again.out.find("3 disks kept, 0 snapshots deleted"), std::string::npos) << again.out;
}

TEST_F(ForgetCommandTest, ShowsProgressOfEachDeletionOnATerminal)
{
    makeChain();
    // s1 goes first, then s3, whose bricks s2 read through it.
    const RunResult result = runOnTerminal({"forget", path("disk"), "--keep-weekly", "5"}, {});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_NE(result.err.find("forget 1/2: deleting files ["), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("forget 2/2: keeping bricks for the older snapshot ["), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("forget 2/2: deleting files ["), std::string::npos) << result.err;
    EXPECT_EQ(folders(), (std::vector<std::string>{"disk", "s2", "s4"}));
    EXPECT_TRUE(exportImage("s2") == images["s2"]);
}

TEST_F(ForgetCommandTest, KeepWithinReadsDurationsOfSeveralUnits)
{
    makeChain();
    // The snapshots are 1, 2 and 3 days older than s4.
    const std::vector<std::string> all{"s4", "s3", "s2", "s1"};
    const std::map<std::string, std::vector<std::string>> keptBy{
        {"24h", {"s4"}}, {"25h", {"s4", "s3"}}, {"1d1h", {"s4", "s3"}}, {"2d", {"s4", "s3"}}, {"1w", all}, {"1m", all},
        {"1y", all}};
    for (const auto& [duration, kept] : keptBy) {
        const RunResult result = run({"forget", path("disk"), "--keep-within", duration, "--dry-run"});
        ASSERT_EQ(result.exitStatus, 0) << duration << ": " << result.err;
        for (const std::string name : {"s1", "s2", "s3", "s4"}) {
            const bool expected = std::find(kept.begin(), kept.end(), name) != kept.end();
            EXPECT_EQ(result.out.find("keep   " + path(name) + "  ") != std::string::npos, expected)
                << duration << " " << name << "\n"
                << result.out;
        }
    }
}

TEST_F(ForgetCommandTest, KeepsASnapshotWhoseCreationTimeCannotBeRead)
{
    makeChain();
    // Both copies of its record damaged.
    writeFile(path("s2") + "/created.bricktime", "not a time");
    writeFile(path("s2") + "/fallback/created.bricktime", "not a time");
    const RunResult result = run({"forget", path("disk"), "--keep-last", "1"});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_NE(result.out.find("keep   " + path("s2") + "  unknown time  (its creation time cannot be read)"),
              std::string::npos)
        << result.out;
    EXPECT_EQ(folders(), (std::vector<std::string>{"disk", "s2", "s4"}));
    for (const std::string name : {"disk", "s2", "s4"})
        EXPECT_TRUE(exportImage(name) == images[name]) << name;
}

TEST_F(ForgetCommandTest, RefusesWithoutAnyRuleOrWithABadDuration)
{
    makeChain();
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"forget", path("disk")},
          std::vector<std::string>{"forget", path("disk"), "--keep-last", "0"},
          std::vector<std::string>{"forget", path("disk"), "--keep-within", "3x"},
          std::vector<std::string>{"forget", path("disk"), "--keep-within", "0d"},
          std::vector<std::string>{"forget", path("disk"), "--keep-daily", "-1"}}) {
        const RunResult result = run(args);
        EXPECT_EQ(result.exitStatus, 2) << args.back() << ": " << result.err;
        EXPECT_TRUE(result.out.empty()) << result.out;
    }
    EXPECT_NE(run({"forget", path("disk")}).err.find("at least one --keep"), std::string::npos);
    EXPECT_EQ(folders(), (std::vector<std::string>{"disk", "s1", "s2", "s3", "s4"}));
}

TEST_F(ForgetCommandTest, DuCountsEachDiskWhatOnlyItHoldsAndTheChain)
{
    makeChain();
    // The figures, from the brick files as they lie in the folders: a brick
    // file of a disk is freed by deleting it unless the next older snapshot
    // lacks a file of that brick.
    const std::vector<std::string> chain{"disk", "s4", "s3", "s2", "s1"};
    std::vector<std::map<std::string, long long>> files;
    for (const std::string& name : chain) {
        std::map<std::string, long long> sizes;
        for (const std::string& file : brickFiles(name))
            sizes[file.substr(path(name).size())] = static_cast<long long>(std::filesystem::file_size(file));
        files.push_back(sizes);
    }
    std::string expected = "{\n  \"diskSize\": 1048576,\n  \"disks\": [\n";
    long long totalFiles = 0;
    long long totalBytes = 0;
    bool someKeptForOlder = false;
    for (size_t i = 0; i < chain.size(); ++i) {
        long long bytes = 0;
        long long onlyFiles = 0;
        long long onlyBytes = 0;
        for (const auto& [name, size] : files[i]) {
            bytes += size;
            if (i + 1 == chain.size() || files[i + 1].count(name) != 0) {
                ++onlyFiles;
                onlyBytes += size;
            }
        }
        someKeptForOlder = someKeptForOlder || onlyFiles < static_cast<long long>(files[i].size());
        totalFiles += static_cast<long long>(files[i].size());
        totalBytes += bytes;
        expected += std::string(i == 0 ? "" : ",\n") + "    {\n      \"folder\": \"" + path(chain[i]) +
            "\",\n      \"depth\": " + std::to_string(i) +
            ",\n      \"brickFiles\": " + std::to_string(files[i].size()) +
            ",\n      \"bytes\": " + std::to_string(bytes) +
            ",\n      \"onlyBrickFiles\": " + std::to_string(onlyFiles) +
            ",\n      \"onlyBytes\": " + std::to_string(onlyBytes) + "\n    }";
    }
    expected += "\n  ],\n  \"totalBrickFiles\": " + std::to_string(totalFiles) +
        ",\n  \"totalBytes\": " + std::to_string(totalBytes) + "\n}\n";
    // Some disk holds bricks that the next older snapshot reads through it.
    EXPECT_TRUE(someKeptForOlder);

    const RunResult result = run({"du", path("s3"), "--json"});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.out, expected);

    const RunResult text = run({"du", path("disk")});
    ASSERT_EQ(text.exitStatus, 0) << text.err;
    EXPECT_NE(text.out.find(path("disk") + "  (top)\n"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("chain: " + std::to_string(totalFiles) + " brick files, "), std::string::npos) << text.out;
    EXPECT_NE(text.out.find(" for a disk of 1.00 MiB ("), std::string::npos) << text.out;
}

} // namespace
} // namespace clitest
