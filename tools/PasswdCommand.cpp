// brickdisk passwd DISK [--password-file FILE] [--new-password-file FILE]
//                  [--name NAME] [--kdf-memory SIZE] [--kdf-passes N] [--kdf-lanes N]:
// changes the password of one key (the one the old password opens, or the
// key NAME) of a disk, its parents and its linked children, which share one
// key, by rewriting their headers only: it takes seconds whatever the disks
// hold. A disk whose key is derived from the password itself
// (made with --kdf pbkdf2, or by older versions) cannot change its password.
#include "Commands.h"
#include "DiskAccess.h"
#include "KeyDerivationOptions.h"
#include "Password.h"
#include "SharedKey.h"

#include "brick/format/BrickDiskKeys.h"
#include "zo/Containers.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <string>

namespace cli {

namespace {

struct PasswdOptions {
    std::string disk;
    CPasswordSource passwords;
    CPasswordSource newPasswords{"--new-password-file", "BRICKDISK_NEW_PASSWORD", "new password"};
    CKeyDerivationOptions cost;
    std::string name;
};

int runPasswd(const PasswdOptions& options)
{
    const seal::Argon2idCost cost = options.cost.cost();
    const zo::CURI folder = diskFolderURI(options.disk);
    const zo::P<zo::IFileSystem> fs = newFileSystem(folder, true, 1);
    checkKeysCanChange(loadDiskHeader(fs.get(), folder), folder, "password");
    const zo::TList<zo::CURI> folders = sharedKeyFolders(fs.get(), folder);
    const auto locks = lockSharedKeyFolders(fs.get(), folders);

    const zo::String oldPassword = options.passwords.forExistingDisk(options.disk);
    const zo::String newPassword = options.newPasswords.forNewDisk(options.disk);
    brick::CBrickDiskKeys::changePassword(fs.get(), folders, oldPassword, newPassword, zo::String(options.name), cost,
                                          options.passwords.allowsExpensiveKdf());

    std::printf("changed the password of %s%zu disk%s (key wrapped under argon2id, %s):\n",
                options.name.empty() ? "" : ("key '" + options.name + "' of ").c_str(), folders.size(),
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
    command->add_option("--name", options->name,
                        "The key whose password changes (see brickdisk key list); by default the key that the old "
                        "password opens");
    return [options] { return runPasswd(*options); };
}

} // namespace cli
