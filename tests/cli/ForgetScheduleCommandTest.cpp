// forget on two years of backups: a chain of sixteen snapshots whose creation
// times are set to days spread over 2025 and 2026, thinned by each retention
// rule and by a combination of them. What each rule keeps is worked out by
// hand below; the command's plan must match it, and after the deletions every
// kept snapshot reads what it read before.
#include "CliTestFixture.h"

#include "brick/format/BrickDiskCreationTime.h"
#include "zo/LocalFileSystem.h"

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace clitest {
namespace {

struct Snapshot {
    const char* name;
    const char* created; // as the plan prints it, UTC
    long long seconds;
};

// Oldest first; the weekday and ISO week of each are noted for the table.
const std::vector<Snapshot> kSnapshots{
    {"t01", "2025-01-06 10:00:00", 1736157600}, // Monday, 2025-W02
    {"t02", "2025-01-20 10:00:00", 1737367200}, // Monday, 2025-W04
    {"t03", "2025-03-15 12:00:00", 1742040000}, // Saturday, 2025-W11
    {"t04", "2025-07-04 08:00:00", 1751616000}, // Friday, 2025-W27
    {"t05", "2025-12-31 23:00:00", 1767222000}, // Wednesday, 2026-W01
    {"t06", "2026-01-01 01:00:00", 1767229200}, // Thursday, 2026-W01
    {"t07", "2026-06-10 09:00:00", 1781082000}, // Wednesday, 2026-W24
    {"t08", "2026-06-28 09:00:00", 1782637200}, // Sunday, 2026-W26
    {"t09", "2026-06-29 09:00:00", 1782723600}, // Monday, 2026-W27
    {"t10", "2026-06-30 09:00:00", 1782810000}, // Tuesday, 2026-W27
    {"t11", "2026-11-20 06:00:00", 1795154400}, // Friday, 2026-W47
    {"t12", "2026-11-21 06:00:00", 1795240800}, // Saturday, 2026-W47
    {"t13", "2026-11-21 18:00:00", 1795284000}, // Saturday, 2026-W47
    {"t14", "2026-11-22 20:00:00", 1795377600}, // Sunday, 2026-W47
    {"t15", "2026-11-22 20:30:00", 1795379400}, // Sunday, 2026-W47
    {"t16", "2026-11-22 21:10:00", 1795381800}, // Sunday, 2026-W47
};

struct Expectation {
    std::vector<std::string> rules;
    // The kept snapshots with the reasons the plan gives for each.
    std::map<std::string, std::string> kept;
};

// Worked out by hand from the times above.
const std::vector<Expectation> kTable{
    // The three newest.
    {{"--keep-last", "3"}, {{"t16", "last"}, {"t15", "last"}, {"t14", "last"}}},
    // Hours 2026-11-22 21h (t16), 20h (t15 is newer than t14), 2026-11-21 18h (t13).
    {{"--keep-hourly", "3"}, {{"t16", "hourly"}, {"t15", "hourly"}, {"t13", "hourly"}}},
    // Days 2026-11-22, 11-21 (t13 after t12), 11-20, then 06-30.
    {{"--keep-daily", "4"}, {{"t16", "daily"}, {"t13", "daily"}, {"t11", "daily"}, {"t10", "daily"}}},
    // ISO weeks 2026-W47, W27 (t10), W26 (t08), W24 (t07), W01 (from Monday
    // 2025-12-29: t06 after t05), then 2025-W27.
    {{"--keep-weekly", "6"},
     {{"t16", "weekly"},
      {"t10", "weekly"},
      {"t08", "weekly"},
      {"t07", "weekly"},
      {"t06", "weekly"},
      {"t04", "weekly"}}},
    // Months 2026-11, 2026-06, 2026-01, 2025-12.
    {{"--keep-monthly", "4"}, {{"t16", "monthly"}, {"t10", "monthly"}, {"t06", "monthly"}, {"t05", "monthly"}}},
    // Only two years hold snapshots: the newest of each.
    {{"--keep-yearly", "5"}, {{"t16", "yearly"}, {"t05", "yearly"}}},
    // Newer than 160 days before t16: after 2026-06-15 21:10.
    {{"--keep-within", "160d"},
     {{"t16", "within"},
      {"t15", "within"},
      {"t14", "within"},
      {"t13", "within"},
      {"t12", "within"},
      {"t11", "within"},
      {"t10", "within"},
      {"t09", "within"},
      {"t08", "within"}}},
    // Newer than one day before t16: after 2026-11-21 21:10, so not t13.
    {{"--keep-within", "1d"}, {{"t16", "within"}, {"t15", "within"}, {"t14", "within"}}},
    // Together: each snapshot with every rule that keeps it; within one
    // hour of t16 is after 20:10, so t15 and not t14.
    {{"--keep-last", "2", "--keep-daily", "2", "--keep-weekly", "2", "--keep-monthly", "3", "--keep-yearly", "2",
      "--keep-within", "1h"},
     {{"t16", "last, daily, weekly, monthly, yearly, within"},
      {"t15", "last, within"},
      {"t13", "daily"},
      {"t10", "weekly, monthly"},
      {"t06", "monthly"},
      {"t05", "yearly"}}},
};

class ForgetScheduleCommandTest : public CliTest {
protected:
    // chain/disk and its snapshots chain/t01 (oldest) to chain/t16, each made
    // after an import that changes a few bricks, with its creation time set.
    void makeChain()
    {
        createDisk("chain/disk", "1M", cheapKeyWrappedDiskArgs());
        std::string image = makeImage(1024 * 1024, 1);
        for (size_t i = 0; i < kSnapshots.size(); ++i) {
            const std::string fresh = makeImage(1024 * 1024, 10 + static_cast<unsigned>(i));
            for (size_t at = (i % 4) * kBrickSize; at < image.size(); at += 5 * kBrickSize)
                image.replace(at, kBrickSize, fresh.substr(at, kBrickSize));
            writeFile(path("image"), image);
            importImage("chain/disk", "image");
            const std::string snapshot = std::string("chain/") + kSnapshots[i].name;
            const RunResult made = runWithPassword({"snapshot", path("chain/disk"), path(snapshot)});
            ASSERT_EQ(made.exitStatus, 0) << made.err;
            const zo::P<zo::CLocalFileSystem> fs(new zo::CLocalFileSystem(1));
            brick::CBrickDiskCreationTime::store(fs.get(), zo::CURI(zo::String(path(snapshot))), kSnapshots[i].seconds);
        }
        writeFile(path("image"), makeImage(1024 * 1024, 99));
        importImage("chain/disk", "image");
        images["disk"] = exportImage("chain/disk");
        for (const Snapshot& snapshot : kSnapshots)
            images[snapshot.name] = exportImage(std::string("chain/") + snapshot.name);
    }

    std::map<std::string, std::string> images;
};

TEST_F(ForgetScheduleCommandTest, EachRuleKeepsTheSnapshotsOfTheTableAndTheyReadAsBefore)
{
    makeChain();
    for (size_t row = 0; row < kTable.size() && !HasFailure(); ++row) {
        const Expectation& expected = kTable[row];
        std::string context;
        for (const std::string& rule : expected.rules)
            context += rule + " ";
        // Each rule on its own copy of the chain.
        const std::string folder = "rule" + std::to_string(row);
        ASSERT_EQ(run({"copy", path("chain/disk"), path(folder + "/disk")}).exitStatus, 0) << context;
        std::vector<std::string> args{"forget", path(folder + "/disk")};
        args.insert(args.end(), expected.rules.begin(), expected.rules.end());

        const RunResult result = runWithPassword(args);

        ASSERT_EQ(result.exitStatus, 0) << context << result.err;
        EXPECT_NE(result.out.find("keep   " + path(folder + "/disk") + "  "), std::string::npos) << result.out;
        for (const Snapshot& snapshot : kSnapshots) {
            const std::string disk = folder + "/" + snapshot.name;
            const auto kept = expected.kept.find(snapshot.name);
            if (kept == expected.kept.end()) {
                EXPECT_NE(result.out.find("delete " + path(disk) + "  " + snapshot.created + " UTC\n"),
                          std::string::npos)
                    << context << snapshot.name << "\n"
                    << result.out;
                EXPECT_FALSE(std::filesystem::exists(path(disk))) << context << snapshot.name;
                continue;
            }
            EXPECT_NE(
                result.out.find("keep   " + path(disk) + "  " + snapshot.created + " UTC  (" + kept->second + ")\n"),
                std::string::npos)
                << context << snapshot.name << "\n"
                << result.out;
            EXPECT_TRUE(exportImage(disk) == images[snapshot.name]) << context << snapshot.name;
        }
        EXPECT_NE(result.out.find(std::to_string(expected.kept.size() + 1) + " disks kept, " +
                                  std::to_string(kSnapshots.size() - expected.kept.size()) + " snapshots deleted"),
                  std::string::npos)
            << context << result.out;
        EXPECT_TRUE(exportImage(folder + "/disk") == images["disk"]) << context;
        std::filesystem::remove_all(path(folder));
    }
}

} // namespace
} // namespace clitest
