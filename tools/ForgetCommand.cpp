// brickdisk forget DISK --keep-...: thins the chain that DISK belongs to by
// the retention rules of backup tools, chosen by each snapshot's creation
// time (see CRetentionPlan), and deletes the snapshots that no rule keeps the
// way `delete` does, so every kept disk reads exactly as before.
#include "Commands.h"
#include "DiskAccess.h"
#include "EmptyFolders.h"
#include "Interrupt.h"
#include "JsonWriter.h"
#include "Progress.h"
#include "Units.h"
#include "UsageError.h"

#include "brick/backup/RetentionPlan.h"
#include "brick/chain/BrickDiskChain.h"
#include "zo/Error.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace cli {

namespace {

struct ForgetOptions {
    std::string disk;
    brick::CRetentionPlan::Rules rules;
    std::string keepWithin;
    bool dryRun = false;
    bool json = false;
    CPasswordSource passwords;
};

// Why a disk is kept, or goes, in plain words.
std::string describe(const brick::CRetentionPlan::Decision& decision)
{
    if (!decision.isKept())
        return decision.disk.unfinished ? "its making or deletion was cut short" : std::string();
    std::string text;
    for (brick::CRetentionPlan::Reason reason : decision.reasons) {
        if (!text.empty())
            text += ", ";
        if (reason == brick::CRetentionPlan::Reason::Top)
            text += "top of the chain";
        else if (reason == brick::CRetentionPlan::Reason::UnknownTime)
            text += "its creation time cannot be read";
        else
            text += brick::CRetentionPlan::getReasonName(reason);
    }
    return text;
}

// The newer disk that `disk` hangs from: named by its parent link, or, for a
// snapshot whose making or deletion was cut short, by its mark.
zo::CURI parentOf(zo::IFileSystem* fs, const zo::CURI& disk)
{
    zo::String link = brick::CBrickDisk::getParentLinkFileName();
    switch (brick::CBrickDisk::getCompletion(fs, disk)) {
    case brick::CBrickDisk::CreationUnfinished:
        link = brick::CBrickDisk::getCreatingMarkFileName();
        break;
    case brick::CBrickDisk::RemovalUnfinished:
        link = brick::CBrickDisk::getRemovingMarkFileName();
        break;
    case brick::CBrickDisk::Finished:
        break;
    }
    return brick::CBrickDiskChain::loadLinkedFolder(fs, disk, link);
}

std::string createdText(const brick::CRetentionPlan::Decision& decision)
{
    return decision.disk.created ? formatUtcTime(*decision.disk.created) : std::string();
}

void printPlan(const std::vector<brick::CRetentionPlan::Decision>& plan)
{
    for (const brick::CRetentionPlan::Decision& decision : plan) {
        const std::string created = decision.disk.created ? createdText(decision) + " UTC" : "unknown time";
        const std::string why = describe(decision);
        std::printf("%-6s %s  %s%s\n", decision.isKept() ? "keep" : "delete",
                    decision.disk.folder.toLocalPath().c_str(), created.c_str(),
                    why.empty() ? "" : ("  (" + why + ")").c_str());
    }
}

void printJson(const std::vector<brick::CRetentionPlan::Decision>& plan, bool dryRun,
               const std::map<std::string, brick::CBrickDiskRemover::Outcome>& outcomes)
{
    CJsonWriter json(std::cout);
    json.beginObject();
    json.field("dryRun", dryRun);
    json.key("disks");
    json.beginArray();
    zo::int64 kept = 0;
    for (const brick::CRetentionPlan::Decision& decision : plan) {
        json.beginObject();
        json.field("folder", decision.disk.folder.toLocalPath());
        json.field("created", createdText(decision));
        json.field("kept", decision.isKept());
        json.key("reasons");
        json.beginArray();
        for (brick::CRetentionPlan::Reason reason : decision.reasons)
            json.value(brick::CRetentionPlan::getReasonName(reason));
        json.endArray();
        if (decision.disk.unfinished)
            json.field("unfinished", true);
        const auto outcome = outcomes.find(decision.disk.folder.toString(true).toUTF8());
        if (outcome != outcomes.end()) {
            json.field("filesDeleted", outcome->second.filesDeleted);
            json.field("bricksKeptForOlder", outcome->second.bricksCopied);
        }
        json.endObject();
        kept += decision.isKept() ? 1 : 0;
    }
    json.endArray();
    json.field("kept", kept);
    json.field("deleted", static_cast<zo::int64>(dryRun ? 0 : outcomes.size()));
    json.endObject();
}

int runForget(const ForgetOptions& options)
{
    brick::CRetentionPlan::Rules rules = options.rules;
    if (!options.keepWithin.empty())
        rules.keepWithinSeconds = parseDuration(options.keepWithin, "--keep-within");
    if (!rules.anyRule())
        throw UsageError("forget needs at least one --keep-... rule; without one every snapshot would be deleted");

    const zo::CURI folder = diskFolderURI(options.disk);
    const zo::P<zo::IFileSystem> fs = newFileSystem(folder, true, 2);
    loadDiskHeader(fs.get(), folder);
    const std::vector<brick::CRetentionPlan::Decision> plan =
        brick::CRetentionPlan::decide(brick::CRetentionPlan::readChain(fs.get(), folder), rules);
    zo::int64 toDelete = 0;
    for (const brick::CRetentionPlan::Decision& decision : plan)
        toDelete += decision.isKept() ? 0 : 1;
    if (!options.json)
        printPlan(plan);

    std::map<std::string, brick::CBrickDiskRemover::Outcome> outcomes;
    if (!options.dryRun && toDelete > 0) {
        // As `delete` does: the disk alone while it goes, its parent kept
        // from writers (who would keep old bricks in it); readers go on.
        zo::P<brick::CBrickDiskLock> diskLock;
        zo::P<brick::CBrickDiskLock> parentLock;
        std::unique_ptr<CProgressBar> progress;
        auto shown = brick::CBrickDiskRemover::Phase::CopyingBricks;
        std::string label;
        brick::CRetentionPlan::Hooks hooks;
        hooks.diskKey = keyForLinks(fs.get(), folder, options.passwords);
        hooks.beforeRemoval = [&](const zo::CURI& disk) {
            throwIfInterrupted();
            const zo::CURI parent = parentOf(fs.get(), disk);
            diskLock = lockDisk(fs.get(), disk, brick::CBrickDiskLock::ForWriting);
            if (!parent.isEmpty() && fs->folderExists(parent))
                parentLock = lockDisk(fs.get(), parent, brick::CBrickDiskLock::ForReading);
            label = "forget " + std::to_string(outcomes.size() + 1) + "/" + std::to_string(toDelete) + ": ";
            progress.reset();
        };
        hooks.onProgress = [&](brick::CBrickDiskRemover::Phase phase, zo::int64 done, zo::int64 total) {
            if (!progress || phase != shown) {
                progress.reset();
                shown = phase;
                const bool copying = phase == brick::CBrickDiskRemover::Phase::CopyingBricks;
                progress = std::make_unique<CProgressBar>(
                    label + (copying ? "keeping bricks for the older snapshot" : "deleting files"), total,
                    copying ? "bricks" : "files");
            }
            progress->update(done);
        };
        hooks.checkpoint = throwIfInterrupted;
        hooks.afterRemoval = [&](const zo::CURI& disk, const brick::CBrickDiskRemover::Outcome& outcome) {
            progress.reset();
            diskLock.reset();
            parentLock.reset();
            if (isLocalFolder(disk))
                removeEmptyFolders(disk.toLocalPath());
            outcomes[disk.toString(true).toUTF8()] = outcome;
            if (!options.json)
                std::printf("deleted %s (%s, %s kept for the older snapshot)\n", disk.toLocalPath().c_str(),
                            formatCount(outcome.filesDeleted, "file", "files").c_str(),
                            formatCount(outcome.bricksCopied, "brick", "bricks").c_str());
        };
        brick::CRetentionPlan::carryOut(fs.get(), plan, hooks);
    }

    if (options.json) {
        printJson(plan, options.dryRun, outcomes);
    } else {
        const std::string kept = formatCount(static_cast<zo::int64>(plan.size()) - toDelete, "disk", "disks");
        if (options.dryRun)
            std::printf("dry run: %s kept, %s would be deleted; nothing changed\n", kept.c_str(),
                        formatCount(toDelete, "snapshot", "snapshots").c_str());
        else
            std::printf("%s kept, %s deleted\n", kept.c_str(),
                        formatCount(static_cast<zo::int64>(outcomes.size()), "snapshot", "snapshots").c_str());
    }
    return 0;
}

} // namespace

