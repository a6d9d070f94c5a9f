// brickdisk delete SNAPSHOT: takes one disk out of the middle or the end of
// its chain without changing what any other disk reads (see
// CBrickDiskRemover), then removes its folder.
#include "Commands.h"
#include "DiskAccess.h"
#include "EmptyFolders.h"
#include "Interrupt.h"
#include "Progress.h"
#include "Units.h"

#include "brick/chain/BrickDiskChain.h"
#include "brick/chain/BrickDiskRemover.h"
#include "zo/Error.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

namespace cli {

namespace {

struct DeleteOptions {
    std::string disk;
    CPasswordSource passwords;
};

int runDelete(const DeleteOptions& options)
{
    const zo::CURI folder = diskFolderURI(options.disk);
    const zo::P<zo::IFileSystem> fs = newFileSystem(folder, true, 2);
    zo::P<brick::CBrickDiskLock> diskLock;
    zo::P<brick::CBrickDiskLock> parentLock;
    zo::CURI child;
    // The disk whose header says whether links are tied under the key: the
    // disk's own, or its parent's when a cut-short making left it without.
    zo::CURI keyFolder = folder;
    const brick::CBrickDisk::Completion completion = brick::CBrickDisk::getCompletion(fs.get(), folder);
    if (completion != brick::CBrickDisk::Finished) {
        // A snapshot whose making or deletion was cut short does not open;
        // its mark names the parent, its child link the child.
        const zo::String mark = completion == brick::CBrickDisk::CreationUnfinished
            ? brick::CBrickDisk::getCreatingMarkFileName()
            : brick::CBrickDisk::getRemovingMarkFileName();
        const zo::CURI parent = brick::CBrickDiskChain::loadLinkedFolder(fs.get(), folder, mark);
        child = brick::CBrickDiskChain::loadLinkedFolder(fs.get(), folder, brick::CBrickDisk::getChildLinkFileName());
        diskLock = lockDisk(fs.get(), folder, brick::CBrickDiskLock::ForWriting);
        if (fs->folderExists(parent))
            parentLock = lockDisk(fs.get(), parent, brick::CBrickDiskLock::ForReading);
        if (!fs->fileExists(brick::CBrickDiskHeader::getHeaderURI(folder, 0)) &&
            !fs->fileExists(brick::CBrickDiskHeader::getHeaderURI(folder, 1)))
            keyFolder = parent;
    } else if (fs->fileExists(brick::CBrickDiskHeader::getHeaderURI(folder, 0)) ||
               fs->fileExists(brick::CBrickDiskHeader::getHeaderURI(folder, 1))) {
        loadDiskHeader(fs.get(), folder);
        const brick::CBrickDiskChain chain(fs.get(), folder);
        child = chain.getChildFolder();
        // The disk alone, and its child kept from writers (it receives
        // bricks); the parent kept from writers (they would store old bricks
        // into the disk while it goes), readers of both may go on.
        diskLock = lockDisk(fs.get(), folder, brick::CBrickDiskLock::ForWriting);
        if (chain.getMembers().size() > 1 && chain.getMembers()[1].problem.isEmpty())
            parentLock = lockDisk(fs.get(), chain.getMembers()[1].folder, brick::CBrickDiskLock::ForReading);
    }
    zo::TCryptBuffer<zo::uint8> key;
    if (fs->fileExists(brick::CBrickDiskHeader::getHeaderURI(keyFolder, 0)) ||
        fs->fileExists(brick::CBrickDiskHeader::getHeaderURI(keyFolder, 1)))
        key = keyForLinks(fs.get(), keyFolder, options.passwords);
    brick::CBrickDiskRemover::Outcome outcome;
    {
        // One bar for each long step: the bricks kept for the child, then the files deleted.
        std::unique_ptr<CProgressBar> progress;
        auto shown = brick::CBrickDiskRemover::Phase::CopyingBricks;
        const auto onProgress = [&](brick::CBrickDiskRemover::Phase phase, zo::int64 done, zo::int64 total) {
            if (!progress || phase != shown) {
                progress.reset();
                shown = phase;
                const bool copying = phase == brick::CBrickDiskRemover::Phase::CopyingBricks;
                progress = std::make_unique<CProgressBar>(copying ? "delete: keeping bricks for the child"
                                                                  : "delete: deleting files",
                                                          total, copying ? "bricks" : "files");
            }
            progress->update(done);
        };
        outcome = brick::CBrickDiskRemover::remove(fs.get(), folder, key, throwIfInterrupted, onProgress);
    }
    diskLock.reset();
    if (isLocalFolder(folder))
        removeEmptyFolders(folder.toLocalPath());
    const std::string files = formatCount(outcome.filesDeleted, "file", "files");
    if (child.isEmpty())
        std::printf("deleted %s (%s)\n", folder.toLocalPath().c_str(), files.c_str());
    else
        std::printf("deleted %s (%s); %s it held for %s %s kept there\n", folder.toLocalPath().c_str(), files.c_str(),
                    formatCount(outcome.bricksCopied, "brick", "bricks").c_str(), child.toLocalPath().c_str(),
                    outcome.bricksCopied == 1 ? "was" : "were");
    return 0;
}

} // namespace

CommandAction addDeleteCommand(CLI::App& program)
{
    auto options = std::make_shared<DeleteOptions>();
    CLI::App* command = program.add_subcommand(
        "delete", "Delete a snapshot (or child) from its chain; every other disk reads exactly as before");
    command->add_option("SNAPSHOT", options->disk, "Folder of the snapshot to delete")->required();
    // The links of an encrypted disk of the authenticated format are tied
    // under its key.
    options->passwords.addOptionTo(*command);
    options->passwords.addAllowExpensiveKdfOptionTo(*command);
    return [options] { return runDelete(*options); };
}

} // namespace cli
