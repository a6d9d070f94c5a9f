// brickdisk info DISK [--json]: what a disk is, where it sits in its chain of
// disks and how much it stores. Needs no password.
#include "Commands.h"
#include "DiskAccess.h"
#include "JsonWriter.h"
#include "KeyDerivationOptions.h"
#include "Units.h"

#include "brick/chain/BrickDisk.h"
#include "brick/chain/BrickDiskChain.h"
#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickDiskKeyWrap.h"
#include "brick/format/BrickTree.h"
#include "seal/Cipher.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <iostream>
#include <memory>
#include <vector>

namespace cli {

namespace {

struct InfoOptions {
    std::string disk;
    bool json = false;
};

// Everything that info shows.
struct DiskInfo {
    zo::CURI folder;
    brick::CBrickDiskHeader header;
    brick::CBrickDiskAuxFileBase::CopyCheck primaryHeader;
    brick::CBrickDiskAuxFileBase::CopyCheck fallbackHeader;
    std::vector<zo::CURI> parents;
    zo::CURI child;
    brick::CBrickTree::Listing bricks;

    zo::int64 brickCount() const { return header.getBrickCount(); }
    zo::int64 storedBytes() const { return bricks.totalBrickBytes(); }
    zo::int64 presentBytes() const { return static_cast<zo::int64>(bricks.bricks.size()) * header.getBrickSize(); }
    // Stored bytes per byte of the bricks present; -1 when no brick is present.
    double storedRatio() const
    {
        return presentBytes() == 0 ? -1.0 : static_cast<double>(storedBytes()) / static_cast<double>(presentBytes());
    }
    bool encrypted() const { return header.isEncrypted(); }
    bool keyWrapped() const { return brick::CBrickDiskKeyWrap::isKeyWrapped(header); }
    // "authenticated": brick files bound to the brick's index, under keyed
    // digests or sealed by the cipher;
    // "original": plain digests, and a key derived from the password itself.
    std::string format() const
    {
        return header.getCheckSumHashID() == brick::CBrickDisk::kAuthenticatedCheckSumID ? "authenticated" : "original";
    }
    std::string formatDescription() const
    {
        if (format() == "original")
            return "original (plain brick digests; an encrypted disk's key is derived from its password, which "
                   "cannot change)";
        const bool sealed = seal::CCipherManager::isAuthenticated(header.getCipherID());
        return std::string(sealed ? "authenticated (each brick sealed with its own key, bound to its index"
                                  : "authenticated (keyed brick digests, each brick bound to its index") +
            (keyWrapped() ? "; random key wrapped under the password, which passwd can change)" : ")");
    }
    std::string keyDerivation() const
    {
        const brick::CBrickDiskHeader& h = header;
        if (keyWrapped())
            return "key wrapped under argon2id (" +
                CKeyDerivationOptions::describe({h.getCipherKeyDerivationIterations(),
                                                 h.getCipherKeyDerivationMemoryKiB(),
                                                 h.getCipherKeyDerivationLanes()}) +
                "), key check " + h.getCryptoHashID().toUTF8();
        return "key by " + h.getCipherKeyDeriverID().toUTF8() + " (" +
            std::to_string(h.getCipherKeyDerivationIterations()) + " iterations), key digest " +
            h.getCryptoHashID().toUTF8();
    }
};

DiskInfo gatherInfo(zo::IFileSystem* fs, const zo::CURI& folder)
{
    DiskInfo info;
    info.folder = folder;
    info.header = loadDiskHeader(fs, folder);
    const zo::String headerFile = brick::CBrickDiskHeader::getHeaderFilename();
    info.primaryHeader = brick::CBrickDiskAuxFileBase::checkAuxFileCopy(fs, folder, headerFile, 0);
    info.fallbackHeader = brick::CBrickDiskAuxFileBase::checkAuxFileCopy(fs, folder, headerFile, 1);
    info.parents = parentDiskFolders(fs, folder);
    info.child = brick::CBrickDiskChain::loadLinkedFolder(fs, folder, brick::CBrickDisk::getChildLinkFileName());
    info.bricks = brick::CBrickTree::list(fs, folder, info.header);
    return info;
}

std::string utf8(const zo::String& text)
{
    return text.toUTF8();
}

void printText(const DiskInfo& info)
{
    const brick::CBrickDiskHeader& h = info.header;
    const auto line = [](const char* name, const std::string& value) {
        std::printf("%-18s %s\n", name, value.c_str());
    };
    line("disk:", info.folder.toLocalPath());
    line("size:", formatBytes(h.getDiskSize()) + " (" + std::to_string(h.getDiskSize()) + " bytes)");
    line("brick size:", formatBytes(h.getBrickSize()) + ", " + formatCount(info.brickCount(), "brick", "bricks"));
    line("compression:", utf8(h.getCompressID()));
    line("format:", info.formatDescription());
    if (info.encrypted())
        line("encryption:", utf8(h.getCipherID()) + ", " + info.keyDerivation());
    else
        line("encryption:", "none");
    line("brick digest:", utf8(h.getCheckSumHashID()));
    line("format version:",
         std::to_string(h.getVersion()) + " (reader " + std::to_string(h.getMinReaderVersion()) + ", writer " +
             std::to_string(h.getMinWriterVersion()) + ")");
    line("header copies:",
         "primary " + info.primaryHeader.describe().toUTF8() + ", fallback " + info.fallbackHeader.describe().toUTF8());
    if (info.parents.empty())
        line("parents:", "none");
    for (size_t i = 0; i < info.parents.size(); ++i)
        line(i == 0 ? "parents:" : "", info.parents[i].toLocalPath());
    line("child:", info.child.isEmpty() ? "none" : info.child.toLocalPath());
    line("brick files:",
         std::to_string(info.bricks.bricks.size()) + " of " + std::to_string(info.brickCount()) + ", " +
             formatBytes(info.storedBytes()));
    if (info.storedRatio() >= 0.0) {
        char ratio[64];
        std::snprintf(ratio, sizeof ratio, "%.1f %% of the %s in the bricks present", info.storedRatio() * 100.0,
                      formatBytes(info.presentBytes()).c_str());
        line("stored:", ratio);
    }
    if (!info.bricks.temporaryFiles.empty())
        line("leftovers:",
             formatCount(static_cast<zo::int64>(info.bricks.temporaryFiles.size()), "temporary file",
                         "temporary files") +
                 " of interrupted stores (harmless)");
}

void printJson(const DiskInfo& info)
{
    const brick::CBrickDiskHeader& h = info.header;
    CJsonWriter json(std::cout);
    json.beginObject();
    json.field("disk", info.folder.toLocalPath());
    json.field("diskSize", h.getDiskSize());
    json.field("brickSize", static_cast<zo::int64>(h.getBrickSize()));
    json.field("brickCount", info.brickCount());
    json.field("payloadBlockSize", h.getPayloadBlockSize());
    json.field("compression", utf8(h.getCompressID()));
    json.field("encrypted", info.encrypted());
    json.field("cipher", utf8(h.getCipherID()));
    json.field("keyDeriver", utf8(h.getCipherKeyDeriverID()));
    json.field("keyDerivationIterations", h.getCipherKeyDerivationIterations());
    json.field("keyDerivationMemoryKiB", h.getCipherKeyDerivationMemoryKiB());
    json.field("keyDerivationLanes", h.getCipherKeyDerivationLanes());
    json.field("format", info.format());
    json.field("keyDigest", utf8(h.getCryptoHashID()));
    json.field("brickDigest", utf8(h.getCheckSumHashID()));
    json.field("version", h.getVersion());
    json.field("minReaderVersion", h.getMinReaderVersion());
    json.field("minWriterVersion", h.getMinWriterVersion());
    json.key("headerCopies");
    json.beginObject();
    json.field("primary", info.primaryHeader.describe().toUTF8());
    json.field("fallback", info.fallbackHeader.describe().toUTF8());
    json.endObject();
    json.key("parents");
    json.beginArray();
    for (const zo::CURI& parent : info.parents)
        json.value(parent.toLocalPath());
    json.endArray();
    json.key("child");
    if (info.child.isEmpty())
        json.nullValue();
    else
        json.value(info.child.toLocalPath());
    json.field("brickFiles", static_cast<zo::int64>(info.bricks.bricks.size()));
    json.field("storedBytes", info.storedBytes());
    json.field("presentBytes", info.presentBytes());
    json.key("storedRatio");
    if (info.storedRatio() < 0.0)
        json.nullValue();
    else
        json.value(info.storedRatio());
    json.field("temporaryFiles", static_cast<zo::int64>(info.bricks.temporaryFiles.size()));
    json.endObject();
}

int runInfo(const InfoOptions& options)
{
    const zo::CURI folder = diskFolderURI(options.disk);
    const zo::P<zo::IFileSystem> fs = newFileSystem(folder, true, 1);
    const DiskInfo info = gatherInfo(fs.get(), folder);
    if (options.json)
        printJson(info);
    else
        printText(info);
    return 0;
}

} // namespace

CommandAction addInfoCommand(CLI::App& program)
{
    auto options = std::make_shared<InfoOptions>();
    CLI::App* command = program.add_subcommand(
        "info", "Show a disk's header, its parents and child, and how many brick files it stores");
    command->add_option("DISK", options->disk, "Folder of the disk")->required();
    command->add_flag("--json", options->json, "Print the same as one JSON object");
    return [options] { return runInfo(*options); };
}

} // namespace cli
