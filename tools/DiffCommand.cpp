// brickdisk diff A B [--json]: which bricks read differently in two disks of
// one chain, and in how many bytes. A brick that both disks read from the
// same file, or from files with the same bytes, is the same without being
// decrypted; only the others are read (and need the password).
#include "Commands.h"
#include "DiskAccess.h"
#include "Interrupt.h"
#include "JsonWriter.h"
#include "Password.h"
#include "Units.h"
#include "UsageError.h"

#include "brick/chain/BrickDisk.h"
#include "brick/chain/BrickDiskChain.h"
#include "zo/Error.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <memory>
#include <vector>

namespace cli {

namespace {

struct DiffOptions {
    std::string first;
    std::string second;
    bool json = false;
    bool forceShare = false;
    CPasswordSource passwords;
};

struct BrickDifference {
    zo::int64 index;
    zo::int64 bytes;
};

std::vector<zo::uint8> fileBytes(zo::IFileSystem* fs, const zo::CURI& file)
{
    const zo::P<zo::IIOStream> stream = fs->openStream(file, zo::IIOStream::AccessRead, zo::IIOStream::OptionNone);
    std::vector<zo::uint8> bytes(static_cast<size_t>(stream->getSize()));
    stream->read(bytes.data(), static_cast<int>(bytes.size()));
    return bytes;
}

// The first `size` bytes that brick `index` of `disk` reads as, decoded by
// the disk's brick reader.
std::vector<zo::uint8> brickOf(const brick::CBrickDisk& disk, zo::int64 index, int size)
{
    zo::TBuffer<zo::uint8> plain;
    try {
        disk.getBrickReader()->read(index, plain);
    } catch (const zo::CError& e) {
        throwBrickReadError(disk, index, e);
    }
    if (plain.getUsed() < size)
        throwBrickReadError(
            disk, index,
            zo::CIOError(zo::CIOError::InvalidData, "Brick holds fewer bytes than the disk expects.",
                         zo::CProps().add("diskFolder", disk.getDiskFolder().toString(true)).add("brickIndex", index)));
    return std::vector<zo::uint8>(plain.getData(), plain.getData() + size);
}

int runDiff(const DiffOptions& options)
{
    const zo::CURI first = diskFolderURI(options.first);
    const zo::CURI second = diskFolderURI(options.second);
    if (!brick::isSameStore(first, second))
        throw UsageError("the two disks of a diff are of one chain: both on Ceph (rados://), both on S3 (s3://) or "
                         "both in local folders");
    const zo::P<zo::IFileSystem> fs = newFileSystem(first, true, 1);
    loadDiskHeader(fs.get(), first);
    loadDiskHeader(fs.get(), second);
    const brick::CBrickDiskChain firstChain(fs.get(), first);
    const brick::CBrickDiskChain secondChain(fs.get(), second);
    firstChain.validate();
    secondChain.validate();
    if (firstChain.getMembers().back().folder.toString(true) != secondChain.getMembers().back().folder.toString(true))
        throw zo::CError("The two disks are not of one chain.", zo::String(), -1,
                         zo::CProps().add("first", first.toLocalPath()).add("second", second.toLocalPath()));
    const auto firstLock = lockDisk(fs.get(), first, brick::CBrickDiskLock::ForReading, options.forceShare);
    const auto secondLock = lockDisk(fs.get(), second, brick::CBrickDiskLock::ForReading, options.forceShare);

    const brick::CBrickDiskHeader& header = firstChain.getHeader();
    const zo::int64 brickCount = header.getBrickCount();
    zo::P<brick::CBrickDisk> firstDisk;
    zo::P<brick::CBrickDisk> secondDisk;
    std::vector<BrickDifference> differences;
    zo::int64 decoded = 0;
    for (zo::int64 index = 0; index < brickCount; ++index) {
        throwIfInterrupted();
        const zo::CURI a = firstChain.locateBrick(fs.get(), index);
        const zo::CURI b = secondChain.locateBrick(fs.get(), index);
        if (a.toString(true) == b.toString(true))
            continue;
        if (!a.isEmpty() && !b.isEmpty() && fileBytes(fs.get(), a) == fileBytes(fs.get(), b))
            continue;
        if (!firstDisk) {
            firstDisk = openDisk(fs.get(), first, options.passwords, zo::IIOStream::AccessRead, 1);
            secondDisk = openDisk(fs.get(), second, options.passwords, zo::IIOStream::AccessRead, 1);
        }
        const int size = static_cast<int>(
            std::min<zo::int64>(header.getBrickSize(), header.getDiskSize() - index * header.getBrickSize()));
        const std::vector<zo::uint8> x = brickOf(*firstDisk, index, size);
        const std::vector<zo::uint8> y = brickOf(*secondDisk, index, size);
        ++decoded;
        zo::int64 bytes = 0;
        for (size_t i = 0; i < x.size(); ++i)
            bytes += x[i] != y[i] ? 1 : 0;
        if (bytes > 0)
            differences.push_back(BrickDifference{index, bytes});
    }
    zo::int64 totalBytes = 0;
    for (const BrickDifference& difference : differences)
        totalBytes += difference.bytes;
    if (options.json) {
        CJsonWriter json(std::cout);
        json.beginObject();
        json.field("first", first.toLocalPath());
        json.field("second", second.toLocalPath());
        json.field("bricksCompared", brickCount);
        json.field("bricksDecoded", decoded);
        json.field("differingBytes", totalBytes);
        json.key("differingBricks");
        json.beginArray();
        for (const BrickDifference& difference : differences) {
            json.beginObject();
            json.field("index", difference.index);
            json.field("bytes", difference.bytes);
            json.endObject();
        }
        json.endArray();
        json.endObject();
    } else {
        for (const BrickDifference& difference : differences)
            std::printf("brick %lld differs in %s\n", static_cast<long long>(difference.index),
                        formatCount(difference.bytes, "byte", "bytes").c_str());
        std::printf("%zu of %s %s (%s); %s decoded\n", differences.size(),
                    formatCount(brickCount, "brick", "bricks").c_str(), differences.size() == 1 ? "differs" : "differ",
                    formatCount(totalBytes, "byte", "bytes").c_str(), formatCount(decoded, "brick", "bricks").c_str());
    }
    return 0;
}

} // namespace

CommandAction addDiffCommand(CLI::App& program)
{
    auto options = std::make_shared<DiffOptions>();
    CLI::App* command = program.add_subcommand("diff", "Show which bricks read differently in two disks of one chain");
    command->add_option("A", options->first, "Folder of one disk")->required();
    command->add_option("B", options->second, "Folder of another disk of the same chain")->required();
    command->add_flag("--json", options->json, "Print the same as one JSON object");
    addForceShareOption(*command, options->forceShare);
    options->passwords.addOptionTo(*command);
    options->passwords.addAllowExpensiveKdfOptionTo(*command);
    return [options] { return runDiff(*options); };
}

} // namespace cli
