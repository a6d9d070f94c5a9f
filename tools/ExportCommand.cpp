// brickdisk export DISK IMAGE|- [--jobs N]: reads a whole disk, with bricks
// read and decoded ahead in parallel, into an image file or standard output.
#include "Commands.h"
#include "DiskAccess.h"
#include "ImageSink.h"
#include "Interrupt.h"
#include "JsonWriter.h"
#include "Password.h"
#include "Progress.h"
#include "Units.h"

#include "brick/chain/BrickDisk.h"
#include "brick/streams/BrickDiskStreamWithParallelReadAhead.h"
#include "zo/Buffer.h"
#include "zo/Error.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace cli {

namespace {

struct ExportOptions {
    std::string disk;
    std::string image;
    std::optional<int> jobs; // when not given: defaultReadAheadJobs
    bool quiet = false;
    bool forceShare = false;
    bool force = false;
    bool skipDamaged = false;
    bool json = false;
    CPasswordSource passwords;
};

struct ExportCounts {
    zo::int64 bytes = 0;
    zo::int64 dataBricks = 0;
    zo::int64 zeroBricks = 0;
    // Bricks that could not be read and were written as zeros (--skip-damaged),
    // by index, with their files.
    std::vector<std::pair<zo::int64, std::string>> damaged;
};

// With `skipDamaged` a brick that cannot be read becomes zeros and is
// reported on stderr; otherwise it ends the export.
ExportCounts copyDisk(brick::CBrickDisk& disk, CImageSink& sink, int jobs, bool skipDamaged)
{
    const zo::int64 length = disk.getSize();
    const int brickSize = static_cast<int>(disk.getBrickSize());
    // Up to four bricks ahead per thread, so that a thread done with a missing
    // brick goes on instead of waiting behind a stored neighbour that another
    // still decodes; large bricks read fewer ahead, to keep the buffers within
    // 256 MiB where the threads allow.
    const int bricksAhead = std::max(jobs, std::min(4 * jobs, (256 << 20) / brickSize));
    const zo::P<brick::CBrickDiskStreamWithParallelReadAhead> stream(
        new brick::CBrickDiskStreamWithParallelReadAhead(&disk, jobs, bricksAhead));
    CProgressBar progress("export", length);
    ExportCounts counts;
    for (zo::int64 index = 0; counts.bytes < length; ++index) {
        const int size = static_cast<int>(std::min<zo::int64>(brickSize, length - counts.bytes));
        CImageSink::Chunk chunk = sink.takeChunk();
        chunk.resize(static_cast<size_t>(size));
        bool damaged = false;
        try {
            stream->read(chunk.data(), size);
        } catch (const zo::CError& e) {
            progress.clear();
            if (!skipDamaged)
                throwBrickReadError(disk, index, e);
            const std::string file = locateBrickFile(disk, index).toLocalPath();
            std::fprintf(stderr, "brickdisk: damaged brick %lld written as zeros (%s)\n", static_cast<long long>(index),
                         file.c_str());
            counts.damaged.emplace_back(index, file);
            std::memset(chunk.data(), 0, chunk.size());
            damaged = true;
            stream->seek(counts.bytes + size);
        }
        const bool allZero = zo::isAllZero(chunk.data(), chunk.size());
        if (!damaged)
            ++(allZero ? counts.zeroBricks : counts.dataBricks);
        sink.append(std::move(chunk), allZero);
        counts.bytes += size;
        throwIfInterrupted();
        progress.update(counts.bytes);
    }
    stream->close();
    sink.finish();
    return counts;
}

void printSummary(std::FILE* out, const ExportCounts& counts, double seconds, bool holes)
{
    std::fprintf(out, "exported %s in %.1f s (%s); bricks: %lld with data, %lld all zero%s",
                 formatBytes(counts.bytes).c_str(), seconds, formatRate(counts.bytes, seconds).c_str(),
                 static_cast<long long>(counts.dataBricks), static_cast<long long>(counts.zeroBricks),
                 holes ? " (left as holes)" : "");
    if (!counts.damaged.empty())
        std::fprintf(out, ", %zu damaged (written as zeros)", counts.damaged.size());
    std::fprintf(out, "\n");
}

void printJsonSummary(std::FILE* out, const ExportOptions& options, const zo::CURI& folder, const ExportCounts& counts,
                      double seconds, bool holes)
{
    std::ostringstream text;
    CJsonWriter json(text);
    json.beginObject();
    json.field("disk", folder.toLocalPath());
    json.field("image", options.image);
    json.field("bytes", counts.bytes);
    json.field("seconds", seconds);
    json.field("dataBricks", counts.dataBricks);
    json.field("zeroBricks", counts.zeroBricks);
    json.field("zeroBricksLeftAsHoles", holes);
    json.key("damagedBricks");
    json.beginArray();
    for (const auto& [index, file] : counts.damaged) {
        json.beginObject();
        json.field("index", index);
        json.field("file", file);
        json.endObject();
    }
    json.endArray();
    json.endObject();
    std::fputs(text.str().c_str(), out);
    std::fflush(out);
}

// Read-ahead threads mostly wait for the network on an object store, so
// there more of them than processors keep it busy.
int defaultReadAheadJobs(const zo::CURI& folder)
{
    constexpr int remoteJobs = 8;
    return isLocalFolder(folder) ? defaultJobCount() : std::max(defaultJobCount(), remoteJobs);
}

int runExport(const ExportOptions& options)
{
    if (options.jobs)
        checkJobCount(*options.jobs);
    const auto start = std::chrono::steady_clock::now();
    const zo::CURI folder = diskFolderURI(options.disk);
    const int jobs = options.jobs ? *options.jobs : defaultReadAheadJobs(folder);
    const zo::P<zo::IFileSystem> fs = newFileSystem(folder, true, 1);
    loadDiskHeader(fs.get(), folder);
    const zo::P<brick::CBrickDiskLock> lock =
        lockDisk(fs.get(), folder, brick::CBrickDiskLock::ForReading, options.forceShare);
    const zo::P<brick::CBrickDisk> disk = openDisk(fs.get(), folder, options.passwords, zo::IIOStream::AccessRead, 1);

    CImageSink sink(options.image, disk->getHeader().getDiskSize(), options.force);
    ExportCounts counts;
    try {
        counts = copyDisk(*disk, sink, jobs, options.skipDamaged);
    } catch (...) {
        sink.discard();
        throw;
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    // Standard output may be the image itself.
    std::FILE* out = options.image == "-" ? stderr : stdout;
    if (options.json)
        printJsonSummary(out, options, folder, counts, seconds, sink.leavesHoles());
    else if (!options.quiet)
        printSummary(out, counts, seconds, sink.leavesHoles());
    return counts.damaged.empty() ? 0 : 1;
}

} // namespace

CommandAction addExportCommand(CLI::App& program)
{
    auto options = std::make_shared<ExportOptions>();
    CLI::App* command = program.add_subcommand("export", "Read a whole disk into an image file (or standard output)");
    command->add_option("DISK", options->disk, "Folder of the disk")->required();
    command
        ->add_option("IMAGE", options->image,
                     "Image file (created, or replaced with --force; all-zero bricks become holes), a block "
                     "device, or - for standard output")
        ->required();
    command->add_flag("--force", options->force, "Replace an image file that exists and is not empty");
    command->add_flag("--skip-damaged", options->skipDamaged,
                      "Write a brick that cannot be read as zeros, list it, and go on (the exit status is still 1)");
    command->add_option("-j,--jobs", options->jobs,
                        "Threads that read and decode bricks ahead, 1 to 256 (default: one per processor; at least "
                        "8 for rados:// and s3:// disks, whose reads mostly wait for the network)");
    command->add_flag("-q,--quiet", options->quiet, "Print no summary");
    command->add_flag("--json", options->json,
                      "Print the summary as one JSON document instead of text (on standard error when the image "
                      "goes to standard output)");
    addForceShareOption(*command, options->forceShare);
    options->passwords.addOptionTo(*command);
    options->passwords.addAllowExpensiveKdfOptionTo(*command);
    return [options] { return runExport(*options); };
}

} // namespace cli