CommandAction addForgetCommand(CLI::App& program)
{
    auto options = std::make_shared<ForgetOptions>();
    CLI::App* command = program.add_subcommand(
        "forget", "Delete the snapshots of a chain that no --keep rule keeps; every kept disk reads exactly as before");
    command->add_option("DISK", options->disk, "Folder of any disk of the chain")->required();
    brick::CRetentionPlan::Rules& rules = options->rules;
    const auto count = [&](const char* name, int& value, const char* text) {
        command->add_option(name, value, text)->check(CLI::NonNegativeNumber);
    };
    count("--keep-last", rules.keepLast, "Keep the N newest snapshots");
    count("--keep-hourly", rules.keepHourly, "Keep the newest snapshot of each of the last N hours that have one");
    count("--keep-daily", rules.keepDaily, "Keep the newest snapshot of each of the last N days that have one");
    count("--keep-weekly", rules.keepWeekly, "Keep the newest snapshot of each of the last N ISO weeks that have one");
    count("--keep-monthly", rules.keepMonthly, "Keep the newest snapshot of each of the last N months that have one");
    count("--keep-yearly", rules.keepYearly, "Keep the newest snapshot of each of the last N years that have one");
    command->add_option("--keep-within", options->keepWithin,
                        "Keep every snapshot made within DURATION (12h, 2d, 1w, 1m, 1y) of the newest one");
    command->add_flag("--dry-run", options->dryRun, "Print the plan and change nothing");
    command->add_flag("--json", options->json, "Print the plan and what was deleted as one JSON object");
    // The links of an encrypted disk of the authenticated format are tied
    // under its key.
    options->passwords.addOptionTo(*command);
    options->passwords.addAllowExpensiveKdfOptionTo(*command);
    return [options] { return runForget(*options); };
}

} // namespace cli
