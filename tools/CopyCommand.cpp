// brickdisk copy SOURCE DEST: copies a disk and the snapshots of its chain
// from any store to any store as they are stored, without the password (see
// brick::CChainCopier); a second copy to the same DEST sends only what
// changed and adds the new snapshots (over S3 helped by a record of what
// earlier copies learned, kept in the user's cache folder). With --rekey, every brick is decoded
// and encoded anew under a new disk key and password (brick::CChainRekeyer),
// into a new DEST.
#include "Commands.h"
#include "DiskAccess.h"
#include "EmptyFolders.h"
#include "Interrupt.h"
#include "JsonWriter.h"
#include "KeyDerivationOptions.h"
#include "Password.h"
#include "Progress.h"
#include "Units.h"
#include "UsageError.h"

#include "brick/backup/ChainCopier.h"
#include "brick/backup/ChainRekeyer.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
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
    bool rekey = false;
    CPasswordSource passwords;
    CPasswordSource newPasswords{"--new-password-file", "BRICKDISK_NEW_PASSWORD", "new password"};
    CKeyDerivationOptions cost;
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

// The folder of the copies' records (brick::CCopyRecord) in the user's
// cache folder: $XDG_CACHE_HOME/brickdisk, else ~/.cache/brickdisk; none
// when neither names an absolute folder.
zo::CURI copyRecordFolder()
{
    const char* cache = std::getenv("XDG_CACHE_HOME");
    if (cache && *cache == '/')
        return zo::CURI(zo::String::fromUTF8(std::string(cache) + "/brickdisk"));
    const char* home = std::getenv("HOME");
    if (home && *home == '/')
        return zo::CURI(zo::String::fromUTF8(std::string(home) + "/.cache/brickdisk"));
    return zo::CURI();
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
    json.key("damagedFiles");
    json.beginArray();
    for (const zo::CURI& file : summary.damagedFiles)
        json.value(describe(file));
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

// copy --rekey: the whole chain into a new DEST under a new key.
int runRekeyedCopy(const CopyOptions& options)
{
    if (options.dryRun || options.verify || options.jobs || options.snapshots != "all")
        throw UsageError("--rekey copies every snapshot anew on one thread: it takes no --snapshots, --jobs, "
                         "--dry-run or --verify");
    const auto start = std::chrono::steady_clock::now();
    const zo::CURI source = diskFolderURI(options.source);
    const zo::CURI destination = diskFolderURI(options.destination);
    brick::CChainRekeyer::Options rekey;
    rekey.cost = options.cost.cost();
    rekey.allowExpensiveKeyDerivation = options.passwords.allowsExpensiveKdf();
    rekey.checkpoint = throwIfInterrupted;

    const zo::P<zo::IFileSystem> sourceFs = newFileSystem(source, true, 2);
    const zo::P<zo::IFileSystem> destinationFs = newFileSystem(destination, true, 2);
    loadDiskHeader(sourceFs.get(), source);
    const zo::P<brick::CBrickDiskLock> sourceLock = lockDisk(sourceFs.get(), source, brick::CBrickDiskLock::ForReading);
    rekey.password = options.passwords.forExistingDisk(options.source);
    rekey.newPassword = options.newPasswords.forNewDisk(options.destination);

    const bool destinationExisted = destinationFs->pathExists(destination);
    destinationFs->createFolder(destination, 0777);
    zo::P<brick::CBrickDiskLock> destinationLock =
        lockDisk(destinationFs.get(), destination, brick::CBrickDiskLock::ForWriting);
    brick::CChainRekeyer::Summary summary;
    try {
        summary = brick::CChainRekeyer::copy(sourceFs.get(), source, destinationFs.get(), destination, rekey);
    } catch (...) {
        // A refused copy into a new folder leaves no empty folder behind.
        destinationLock.reset();
        if (!destinationExisted && isLocalFolder(destination)) {
            destinationFs->deleteFile(destination << ".lock", true);
            removeEmptyFolders(destination.toLocalPath());
        }
        throw;
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (options.json) {
        CJsonWriter json(std::cout);
        json.beginObject();
        json.field("source", describe(source));
        json.field("destination", describe(destination));
        json.field("rekeyed", true);
        json.field("bricksReencoded", summary.bricksReencoded);
        json.key("disksMade");
        json.beginArray();
        for (const zo::CURI& disk : summary.disksMade)
            json.value(describe(disk));
        json.endArray();
        json.field("seconds", seconds);
        json.endObject();
        return 0;
    }
    for (const zo::CURI& disk : summary.disksMade)
        std::printf("made %s\n", describe(disk).c_str());
    std::printf("%s encoded anew under a new key (argon2id, %s), in %s\n",
                formatCount(summary.bricksReencoded, "brick file", "brick files").c_str(),
                CKeyDerivationOptions::describe(rekey.cost).c_str(), formatDuration(seconds).c_str());
    return 0;
}

int runCopy(const CopyOptions& options)
{
    if (options.rekey)
        return runRekeyedCopy(options);
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
    copy.recordFolder = copyRecordFolder();
    copy.checkpoint = throwIfInterrupted;

    // Two stores at once: one file system each.
    const zo::P<zo::IFileSystem> sourceFs = newFileSystem(source, true, 2);
    const zo::P<zo::IFileSystem> destinationFs = newFileSystem(destination, true, copy.jobs);
    loadDiskHeader(sourceFs.get(), source);
    const zo::P<brick::CBrickDiskLock> sourceLock = lockDisk(sourceFs.get(), source, brick::CBrickDiskLock::ForReading);
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
    // A damaged source file is sent as it is, so that the copy stays
    // detectably damaged, but the copy does not end as a success.
    for (const zo::CURI& file : summary.damagedFiles)
        std::fprintf(stderr,
                     "brickdisk: damaged brick file copied as it is (its digest does not match its bytes): %s\n",
                     describe(file).c_str());
    return summary.damagedFiles.empty() ? 0 : 1;
}

} // namespace

CommandAction addCopyCommand(CLI::App& program)
{
    auto options = std::make_shared<CopyOptions>();
    CLI::App* command = program.add_subcommand(
        "copy",
        "Copy a disk and its snapshots to another folder or store as they are stored, without the password; "
        "a second copy sends only what changed");
    command->add_option("SOURCE", options->source, "Folder of the top disk of the chain")->required();
    command
        ->add_option("DEST", options->destination,
                     "Folder of the copy's top disk; each snapshot goes where its path relative to SOURCE says, "
                     "relative to DEST")
        ->required();
    command->add_option("--snapshots", options->snapshots,
                        "all (the default), none, or a comma list of snapshot folder names (the newest ones)");
    command->add_option("-j,--jobs", options->jobs,
                        "Brick files sent at once, 1 to 256, and four times as many compared at once (default: one "
                        "per processor; 8 for rados:// and s3:// destinations)");
    command->add_flag("--dry-run", options->dryRun, "Print what would be sent and change nothing");
    command->add_flag("--verify", options->verify,
                      "Read back every brick file sent and every record of the copied disks, and fail when one "
                      "differs");
    command->add_flag("--json", options->json, "Print the summary as one JSON object");
    command->add_flag("--rekey", options->rekey,
                      "Decode every brick and encode it anew under a new disk key and password, into a new or "
                      "empty DEST (asks for the source's password, then the new one)");
    options->passwords.addOptionTo(*command);
    options->passwords.addAllowExpensiveKdfOptionTo(*command);
    options->newPasswords.addOptionTo(*command);
    options->cost.addTo(*command);
    return [options] { return runCopy(*options); };
}

} // namespace cli
