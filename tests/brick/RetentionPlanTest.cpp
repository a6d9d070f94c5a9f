// The retention plan alone: which snapshots each rule keeps, by creation
// time, without any files.
#include "brick/backup/RetentionPlan.h"

#include "zo/Error.h"

#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <string>
#include <vector>

namespace {

using brick::CRetentionPlan;
using Reason = CRetentionPlan::Reason;

// Seconds since the epoch of a UTC time.
zo::int64 utc(int year, unsigned month, unsigned day, int hour = 0, int minute = 0, int second = 0)
{
    using namespace std::chrono;
    const sys_days date = year_month_day(std::chrono::year(year), std::chrono::month(month), std::chrono::day(day));
    return date.time_since_epoch().count() * 86400LL + hour * 3600LL + minute * 60LL + second;
}

// A chain of the top disk "/top" and snapshots "/s1", "/s2"... in the given
// order (nearest the top first), made at `times`.
std::vector<CRetentionPlan::Disk> chainOf(const std::vector<zo::int64>& times)
{
    std::vector<CRetentionPlan::Disk> chain{{zo::CURI("/top"), utc(2020, 1, 1), false}};
    for (size_t i = 0; i < times.size(); ++i)
        chain.push_back({zo::CURI("/s" + std::to_string(i + 1)), times[i], false});
    return chain;
}

// The folders that the plan keeps, in the chain's order, the top included.
std::vector<std::string> keptFolders(const std::vector<CRetentionPlan::Decision>& plan)
{
    std::vector<std::string> kept;
    for (const CRetentionPlan::Decision& decision : plan) {
        if (decision.isKept())
            kept.push_back(decision.disk.folder.toString(true).toUTF8());
    }
    return kept;
}

std::vector<std::string> keep(const std::vector<zo::int64>& times, const CRetentionPlan::Rules& rules)
{
    return keptFolders(CRetentionPlan::decide(chainOf(times), rules));
}

CRetentionPlan::Rules rulesWith(int CRetentionPlan::Rules::*rule, int count)
{
    CRetentionPlan::Rules rules;
    rules.*rule = count;
    return rules;
}

using Folders = std::vector<std::string>;

TEST(RetentionPlan, RefusesToDecideWithoutAnyRule)
{
    EXPECT_FALSE(CRetentionPlan::Rules().anyRule());
    EXPECT_THROW(CRetentionPlan::decide(chainOf({utc(2026, 1, 1)}), CRetentionPlan::Rules()), zo::CError);
}

TEST(RetentionPlan, KeepsTheTopAlwaysAndNeverCountsIt)
{
    // The top is the newest by its time here, yet keep-last 1 keeps a snapshot.
    std::vector<CRetentionPlan::Disk> chain = chainOf({utc(2026, 3, 1), utc(2026, 2, 1)});
    chain.front().created = utc(2027, 1, 1);
    const auto plan = CRetentionPlan::decide(chain, rulesWith(&CRetentionPlan::Rules::keepLast, 1));
    EXPECT_EQ(keptFolders(plan), (Folders{"/top", "/s1"}));
    EXPECT_EQ(plan[0].reasons, std::vector<Reason>{Reason::Top});
    EXPECT_EQ(plan[1].reasons, std::vector<Reason>{Reason::Last});
    EXPECT_FALSE(plan[2].isKept());
}

TEST(RetentionPlan, KeepsTheTopOfAChainWithoutSnapshots)
{
    const auto plan = CRetentionPlan::decide(chainOf({}), rulesWith(&CRetentionPlan::Rules::keepDaily, 3));
    ASSERT_EQ(plan.size(), 1u);
    EXPECT_EQ(plan[0].reasons, std::vector<Reason>{Reason::Top});
}

TEST(RetentionPlan, KeepLastKeepsTheNewestByTimeNotByPlaceInTheChain)
{
    // s2 is the newest although s1 is nearer the top.
    const std::vector<zo::int64> times{utc(2026, 5, 2), utc(2026, 5, 3), utc(2026, 5, 1), utc(2026, 4, 1)};
    EXPECT_EQ(keep(times, rulesWith(&CRetentionPlan::Rules::keepLast, 2)), (Folders{"/top", "/s1", "/s2"}));
    EXPECT_EQ(keep(times, rulesWith(&CRetentionPlan::Rules::keepLast, 10)),
              (Folders{"/top", "/s1", "/s2", "/s3", "/s4"}));
}

TEST(RetentionPlan, SnapshotsOfTheSameTimeCountNearerTheTopAsNewer)
{
    const zo::int64 same = utc(2026, 5, 2, 9);
    EXPECT_EQ(keep({same, same, same}, rulesWith(&CRetentionPlan::Rules::keepLast, 1)), (Folders{"/top", "/s1"}));
    EXPECT_EQ(keep({utc(2026, 5, 1), same, same}, rulesWith(&CRetentionPlan::Rules::keepDaily, 1)),
              (Folders{"/top", "/s2"}));
}

TEST(RetentionPlan, KeepHourlyKeepsTheNewestOfEachRecentHour)
{
    const std::vector<zo::int64> times{utc(2026, 5, 2, 12, 0, 0), utc(2026, 5, 2, 11, 59, 59),
                                       utc(2026, 5, 2, 11, 0, 0), utc(2026, 5, 2, 10, 55),
                                       utc(2026, 5, 2, 10, 5),    utc(2026, 5, 1, 10, 30)};
    EXPECT_EQ(keep(times, rulesWith(&CRetentionPlan::Rules::keepHourly, 2)), (Folders{"/top", "/s1", "/s2"}));
    // Hours without a snapshot do not count: the fourth hour is a day earlier.
    EXPECT_EQ(keep(times, rulesWith(&CRetentionPlan::Rules::keepHourly, 4)),
              (Folders{"/top", "/s1", "/s2", "/s4", "/s6"}));
}

TEST(RetentionPlan, KeepDailySplitsDaysAtMidnightUtc)
{
    const std::vector<zo::int64> times{utc(2026, 5, 3, 0, 0, 0), utc(2026, 5, 2, 23, 59, 59), utc(2026, 5, 2, 0, 0, 0),
                                       utc(2026, 5, 1, 23, 59, 59)};
    EXPECT_EQ(keep(times, rulesWith(&CRetentionPlan::Rules::keepDaily, 3)), (Folders{"/top", "/s1", "/s2", "/s4"}));
}

TEST(RetentionPlan, KeepWeeklyUsesIsoWeeksFromMondayToSunday)
{
    // 2026-11-02 is a Monday; 2026-11-08 the Sunday of its week.
    const std::vector<zo::int64> times{utc(2026, 11, 8, 23, 59, 59), utc(2026, 11, 2, 0, 0, 0),
                                       utc(2026, 11, 1, 23, 59, 59), utc(2026, 10, 26, 0, 0, 0), utc(2026, 10, 25, 12)};
    EXPECT_EQ(keep(times, rulesWith(&CRetentionPlan::Rules::keepWeekly, 2)), (Folders{"/top", "/s1", "/s3"}));
    EXPECT_EQ(keep(times, rulesWith(&CRetentionPlan::Rules::keepWeekly, 3)), (Folders{"/top", "/s1", "/s3", "/s5"}));
}

TEST(RetentionPlan, KeepWeeklyTreatsAnIsoWeekAcrossNewYearAsOneWeek)
{
    // 2026-12-31 (Thursday) to 2027-01-03 (Sunday) are one ISO week; 2027-01-04 starts the next.
    const std::vector<zo::int64> times{utc(2027, 1, 4, 8), utc(2027, 1, 3, 8), utc(2026, 12, 31, 8),
                                       utc(2026, 12, 27, 8)};
    EXPECT_EQ(keep(times, rulesWith(&CRetentionPlan::Rules::keepWeekly, 3)), (Folders{"/top", "/s1", "/s2", "/s4"}));
}

TEST(RetentionPlan, KeepMonthlyAndYearlyFollowTheUtcCalendar)
{
    const std::vector<zo::int64> times{utc(2027, 1, 1, 0, 0, 0), utc(2026, 12, 31, 23, 59, 59), utc(2026, 12, 1),
                                       utc(2026, 11, 30, 23, 59, 59), utc(2025, 6, 1)};
    EXPECT_EQ(keep(times, rulesWith(&CRetentionPlan::Rules::keepMonthly, 3)), (Folders{"/top", "/s1", "/s2", "/s4"}));
    EXPECT_EQ(keep(times, rulesWith(&CRetentionPlan::Rules::keepYearly, 2)), (Folders{"/top", "/s1", "/s2"}));
    EXPECT_EQ(keep(times, rulesWith(&CRetentionPlan::Rules::keepYearly, 5)), (Folders{"/top", "/s1", "/s2", "/s5"}));
}

TEST(RetentionPlan, KeepWithinCountsBackFromTheNewestSnapshot)
{
    // The newest snapshot is years old: "within two days" still keeps its last two days.
    const zo::int64 newest = utc(2020, 6, 10, 12);
    const std::vector<zo::int64> times{newest, newest - 2 * 86400 + 1, newest - 2 * 86400, newest - 3 * 86400};
    CRetentionPlan::Rules rules;
    rules.keepWithinSeconds = 2 * 86400;
    const auto plan = CRetentionPlan::decide(chainOf(times), rules);
    EXPECT_EQ(keptFolders(plan), (Folders{"/top", "/s1", "/s2"}));
    EXPECT_EQ(plan[2].reasons, std::vector<Reason>{Reason::Within});
}

TEST(RetentionPlan, KeepWithinCopesWithTimesAtTheEndsOfTheRange)
{
    // Damaged records may hold any time; the ages are still right.
    const zo::int64 lowest = std::numeric_limits<zo::int64>::min();
    CRetentionPlan::Rules rules;
    rules.keepWithinSeconds = 10;
    EXPECT_EQ(keep({lowest + 5, lowest}, rules), (Folders{"/top", "/s1", "/s2"}));
    const zo::int64 highest = std::numeric_limits<zo::int64>::max();
    EXPECT_EQ(keep({highest, highest - 10, lowest}, rules), (Folders{"/top", "/s1"}));
    rules.keepWithinSeconds = highest;
    EXPECT_EQ(keep({highest, highest - 10, lowest}, rules), (Folders{"/top", "/s1", "/s2"}));
}

TEST(RetentionPlan, ASnapshotKeptBySeveralRulesListsThemAll)
{
    const std::vector<zo::int64> times{utc(2026, 5, 3, 9), utc(2026, 5, 3, 8), utc(2026, 5, 2, 9), utc(2026, 4, 30, 9)};
    CRetentionPlan::Rules rules;
    rules.keepLast = 1;
    rules.keepDaily = 2;
    rules.keepMonthly = 2;
    rules.keepWithinSeconds = 3600;
    const auto plan = CRetentionPlan::decide(chainOf(times), rules);
    EXPECT_EQ(plan[1].reasons, (std::vector<Reason>{Reason::Last, Reason::Daily, Reason::Monthly, Reason::Within}));
    EXPECT_FALSE(plan[2].isKept());
    EXPECT_EQ(plan[3].reasons, std::vector<Reason>{Reason::Daily});
    EXPECT_EQ(plan[4].reasons, std::vector<Reason>{Reason::Monthly});
}

TEST(RetentionPlan, KeepsASnapshotOfUnknownTimeWithoutCountingIt)
{
    std::vector<CRetentionPlan::Disk> chain = chainOf({utc(2026, 5, 3), 0, utc(2026, 5, 1), utc(2026, 4, 1)});
    chain[2].created.reset();
    const auto plan = CRetentionPlan::decide(chain, rulesWith(&CRetentionPlan::Rules::keepLast, 2));
    EXPECT_EQ(keptFolders(plan), (Folders{"/top", "/s1", "/s2", "/s3"}));
    EXPECT_EQ(plan[2].reasons, std::vector<Reason>{Reason::UnknownTime});
}

TEST(RetentionPlan, RemovesASnapshotWhoseRemovalWasCutShort)
{
    std::vector<CRetentionPlan::Disk> chain = chainOf({utc(2026, 5, 3), utc(2026, 5, 2), utc(2026, 5, 1)});
    chain[1].unfinished = true;
    const auto plan = CRetentionPlan::decide(chain, rulesWith(&CRetentionPlan::Rules::keepLast, 2));
    EXPECT_EQ(keptFolders(plan), (Folders{"/top", "/s2", "/s3"}));
}

} // namespace
