// brickdisk copy SOURCE DEST: copies a disk and the snapshots of its chain
// from any store to any store as they are stored, without the password (see
// brick::CChainCopier); a second copy to the same DEST sends only what
// changed and adds the new snapshots.
#include "Commands.h"
#include "DiskAccess.h"
#include "EmptyFolders.h"
#include "Interrupt.h"
#include "JsonWriter.h"
#include "Progress.h"
#include "Units.h"
#include "UsageError.h"

#include "brick/ChainCopier.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>

namespace cli {

namespace {

struct CopyOptions {
    std::string source;
    std::string destination;
    std::string snapshots = "all";
    std::optional<int> jobs;
    bool dryRun = false;
    bool verify = false;
    bool json = false;
};

// --snapshots all | none | a comma list of snapshot folder names.
void chooseSnapshots(const std::string& text, brick::CChainCopier::Options& copy)
{
    if (text == "all") {
        copy.snapshots = brick::CChainCopier::SnapshotChoice::All;
        return;
    }
    if (text == "none") {
        copy.snapshots = brick::CChainCopier::SnapshotChoice::None;
        return;
    }
    copy.snapshots = brick::CChainCopier::SnapshotChoice::Listed;
    std::stringstream list(text);
    std::string name;
    while (std::getline(list, name, ','))
        if (!name.empty())
            copy.snapshotNames.push_back(name);
    if (copy.snapshotNames.empty())
        throw UsageError("--snapshots needs all, none or a comma list of snapshot folder names");
}

std::string describe(const zo::CURI& folder)
{
    return folder.toString(true).toUTF8();
}

void printJson(const CopyOptions& options, const zo::CURI& source, const zo::CURI& destination,
               const brick::CChainCopier::Summary& summary, double seconds)
{
    CJsonWriter json(std::cout);
    json.beginObject();
    json.field("source", describe(source));
    json.field("destination", describe(destination));
    json.field("dryRun", options.dryRun);
    json.field("verified", options.verify && !options.dryRun);
    json.field("filesSent", summary.filesSent);
    json.field("bytesSent", summary.bytesSent);
    json.field("filesSkipped", summary.filesSkipped);
    json.field("bytesSkipped", summary.bytesSkipped);
    json.field("filesDeleted", summary.filesDeleted);
    json.field("recordsWritten", summary.recordsWritten);
    json.key("disksMade");
    json.beginArray();
    for (const zo::CURI& disk : summary.disksMade)
        json.value(describe(disk));
    json.endArray();
    json.key("snapshotsLeftOut");
    json.beginArray();
    for (const zo::CURI& disk : summary.snapshotsLeftOut)
        json.value(describe(disk));
    json.endArray();
    json.field("seconds", seconds);
    json.endObject();
}

void printSummary(const CopyOptions& options, const brick::CChainCopier::Summary& summary, double seconds)
{
    for (const zo::CURI& disk : summary.disksMade)
        std::printf("%s %s\n", options.dryRun ? "would make" : "made", describe(disk).c_str());
    for (const zo::CURI& disk : summary.snapshotsLeftOut)
        std::printf("left out %s (older than the newest snapshot of the destination)\n", describe(disk).c_str());
    std::printf("%s%s (%s) %s, %s (%s) already there, %s deleted, in %s%s\n", options.dryRun ? "dry run: " : "",
                formatCount(summary.filesSent, "brick file", "brick files").c_str(),
                formatBytes(summary.bytesSent).c_str(), options.dryRun ? "would be sent" : "sent",
                formatCount(summary.filesSkipped, "file", "files").c_str(), formatBytes(summary.bytesSkipped).c_str(),
                formatCount(summary.filesDeleted, "file", "files").c_str(), formatDuration(seconds).c_str(),
                options.verify && !options.dryRun ? ", verified" : "");
}

int runCopy(const CopyOptions& options)
{
    if (options.jobs)
        checkJobCount(*options.jobs);
    const auto start = std::chrono::steady_clock::now();
    const zo::CURI source = diskFolderURI(options.source);
    const zo::CURI destination = diskFolderURI(options.destination);
    brick::CChainCopier::Options copy;
    chooseSnapshots(options.snapshots, copy);
    copy.jobs = options.jobs ? *options.jobs : (isLocalFolder(destination) ? defaultJobCount() : 8);
    copy.dryRun = options.dryRun;
    copy.verify = options.verify;
    copy.checkpoint = throwIfInterrupted;

    // Two stores at once: one file system each.
    const zo::P<zo::IFileSystem> sourceFs = newFileSystem(source, true, 2);
    const zo::P<zo::IFileSystem> destinationFs = newFileSystem(destination, true, copy.jobs);
    loadDiskHeader(sourceFs.get(), source);
    const zo::P<brick::CBrickDiskLock> sourceLock =
        lockDisk(sourceFs.get(), source, brick::CBrickDiskLock::ForReading);
    zo::P<brick::CBrickDiskLock> destinationLock;
    const bool destinationExisted = destinationFs->pathExists(destination);
    if (!options.dryRun) {
        // The folder of a first copy is made here to be locked; the umask
        // trims the mode as for every folder of a disk.
        destinationFs->createFolder(destination, 0777);
        destinationLock = lockDisk(destinationFs.get(), destination, brick::CBrickDiskLock::ForWriting);
    }

    std::unique_ptr<CProgressBar> progress;
    zo::CURI shown;
    if (!options.json)
        copy.onProgress = [&](const brick::CChainCopier::Progress& now) {
            if (!progress || !(shown == now.disk)) {
                progress.reset();
                shown = now.disk;
                progress = std::make_unique<CProgressBar>("copy " + describe(now.disk), now.filesTotal, "files");
            }
            progress->update(now.filesDone);
        };
    brick::CChainCopier::Summary summary;
    try {
        summary = brick::CChainCopier::copy(sourceFs.get(), source, destinationFs.get(), destination, copy);
    } catch (...) {
        progress.reset();
        // A refused first copy leaves no empty folder behind.
        destinationLock.reset();
        if (!destinationExisted && isLocalFolder(destination)) {
            destinationFs->deleteFile(destination << ".lock", true);
            removeEmptyFolders(destination.toLocalPath());
        }
        throw;
    }
    progress.reset();

    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (options.json)
        printJson(options, source, destination, summary, seconds);
    else
        printSummary(options, summary, seconds);
    return 0;
}

} // namespace

CommandAction addCopyCommand(CLI::App& program)
{
    auto options = std::make_shared<CopyOptions>();
    CLI::App* command = program.add_subcommand(
        "copy", "Copy a disk and its snapshots to another folder or store as they are stored, without the password; "
                "a second copy sends only what changed");
    command->add_option("SOURCE", options->source, "Folder of the top disk of the chain")->required();
    command->add_option("DEST", options->destination,
                        "Folder of the copy's top disk; each snapshot goes where its path relative to SOURCE says, "
                        "relative to DEST")
        ->required();
    command->add_option("--snapshots", options->snapshots,
                        "all (the default), none, or a comma list of snapshot folder names (the newest ones)");
    command->add_option("-j,--jobs", options->jobs,
                        "Brick files compared and sent at once, 1 to 256 (default: one per processor; 8 for rados:// "
                        "and s3:// destinations)");
    command->add_flag("--dry-run", options->dryRun, "Print what would be sent and change nothing");
    command->add_flag("--verify", options->verify,
                      "Read back every brick file sent and every record of the copied disks, and fail when one "
                      "differs");
    command->add_flag("--json", options->json, "Print the summary as one JSON object");
    return [options] { return runCopy(*options); };
}

} // namespace cli
