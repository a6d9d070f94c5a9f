// brickdisk snapshots DISK [--json]: the chain that DISK belongs to, from the
// disk at its top (the newest) down through its snapshots, with each disk's
// folder, creation time and brick files. Needs no password.
#include "Commands.h"
#include "DiskAccess.h"
#include "JsonWriter.h"
#include "Units.h"

#include "brick/chain/BrickDiskChain.h"
#include "brick/format/BrickDiskCreationTime.h"
#include "brick/format/BrickTree.h"
#include "zo/Error.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <fcntl.h>
#include <iostream>
#include <memory>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <vector>

namespace cli {

namespace {

struct SnapshotsOptions {
    std::string disk;
    bool json = false;
};

struct ChainDisk {
    zo::CURI folder;
    std::string created;
    zo::int64 brickFiles = 0;
    zo::int64 storedBytes = 0;
    std::string problem;
};

// When a local folder was made: its birth time where the file system keeps
// one, otherwise when its header was last written; empty when neither is
// known.
std::string folderTime(const zo::CURI& folder)
{
    struct statx info {};
    const std::string path = folder.toLocalPath();
    if (::statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME, &info) == 0 && (info.stx_mask & STATX_BTIME) != 0)
        return formatUtcTime(static_cast<zo::int64>(info.stx_btime.tv_sec));
    struct stat header {};
    if (::stat(brick::CBrickDiskHeader::getHeaderURI(folder, 0).toLocalPath().c_str(), &header) != 0)
        return std::string();
    return formatUtcTime(static_cast<zo::int64>(header.st_mtime));
}

// When the disk was made, as UTC text: its creation time record; for a disk
// made before disks kept one (or whose record is damaged in both copies), the
// time of its local folder; empty when neither is known (such a disk in an
// object store).
std::string creationTime(zo::IFileSystem* fs, const zo::CURI& folder)
{
    try {
        if (const std::optional<zo::int64> recorded = brick::CBrickDiskCreationTime::load(fs, folder))
            return formatUtcTime(*recorded);
    } catch (const zo::CError&) {
        // The time is only shown: the folder's time stands in for it.
    }
    return isLocalFolder(folder) ? folderTime(folder) : std::string();
}

// The disks of the chain, newest first: up from `folder` to the disk without
// a parent, then down along the child links.
std::vector<ChainDisk> walkChain(zo::IFileSystem* fs, const zo::CURI& folder)
{
    const brick::CBrickDiskChain start(fs, folder);
    const brick::CBrickDiskChain::Member& top = start.getMembers().back();
    std::vector<ChainDisk> disks;
    std::set<std::string> seen;
    zo::CURI current = top.folder;
    if (!top.problem.isEmpty()) {
        disks.push_back(ChainDisk{top.folder, std::string(), 0, 0, top.problem.toUTF8()});
        current = start.getMembers()[start.getMembers().size() - 2].folder;
    }
    while (!current.isEmpty() && seen.insert(current.toString(true).toUTF8()).second) {
        ChainDisk disk;
        disk.folder = current;
        disk.created = creationTime(fs, current);
        try {
            const brick::CBrickDiskChain chain(fs, current);
            const brick::CBrickTree::Listing listing = brick::CBrickTree::list(fs, current, chain.getHeader());
            disk.brickFiles = static_cast<zo::int64>(listing.bricks.size());
            disk.storedBytes = listing.totalBrickBytes();
            disks.push_back(disk);
            current = chain.getChildFolder();
        } catch (const zo::CError& e) {
            disk.problem = e.toString().toUTF8();
            disks.push_back(disk);
            break;
        }
    }
    return disks;
}

int runSnapshots(const SnapshotsOptions& options)
{
    const zo::CURI folder = diskFolderURI(options.disk);
    const zo::P<zo::IFileSystem> fs = newFileSystem(folder, true, 1);
    loadDiskHeader(fs.get(), folder);
    const std::vector<ChainDisk> disks = walkChain(fs.get(), folder);
    if (options.json) {
        CJsonWriter json(std::cout);
        json.beginObject();
        json.key("disks");
        json.beginArray();
        for (size_t i = 0; i < disks.size(); ++i) {
            json.beginObject();
            json.field("folder", disks[i].folder.toLocalPath());
            json.field("depth", static_cast<zo::int64>(i));
            json.field("created", disks[i].created);
            json.field("brickFiles", disks[i].brickFiles);
            json.field("storedBytes", disks[i].storedBytes);
            json.field("given", disks[i].folder.toString(true) == folder.toString(true));
            if (!disks[i].problem.empty())
                json.field("problem", disks[i].problem);
            json.endObject();
        }
        json.endArray();
        json.endObject();
        return 0;
    }
    for (size_t i = 0; i < disks.size(); ++i) {
        const std::string indent = i == 0 ? std::string() : std::string(3 * (i - 1), ' ') + "└─ ";
        std::printf("%s%s%s\n", indent.c_str(), disks[i].folder.toLocalPath().c_str(),
                    disks[i].folder.toString(true) == folder.toString(true) ? "  (given)" : "");
        const std::string detail = std::string(3 * i, ' ');
        if (!disks[i].problem.empty())
            std::printf("%s   problem: %s\n", detail.c_str(), disks[i].problem.c_str());
        else
            std::printf("%s   created %s, %s, %s\n", detail.c_str(),
                        disks[i].created.empty() ? "at an unknown time" : (disks[i].created + " UTC").c_str(),
                        formatCount(disks[i].brickFiles, "brick file", "brick files").c_str(),
                        formatBytes(disks[i].storedBytes).c_str());
    }
    return 0;
}

} // namespace

CommandAction addSnapshotsCommand(CLI::App& program)
{
    auto options = std::make_shared<SnapshotsOptions>();
    CLI::App* command = program.add_subcommand(
        "snapshots", "Show the chain of a disk: the disk and its snapshots, newest first, with their sizes");
    command->add_option("DISK", options->disk, "Folder of any disk of the chain")->required();
    command->add_flag("--json", options->json, "Print the same as one JSON object");
    return [options] { return runSnapshots(*options); };
}

} // namespace cli
