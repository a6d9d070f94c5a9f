// brickdisk import DISK IMAGE|- [--jobs N]: writes an image (or standard
// input) into a disk from position 0, storing only the bricks that changed.
#include "BrickImporter.h"
#include "Commands.h"
#include "DiskAccess.h"
#include "ImageSource.h"
#include "Interrupt.h"
#include "JsonWriter.h"
#include "Password.h"
#include "Progress.h"
#include "Units.h"
#include "UsageError.h"

#include "brick/chain/Brick.h"
#include "brick/chain/BrickDisk.h"
#include "brick/chain/BrickDiskChain.h"
#include "brick/format/BrickTree.h"
#include "zo/Error.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>

namespace cli {

namespace {

struct ImportOptions {
    std::string disk;
    std::string image;
    int jobs = defaultJobCount();
    bool noSync = false;
    bool allowParent = false;
    bool quiet = false;
    bool json = false;
    CPasswordSource passwords;
};

// Fails naming the lowest brick whose background save went wrong.
void throwIfAnySaveFailed(brick::CBrickDisk& disk)
{
    const zo::TList<brick::CBrick::Error>& errors = disk.getBackgroundErrorList();
    if (errors.empty())
        return;
    const brick::CBrick::Error* lowest = &errors.front();
    for (const brick::CBrick::Error& error : errors) {
        if (error.brickIndex < lowest->brickIndex)
            lowest = &error;
    }
    const zo::CURI file = disk.getDiskFolder()
        << brick::CBrickTree::getRelativeBrickURI(disk.getHeader(), lowest->brickIndex);
    throw zo::CError("Storing brick " + zo::toDecimalString(lowest->brickIndex) + " failed.", zo::String(), -1,
                     zo::CProps()
                         .add("brickIndex", lowest->brickIndex)
                         .add("brickFile", file.toString(true))
                         .add("failedBricks", static_cast<zo::int64>(errors.size())),
                     lowest->error.get());
}

void printSummary(const CBrickImporter::Counts& counts, double seconds)
{
    std::printf("imported %s in %.1f s (%s); bricks: %lld written, %lld skipped, %lld zero; %s stored\n",
                formatBytes(counts.imageBytes).c_str(), seconds, formatRate(counts.imageBytes, seconds).c_str(),
                static_cast<long long>(counts.written), static_cast<long long>(counts.skipped),
                static_cast<long long>(counts.zero), formatBytes(counts.storedBytes).c_str());
}

// The note for an image that ended before the disk did: how many bytes at
// the disk's end the import left as they were.
void printKeptTail(zo::int64 keptBytes)
{
    std::string kept = formatCount(keptBytes, "byte", "bytes") + " of the disk";
    if (keptBytes >= 1024)
        kept += " (" + formatBytes(keptBytes) + ")";
    kept += keptBytes == 1 ? " was kept as it was" : " were kept as they were";
    std::fprintf(stderr, "brickdisk: note: the image is shorter than the disk: the last %s\n", kept.c_str());
}

void printJsonSummary(const ImportOptions& options, const zo::CURI& folder, const CBrickImporter::Counts& counts,
                      zo::int64 keptBytes, double seconds)
{
    CJsonWriter json(std::cout);
    json.beginObject();
    json.field("disk", folder.toLocalPath());
    json.field("image", options.image);
    json.field("imageBytes", counts.imageBytes);
    json.field("seconds", seconds);
    json.field("bricksWritten", counts.written);
    json.field("bricksSkipped", counts.skipped);
    json.field("bricksZero", counts.zero);
    json.field("storedBytes", counts.storedBytes);
    json.field("bytesKeptAtEnd", keptBytes);
    json.endObject();
    std::cout << std::flush;
}

int runImport(const ImportOptions& options)
{
    checkJobCount(options.jobs);
    const auto start = std::chrono::steady_clock::now();
    const zo::CURI folder = diskFolderURI(options.disk);
    // Saves wait for fsync, so more of them run at once than there are
    // preparing threads.
    const int fileSystemThreads = std::max(4, 2 * options.jobs);
    const zo::P<zo::IFileSystem> fs = newFileSystem(folder, !options.noSync, fileSystemThreads);

    const brick::CBrickDiskHeader header = loadDiskHeader(fs.get(), folder);
    const zo::P<brick::CBrickDiskLock> lock = lockDisk(fs.get(), folder, brick::CBrickDiskLock::ForWriting);
    const zo::CURI parent =
        brick::CBrickDiskChain::loadLinkedFolder(fs.get(), folder, brick::CBrickDisk::getParentLinkFileName());
    if (!parent.isEmpty() && !options.allowParent)
        throw UsageError("the disk " + folder.toLocalPath() + " has a parent disk (" + parent.toLocalPath() +
                         "); give --allow-parent to write into it (its parent is never changed)");
    CImageSource source(options.image, header.getDiskSize());
    const zo::P<brick::CBrickDisk> disk =
        openDisk(fs.get(), folder, options.passwords, zo::IIOStream::AccessReadWrite, 2 * fileSystemThreads);
    disk->setAllowWritingWithParentDisk(options.allowParent);

    CBrickImporter::Counts counts;
    {
        CProgressBar progress("import", source.getSize());
        CBrickImporter importer(*disk, options.jobs);
        try {
            importer.run(source, [&](zo::int64 done) {
                throwIfInterrupted();
                progress.update(done);
            });
        } catch (...) {
            progress.clear();
            disk->flushChanges();
            throw;
        }
        counts = importer.getCounts();
        disk->flushChanges();
    }
    throwIfAnySaveFailed(*disk);
    // An image shorter than the disk leaves the disk's end as it was, which
    // a user who meant to replace the whole disk should hear of.
    const zo::int64 keptBytes = header.getDiskSize() - counts.imageBytes;
    if (counts.imageBytes == 0)
        std::fprintf(stderr, "brickdisk: warning: the image %s is empty; the disk was not changed\n",
                     options.image == "-" ? "on standard input" : options.image.c_str());
    else if (keptBytes > 0)
        printKeptTail(keptBytes);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (options.json)
        printJsonSummary(options, folder, counts, keptBytes, seconds);
    else if (!options.quiet)
        printSummary(counts, seconds);
    return 0;
}

} // namespace

CommandAction addImportCommand(CLI::App& program)
{
    auto options = std::make_shared<ImportOptions>();
    CLI::App* command =
        program.add_subcommand("import", "Write an image file (or standard input) into a disk from position 0");
    command->add_option("DISK", options->disk, "Folder of the disk")->required();
    command->add_option("IMAGE", options->image, "Image file, or - for standard input")->required();
    command->add_option("-j,--jobs", options->jobs, "Threads that compare and prepare bricks (1 to 256)")
        ->capture_default_str();
    command->add_flag("--allow-parent", options->allowParent,
                      "Allow importing into a disk that has a parent (a child disk)");
    command->add_flag("--no-sync", options->noSync,
                      "Do not wait for each brick to reach the storage device (for tests and benchmarks: a crash "
                      "can then lose bricks that were reported as stored)");
    command->add_flag("-q,--quiet", options->quiet, "Print no summary");
    command->add_flag("--json", options->json, "Print the summary as one JSON document instead of text");
    options->passwords.addOptionTo(*command);
    options->passwords.addAllowExpensiveKdfOptionTo(*command);
    return [options] { return runImport(*options); };
}

} // namespace cli
