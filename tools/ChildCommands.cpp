// brickdisk snapshot DISK SNAPSHOT and brickdisk child DISK CHILD [--stand-alone]:
// child disks, which hold only the bricks that differ from their parent.
//
// A linked child (what snapshot makes) is put between DISK and the child DISK
// had before; from then on DISK copies the old version of every brick it
// changes into the child, so the child keeps the view of the moment it was
// made. A stand-alone child links to DISK and changes nothing of it: it is an
// overlay to write into, and shows whatever DISK holds where it has no brick
// of its own.
#include "Commands.h"
#include "DiskAccess.h"
#include "UsageError.h"

#include "brick/chain/BrickDisk.h"
#include "brick/chain/BrickDiskChain.h"
#include "brick/format/BrickDiskLink.h"
#include "brick/serving/ServeControl.h"
#include "zo/Error.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace cli {

namespace {

struct ChildOptions {
    std::string disk;
    std::string child;
    bool standAlone = false;
    CPasswordSource passwords;
};

// A child inside a folder of the chain would become part of that disk's
// folder, where it does not belong and could be deleted with it. The child
// being finished may be the parent's child already (its making stopped just
// before its end).
void refuseFolderInsideChain(const brick::CBrickDiskChain& chain, const zo::CURI& child, bool finishing)
{
    std::vector<zo::CURI> disks;
    for (const brick::CBrickDiskChain::Member& member : chain.getMembers())
        disks.push_back(member.folder);
    if (!chain.getChildFolder().isEmpty() &&
        !(finishing && chain.getChildFolder().toLocalPath() == child.toLocalPath()))
        disks.push_back(chain.getChildFolder());
    const std::string childPath = child.toLocalPath() + "/";
    for (const zo::CURI& disk : disks) {
        if (childPath.rfind(disk.toLocalPath() + "/", 0) == 0)
            throw zo::CError("The new disk would lie inside the folder of a disk of the chain.", zo::String(), -1,
                             zo::CProps().add("diskFolder", child.toLocalPath()).add("insideDisk", disk.toLocalPath()));
    }
}

// True when `child` holds a disk whose parent is `parent`, as a snapshot that
// the server says it made must.
bool isSnapshotOf(zo::IFileSystem* fs, const zo::CURI& child, const zo::CURI& parent)
{
    try {
        const brick::CBrickDiskChain chain(fs, child);
        chain.validate();
        return chain.getMembers().size() > 1 && chain.getMembers()[1].folder.toLocalPath() == parent.toLocalPath();
    } catch (const zo::CError&) {
        return false;
    }
}

// A served disk is snapshotted by its server, which holds new requests back
// while it makes the child, so the snapshot holds every write acknowledged
// before. False when no server serves the disk. The server's word is checked
// on disk before success is reported.
bool takenByServer(zo::IFileSystem* fs, const zo::CURI& parent, const zo::CURI& child)
{
    const std::optional<std::string> answer = brick::requestSnapshotFromServer(parent, child);
    if (!answer)
        return false;
    if (!answer->empty())
        throw zo::CError("The server of the disk could not take the snapshot: " + zo::String(*answer), zo::String(), -1,
                         zo::CProps().add("diskFolder", parent.toString(true)));
    if (!isSnapshotOf(fs, child, parent))
        throw zo::CError(
            "The server of the disk answered that it took the snapshot, but there is no such snapshot.", zo::String(),
            -1, zo::CProps().add("diskFolder", parent.toString(true)).add("snapshotFolder", child.toString(true)));
    std::printf("created snapshot %s of %s (taken by the server of the disk)\n", child.toLocalPath().c_str(),
                parent.toLocalPath().c_str());
    return true;
}

int makeChild(const ChildOptions& options, brick::CBrickDisk::ChildType type, const char* what)
{
    const zo::CURI parent = diskFolderURI(options.disk);
    const zo::CURI child = diskFolderURI(options.child);
    if (!brick::isSameStore(parent, child))
        throw UsageError("a child disk lives where its parent does: both on Ceph (rados://), both on S3 (s3://) "
                         "or both in local folders");
    const zo::P<zo::IFileSystem> fs = newFileSystem(parent, true, 1);
    loadDiskHeader(fs.get(), parent);
    const brick::CBrickDiskChain chain(fs.get(), parent);
    chain.validate();
    // A child whose making was cut short is finished by making it again.
    const bool unfinished = brick::CBrickDisk::getCompletion(fs.get(), child) == brick::CBrickDisk::CreationUnfinished;
    refuseFolderInsideChain(chain, child, unfinished);
    if (!unfinished && !isMissingOrEmptyFolder(fs.get(), child))
        throw zo::CError("Cannot create a child disk in a folder that is not empty.", zo::String(), -1,
                         zo::CProps().add("diskFolder", child.toString(true)));
    if (type == brick::CBrickDisk::linkedChild && takenByServer(fs.get(), parent, child))
        return 0;
    // Making a child rewrites the parent's link to its child, and none of
    // the parent's bricks.
    const zo::P<brick::CBrickDiskLock> lock =
        lockDiskKeepingWriteMark(fs.get(), parent, brick::CBrickDiskLock::ForWriting);
    const zo::TCryptBuffer<zo::uint8> key = keyForLinks(fs.get(), parent, options.passwords);
    try {
        brick::CBrickDisk::createChild(fs.get(), child, parent, type, key);
    } catch (const zo::CError& e) {
        if (brick::CBrickDisk::getCompletion(fs.get(), child) != brick::CBrickDisk::CreationUnfinished)
            throw;
        throw zo::CError(zo::String("The " + std::string(what) + " could not be made and is left unfinished: run " +
                                    "the same command again to finish it, or \"brickdisk delete " +
                                    child.toLocalPath() + "\" to remove it."),
                         zo::String(), -1, zo::CProps().add("diskFolder", child.toLocalPath()), &e);
    }
    if (type == brick::CBrickDisk::standAloneChild) {
        // The library gives a stand-alone child a link to the parent's own
        // child; writing the stand-alone child would then store old bricks
        // into that other disk. A stand-alone child has no child.
        for (int copy = 0; copy < 2; ++copy)
            fs->deleteFile(brick::CBrickDiskLink::getAuxFileURI(child, brick::CBrickDisk::getChildLinkFileName(), copy),
                           true);
    }
    std::printf("created %s %s of %s\n", what, child.toLocalPath().c_str(), parent.toLocalPath().c_str());
    return 0;
}

void addFolderOptions(CLI::App& command, ChildOptions& options, const char* childName, const char* childHelp)
{
    command.add_option("DISK", options.disk, "Folder of the parent disk")->required();
    command.add_option(childName, options.child, childHelp)->required();
    // The links of an encrypted disk of the authenticated format are tied
    // under its key.
    options.passwords.addOptionTo(command);
    options.passwords.addAllowExpensiveKdfOptionTo(command);
}

} // namespace

CommandAction addSnapshotCommand(CLI::App& program)
{
    auto options = std::make_shared<ChildOptions>();
    CLI::App* command = program.add_subcommand(
        "snapshot", "Keep today's view of a disk in SNAPSHOT (a linked child) while the disk moves on");
    addFolderOptions(*command, *options, "SNAPSHOT", "Folder of the snapshot (made when missing; must be empty)");
    return [options] { return makeChild(*options, brick::CBrickDisk::linkedChild, "snapshot"); };
}

CommandAction addChildCommand(CLI::App& program)
{
    auto options = std::make_shared<ChildOptions>();
    CLI::App* command = program.add_subcommand(
        "child", "Make a child disk: linked (like snapshot) or, with --stand-alone, an overlay to write into");
    addFolderOptions(*command, *options, "CHILD", "Folder of the child (made when missing; must be empty)");
    command->add_flag("--stand-alone", options->standAlone,
                      "Link only the child to DISK; DISK is not changed and must not change afterwards");
    return [options] {
        return options->standAlone ? makeChild(*options, brick::CBrickDisk::standAloneChild, "stand-alone child")
                                   : makeChild(*options, brick::CBrickDisk::linkedChild, "linked child");
    };
}

} // namespace cli
