// brickdisk du DISK [--json]: the space that each disk of DISK's chain takes
// in its store (see CChainSpace): its brick files and bytes, the bytes that
// deleting it would free, and the whole chain against the disk's size. Needs
// no password.
#include "Commands.h"
#include "DiskAccess.h"
#include "JsonWriter.h"
#include "Units.h"

#include "brick/backup/ChainSpace.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <iostream>
#include <memory>

namespace cli {

namespace {

struct DuOptions {
    std::string disk;
    bool json = false;
};

// `part` of `whole` in percent, with one decimal: "12.5%".
std::string percentText(zo::int64 part, zo::int64 whole)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f%%", whole > 0 ? 100.0 * static_cast<double>(part) / whole : 0.0);
    return text;
}

void printJson(const brick::CChainSpace& space)
{
    CJsonWriter json(std::cout);
    json.beginObject();
    json.field("diskSize", space.getDiskSize());
    json.key("disks");
    json.beginArray();
    for (size_t i = 0; i < space.getDisks().size(); ++i) {
        const brick::CChainSpace::DiskSpace& disk = space.getDisks()[i];
        json.beginObject();
        json.field("folder", disk.folder.toLocalPath());
        json.field("depth", static_cast<zo::int64>(i));
        json.field("brickFiles", disk.brickFiles);
        json.field("bytes", disk.bytes);
        json.field("onlyBrickFiles", disk.onlyBrickFiles);
        json.field("onlyBytes", disk.onlyBytes);
        json.endObject();
    }
    json.endArray();
    json.field("totalBrickFiles", space.getTotalBrickFiles());
    json.field("totalBytes", space.getTotalBytes());
    json.endObject();
}

int runDu(const DuOptions& options)
{
    const zo::CURI folder = diskFolderURI(options.disk);
    const zo::P<zo::IFileSystem> fs = newFileSystem(folder, true, 1);
    loadDiskHeader(fs.get(), folder);
    const brick::CChainSpace space(fs.get(), folder);
    if (options.json) {
        printJson(space);
        return 0;
    }
    for (size_t i = 0; i < space.getDisks().size(); ++i) {
        const brick::CChainSpace::DiskSpace& disk = space.getDisks()[i];
        std::printf("%s%s\n", disk.folder.toLocalPath().c_str(), i == 0 ? "  (top)" : "");
        std::printf("   %s, %s; only here: %s%s\n", formatCount(disk.brickFiles, "brick file", "brick files").c_str(),
                    formatBytes(disk.bytes).c_str(), formatBytes(disk.onlyBytes).c_str(),
                    i == 0 ? "" : " (freed by deleting it)");
    }
    std::printf("chain: %s, %s for a disk of %s (%s)\n",
                formatCount(space.getTotalBrickFiles(), "brick file", "brick files").c_str(),
                formatBytes(space.getTotalBytes()).c_str(), formatBytes(space.getDiskSize()).c_str(),
                percentText(space.getTotalBytes(), space.getDiskSize()).c_str());
    return 0;
}

} // namespace

CommandAction addDuCommand(CLI::App& program)
{
    auto options = std::make_shared<DuOptions>();
    CLI::App* command = program.add_subcommand(
        "du", "Show the space each disk of a chain takes, and what deleting a snapshot would free");
    command->add_option("DISK", options->disk, "Folder of any disk of the chain")->required();
    command->add_flag("--json", options->json, "Print the same as one JSON object");
    return [options] { return runDu(*options); };
}

} // namespace cli
