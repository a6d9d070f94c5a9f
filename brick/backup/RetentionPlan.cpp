#include "brick/backup/RetentionPlan.h"

#include "brick/chain/BrickDisk.h"
#include "brick/detail/ChainWalk.h"
#include "brick/format/BrickDiskCreationTime.h"

#include "zo/Error.h"

#include <algorithm>
#include <chrono>
#include <set>

namespace brick {

namespace {

constexpr zo::int64 kSecondsPerHour = 3600;
constexpr zo::int64 kSecondsPerDay = 24 * kSecondsPerHour;

zo::int64 floorDivide(zo::int64 value, zo::int64 divisor)
{
    const zo::int64 quotient = value / divisor;
    return quotient * divisor > value ? quotient - 1 : quotient;
}

std::chrono::year_month_day civilDate(zo::int64 seconds)
{
    return std::chrono::year_month_day(std::chrono::sys_days(std::chrono::days(floorDivide(seconds, kSecondsPerDay))));
}

// The hour, day, ISO week, month or year (UTC) that `seconds` lies in, as a
// number that differs between periods of the same kind.
zo::int64 hourOf(zo::int64 seconds)
{
    return floorDivide(seconds, kSecondsPerHour);
}

zo::int64 dayOf(zo::int64 seconds)
{
    return floorDivide(seconds, kSecondsPerDay);
}

// The day number of the week's Monday: 1970-01-01 was a Thursday, three days
// after a Monday.
zo::int64 isoWeekOf(zo::int64 seconds)
{
    const zo::int64 day = dayOf(seconds);
    return day - (day + 3 - 7 * floorDivide(day + 3, 7));
}

zo::int64 monthOf(zo::int64 seconds)
{
    const std::chrono::year_month_day date = civilDate(seconds);
    return static_cast<zo::int64>(static_cast<int>(date.year())) * 12 + static_cast<unsigned>(date.month()) - 1;
}

zo::int64 yearOf(zo::int64 seconds)
{
    return static_cast<int>(civilDate(seconds).year());
}

// A rule that keeps the newest snapshot of each of its `count` most recent
// periods.
struct PeriodRule {
    int count;
    zo::int64 (*periodOf)(zo::int64 seconds);
    CRetentionPlan::Reason reason;
};

void addReason(CRetentionPlan::Decision& decision, CRetentionPlan::Reason reason)
{
    auto& reasons = decision.reasons;
    reasons.insert(std::upper_bound(reasons.begin(), reasons.end(), reason), reason);
}

} // namespace

bool CRetentionPlan::Rules::anyRule() const
{
    return keepLast > 0 || keepHourly > 0 || keepDaily > 0 || keepWeekly > 0 || keepMonthly > 0 || keepYearly > 0 ||
        keepWithinSeconds.has_value();
}

const char* CRetentionPlan::getReasonName(Reason reason)
{
    switch (reason) {
    case Reason::Top:
        return "top";
    case Reason::UnknownTime:
        return "unknown time";
    case Reason::Last:
        return "last";
    case Reason::Hourly:
        return "hourly";
    case Reason::Daily:
        return "daily";
    case Reason::Weekly:
        return "weekly";
    case Reason::Monthly:
        return "monthly";
    case Reason::Yearly:
        return "yearly";
    case Reason::Within:
        return "within";
    }
    return "?";
}

std::vector<CRetentionPlan::Disk> CRetentionPlan::readChain(zo::IFileSystem* fs, const zo::CURI& diskFolder)
{
    const CBrickDiskChain chain(fs, diskFolder);
    std::vector<Disk> disks;
    for (const zo::CURI& folder : detail::walkChainDown(fs, chain)) {
        Disk disk;
        disk.folder = folder;
        disk.unfinished = CBrickDisk::getCompletion(fs, folder) != CBrickDisk::Finished;
        try {
            disk.created = CBrickDiskCreationTime::load(fs, folder);
        } catch (const zo::CError&) {
            // A damaged record leaves the time unknown, which keeps the disk.
        }
        disks.push_back(disk);
    }
    return disks;
}

std::vector<CRetentionPlan::Decision> CRetentionPlan::decide(const std::vector<Disk>& chain, const Rules& rules)
{
    if (!rules.anyRule())
        throw zo::CError("The retention plan needs at least one rule.");
    if (chain.empty())
        throw zo::CError("The retention plan needs the disks of a chain.");
    std::vector<Decision> plan;
    for (const Disk& disk : chain)
        plan.push_back(Decision{disk, {}});
    plan.front().reasons.push_back(Reason::Top);

    // The snapshots that the rules choose from, newest first; equal times in
    // the chain's order.
    std::vector<Decision*> candidates;
    for (size_t i = 1; i < plan.size(); ++i) {
        if (plan[i].disk.unfinished)
            continue;
        if (plan[i].disk.created)
            candidates.push_back(&plan[i]);
        else
            plan[i].reasons.push_back(Reason::UnknownTime);
    }
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const Decision* a, const Decision* b) { return *a->disk.created > *b->disk.created; });

    for (size_t i = 0; i < candidates.size() && i < static_cast<size_t>(std::max(rules.keepLast, 0)); ++i)
        addReason(*candidates[i], Reason::Last);

    const PeriodRule periodRules[] = {{rules.keepHourly, hourOf, Reason::Hourly},
                                      {rules.keepDaily, dayOf, Reason::Daily},
                                      {rules.keepWeekly, isoWeekOf, Reason::Weekly},
                                      {rules.keepMonthly, monthOf, Reason::Monthly},
                                      {rules.keepYearly, yearOf, Reason::Yearly}};
    for (const PeriodRule& rule : periodRules) {
        int kept = 0;
        std::optional<zo::int64> lastPeriod;
        for (Decision* candidate : candidates) {
            if (kept >= rule.count)
                break;
            const zo::int64 period = rule.periodOf(*candidate->disk.created);
            if (lastPeriod == period)
                continue;
            lastPeriod = period;
            addReason(*candidate, rule.reason);
            ++kept;
        }
    }

    if (rules.keepWithinSeconds && !candidates.empty()) {
        // The age against the newest, in unsigned arithmetic: records of any
        // time (a damaged one too) give the right difference without overflow.
        const auto newest = static_cast<zo::uint64>(*candidates.front()->disk.created);
        for (Decision* candidate : candidates) {
            if (newest - static_cast<zo::uint64>(*candidate->disk.created) <
                static_cast<zo::uint64>(*rules.keepWithinSeconds))
                addReason(*candidate, Reason::Within);
        }
    }
    return plan;
}

int CRetentionPlan::carryOut(zo::IFileSystem* fs, const std::vector<Decision>& plan, const Hooks& hooks)
{
    std::vector<zo::CURI> removals;
    for (const Decision& decision : plan) {
        if (!decision.isKept() && decision.disk.unfinished)
            removals.push_back(decision.disk.folder);
    }
    for (auto it = plan.rbegin(); it != plan.rend(); ++it) {
        if (!it->isKept() && !it->disk.unfinished)
            removals.push_back(it->disk.folder);
    }
    for (const zo::CURI& folder : removals) {
        if (hooks.beforeRemoval)
            hooks.beforeRemoval(folder);
        const CBrickDiskRemover::Outcome outcome =
            CBrickDiskRemover::remove(fs, folder, hooks.diskKey, hooks.checkpoint, hooks.onProgress);
        if (hooks.afterRemoval)
            hooks.afterRemoval(folder, outcome);
    }
    return static_cast<int>(removals.size());
}

} // namespace brick
