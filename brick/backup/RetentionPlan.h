// CRetentionPlan: which disks of a chain a schedule of backups keeps, chosen
// by each disk's creation time, and the removal of the others.
//
// The rules, as users of backup tools know them, look at the snapshots newest
// first (the top disk of the chain is never one of them and is always kept):
//   - keep last N: the N newest snapshots;
//   - keep hourly, daily, weekly, monthly, yearly N: for each of the N most
//     recent hours, days, ISO weeks (Monday to Sunday), months or years that
//     hold a snapshot, the newest snapshot of that period; periods are
//     counted in UTC;
//   - keep within D: every snapshot made less than D seconds before the
//     newest snapshot (strictly newer than the newest time minus D), so that
//     a schedule that stopped keeps its last stretch instead of losing it.
// A snapshot kept by any rule stays, with every rule that keeps it. Snapshots
// with the same time count in the chain's order, the one nearer the top as the
// newer. A snapshot whose time is not known is kept and counts for no rule; a
// snapshot whose making or removal was cut short (it no longer opens) is
// removed and counts for no rule either.
//
// All calls are static, keep no state and may run on any thread; carryOut
// calls its hooks on the caller's thread.
#pragma once

#include "brick/chain/BrickDiskRemover.h"

#include "zo/Export.h"
#include "zo/FileSystem.h"
#include "zo/URI.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace brick {

class BRICKDISK_EXPORT CRetentionPlan {
public:
    // How many snapshots each rule keeps; 0 (or no `keepWithinSeconds`) turns
    // the rule off.
    struct Rules {
        int keepLast = 0;
        int keepHourly = 0;
        int keepDaily = 0;
        int keepWeekly = 0;
        int keepMonthly = 0;
        int keepYearly = 0;
        std::optional<zo::int64> keepWithinSeconds;

        // True when at least one rule is on: without one every snapshot
        // would go, which callers refuse.
        bool anyRule() const;
    };

    // Why a disk is kept.
    enum class Reason {
        Top, // the top of the chain, never removed
        UnknownTime, // its creation time is not known
        Last,
        Hourly,
        Daily,
        Weekly,
        Monthly,
        Yearly,
        Within
    };
    // "top", "unknown time", "last", "hourly", "daily", "weekly", "monthly",
    // "yearly", "within".
    static const char* getReasonName(Reason reason);

    // One disk of the chain as the plan sees it.
    struct Disk {
        zo::CURI folder;
        // Seconds since 1970-01-01 00:00:00 UTC; nothing when not known.
        std::optional<zo::int64> created;
        // Its making or its removal was cut short (CBrickDisk::getCompletion).
        bool unfinished = false;
    };

    // The disks of the chain that `diskFolder` (any disk of it) belongs to,
    // top first, then each older snapshot along the child links, with their
    // creation times (nothing when a disk has no record or none that can be
    // read). A snapshot whose removal was cut short after its parent was
    // tied to its child is still found, through the child's parent link,
    // so that it can be finished. Needs no password. Throws the errors of
    // CBrickDiskChain for `diskFolder` and a broken chain, CError "Child link
    // loop detected in brick disk." ("diskFolder", "loopFolder") when the
    // child links run in a circle, and the file system's errors.
    static std::vector<Disk> readChain(zo::IFileSystem* fs, const zo::CURI& diskFolder);

    // The plan's verdict on one disk.
    struct Decision {
        Disk disk;
        // The rules that keep it, in the order of Reason; empty for a disk
        // to remove.
        std::vector<Reason> reasons;

        bool isKept() const { return !reasons.empty(); }
    };

    // Decides for each disk of `chain`, given top first and then each older
    // snapshot in the chain's order: the result has one decision per disk,
    // in the same order. The first disk is the top and is always kept.
    // Throws CError "The retention plan needs at least one rule." when no
    // rule is on, and "The retention plan needs the disks of a chain." for an
    // empty chain.
    static std::vector<Decision> decide(const std::vector<Disk>& chain, const Rules& rules);

    // What `carryOut` lets its caller do around each removal.
    struct Hooks {
        // Called before a disk is removed, e.g. to lock it and its parent;
        // what it throws ends the removals there and passes through.
        std::function<void(const zo::CURI& disk)> beforeRemoval;
        // Called after a disk has been removed, with what the removal did;
        // it should not throw.
        std::function<void(const zo::CURI& disk, const CBrickDiskRemover::Outcome& outcome)> afterRemoval;
        // Passed to CBrickDiskRemover::remove for each removal: the chain's
        // key (empty for an unencrypted disk or one without an identity),
        // which ties the links around each removed disk.
        zo::TCryptBuffer<zo::uint8> diskKey;
        std::function<void()> checkpoint;
        CBrickDiskRemover::ProgressListener onProgress;
    };

    // Removes the disks that `plan` (from `decide`, top first) does not keep,
    // each through CBrickDiskRemover::remove: first those whose making or
    // removal was cut short (which ties the chain together again), then the
    // others, the oldest first: a removed disk then needs no bricks of its
    // own kept for an older snapshot that is about to go as well. Each removal keeps every other disk reading as
    // before when it is cut short, so whatever stops this call (the file
    // system's errors and the hooks' exceptions pass through) leaves every
    // kept disk reading exactly what it read before; calling it again with a
    // fresh plan of the same chain finishes the work. Returns the number of
    // disks removed.
    static int carryOut(zo::IFileSystem* fs, const std::vector<Decision>& plan, const Hooks& hooks = {});
};

} // namespace brick
