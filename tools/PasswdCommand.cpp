// brickdisk passwd DISK [--password-file FILE] [--new-password-file FILE]
//                  [--kdf-memory SIZE] [--kdf-passes N] [--kdf-lanes N]:
// changes the password of a disk, its parents and its linked children, which
// share one key, by rewriting their headers only: it takes seconds whatever
// the disks hold. A disk whose key is derived from the password itself
// (made with --kdf pbkdf2, or by older versions) cannot change its password.
#include "Commands.h"
#include "DiskAccess.h"
#include "KeyDerivationOptions.h"
#include "Password.h"

#include "brick/BrickDisk.h"
#include "brick/BrickDiskChain.h"
#include "brick/BrickDiskKeyWrap.h"
#include "zo/Containers.h"
#include "zo/Error.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <vector>

namespace cli {

namespace {

struct PasswdOptions {
    std::string disk;
    CPasswordSource passwords;
    CPasswordSource newPasswords{"--new-password-file", "BRICKDISK_NEW_PASSWORD", "new password"};
    CKeyDerivationOptions cost;
};

// Refuses, before any password is asked, a disk whose password cannot change.
void checkPasswordCanChange(const brick::CBrickDiskHeader& header, const zo::CURI& folder)
{
    const zo::CProps props = zo::CProps().add("diskFolder", folder.toString(true));
    if (!header.isEncrypted())
        throw zo::CError("The disk is not encrypted: it has no password to change.", zo::String(), -1, props);
    if (!brick::CBrickDiskKeyWrap::isKeyWrapped(header))
        throw zo::CError("The password of this disk cannot change: its bricks are encrypted with the key derived "
                         "from the password itself (key deriver " +
                             header.getCipherKeyDeriverID() +
                             "). Export the disk and import the image into a new disk, whose password can change.",
                         zo::String(), -1, props);
}

// The disk, its parents and the children that its child links lead to.
zo::TList<zo::CURI> sharedKeyFolders(zo::IFileSystem* fs, const zo::CURI& folder)
{
    zo::TList<zo::CURI> folders{folder};
    zo::TSet<zo::String> seen{folder.toString(true)};
    for (const zo::CURI& parent : parentDiskFolders(fs, folder)) {
        folders.push_back(parent);
        seen.insert(parent.toString(true));
    }
    for (zo::CURI child = brick::CBrickDiskChain::loadLinkedFolder(fs, folder, brick::CBrickDisk::getChildLinkFileName());
         !child.isEmpty() && seen.insert(child.toString(true)).second;
         child = brick::CBrickDiskChain::loadLinkedFolder(fs, child, brick::CBrickDisk::getChildLinkFileName()))
        folders.push_back(child);
    return folders;
}

int runPasswd(const PasswdOptions& options)
{
    const seal::Argon2idCost cost = options.cost.cost();
    const zo::CURI folder = diskFolderURI(options.disk);
    const zo::P<zo::IFileSystem> fs = newFileSystem(folder, true, 1);
    checkPasswordCanChange(loadDiskHeader(fs.get(), folder), folder);
    const zo::TList<zo::CURI> folders = sharedKeyFolders(fs.get(), folder);
    // Shared locks: readers may go on (they find each header whole in one
    // of its copies), while writers, which need a disk alone, stay out; so
    // does a new snapshot, which would copy a header being rewritten.
    std::vector<zo::P<brick::CBrickDiskLock>> locks;
    for (const zo::CURI& shared : folders)
        locks.push_back(lockDisk(fs.get(), shared, brick::CBrickDiskLock::ForReading));

    const zo::String oldPassword = options.passwords.forExistingDisk(options.disk);
    const zo::String newPassword = options.newPasswords.forNewDisk(options.disk);
    brick::CBrickDiskKeyWrap::changePassword(fs.get(), folders, oldPassword, newPassword, cost,
                                             options.passwords.allowsExpensiveKdf());

    std::printf("changed the password of %zu disk%s (key wrapped under argon2id, %s):\n", folders.size(),
                folders.size() == 1 ? "" : "s", CKeyDerivationOptions::describe(cost).c_str());
    for (const zo::CURI& changed : folders)
        std::printf("  %s\n", changed.toLocalPath().c_str());
    return 0;
}

} // namespace

CommandAction addPasswdCommand(CLI::App& program)
{
    auto options = std::make_shared<PasswdOptions>();
    CLI::App* command = program.add_subcommand(
        "passwd", "Change the password of a disk, its parents and its linked children (headers only)");
    command->add_option("DISK", options->disk, "Folder of the disk")->required();
    options->passwords.addOptionTo(*command);
    options->passwords.addAllowExpensiveKdfOptionTo(*command);
    options->newPasswords.addOptionTo(*command);
    options->cost.addTo(*command);
    return [options] { return runPasswd(*options); };
}

} // namespace cli
