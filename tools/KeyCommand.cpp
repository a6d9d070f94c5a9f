// brickdisk key list DISK [--json]
// brickdisk key add DISK --name NAME [--password-file FILE] [--new-password-file FILE]
//                   [--kdf-memory SIZE] [--kdf-passes N] [--kdf-lanes N]
// brickdisk key remove DISK --name NAME [--password-file FILE]
// The keys of a disk of the authenticated format: passwords, each with a
// name, that all open the same disk key. Adding and removing a key rewrite
// the headers of the disk, its parents and its linked children, which share
// the key, and nothing else.
#include "Commands.h"
#include "DiskAccess.h"
#include "JsonWriter.h"
#include "KeyDerivationOptions.h"
#include "Password.h"
#include "SharedKey.h"
#include "Units.h"
#include "UsageError.h"

#include "brick/format/BrickDiskCreationTime.h"
#include "brick/format/BrickDiskHeaderLimits.h"
#include "brick/format/BrickDiskKeyWrap.h"
#include "brick/format/BrickDiskKeys.h"
#include "zo/Error.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace cli {

namespace {

using KeySlot = brick::CBrickDiskHeader::KeySlot;

struct KeyOptions {
    std::string disk;
    std::string name;
    bool json = false;
    CPasswordSource passwords;
    CPasswordSource newPasswords{"--new-password-file", "BRICKDISK_NEW_PASSWORD", "new password"};
    CKeyDerivationOptions cost;
};

// The disk's file system and folder, with its keys' header checked.
struct KeyDisk {
    zo::CURI folder;
    zo::P<zo::IFileSystem> fs;
    brick::CBrickDiskHeader header;
};

KeyDisk openKeyDisk(const std::string& disk)
{
    KeyDisk opened;
    opened.folder = diskFolderURI(disk);
    opened.fs = newFileSystem(opened.folder, true, 1);
    opened.header = loadDiskHeader(opened.fs.get(), opened.folder);
    checkKeysCanChange(opened.header, opened.folder, "keys");
    return opened;
}

std::string createdText(zo::int64 seconds)
{
    return seconds > 0 ? formatUtcTime(seconds) + " UTC" : "at an unknown time";
}

int runList(const KeyOptions& options)
{
    const KeyDisk disk = openKeyDisk(options.disk);
    std::vector<KeySlot> keys = brick::CBrickDiskKeyWrap::getKeys(disk.header);
    // The only key of a disk without a list is as old as the disk.
    if (!disk.header.hasKeyList())
        keys.front().creationTime = brick::CBrickDiskCreationTime::load(disk.fs.get(), disk.folder).value_or(0);
    if (options.json) {
        CJsonWriter json(std::cout);
        json.beginObject();
        json.key("keys");
        json.beginArray();
        for (const KeySlot& slot : keys) {
            json.beginObject();
            json.field("name", slot.name.toUTF8());
            json.key("created");
            if (slot.creationTime > 0)
                json.value(formatUtcTime(slot.creationTime));
            else
                json.nullValue();
            json.field("kdfPasses", slot.passes);
            json.field("kdfMemoryKiB", slot.memoryKiB);
            json.field("kdfLanes", slot.lanes);
            json.endObject();
        }
        json.endArray();
        json.endObject();
        return 0;
    }
    size_t nameWidth = 0;
    for (const KeySlot& slot : keys)
        nameWidth = std::max(nameWidth, slot.name.toUTF8().size());
    std::printf("%zu key%s of %s, tried in this order:\n", keys.size(), keys.size() == 1 ? "" : "s",
                disk.folder.toLocalPath().c_str());
    for (const KeySlot& slot : keys)
        std::printf(
            "  %-*s   created %s, %s\n", static_cast<int>(nameWidth), slot.name.toUTF8().c_str(),
            createdText(slot.creationTime).c_str(),
            CKeyDerivationOptions::describe(seal::Argon2idCost{slot.passes, slot.memoryKiB, slot.lanes}).c_str());
    return 0;
}

void checkName(const std::string& name)
{
    try {
        brick::CBrickDiskHeaderLimits::checkKeyName(zo::String(name));
    } catch (const zo::CError&) {
        throw UsageError("--name must be 1 to " + std::to_string(brick::CBrickDiskHeaderLimits::kMaxKeyNameLength) +
                         " bytes without control characters");
    }
}

void printDisks(const zo::TList<zo::CURI>& folders)
{
    for (const zo::CURI& changed : folders)
        std::printf("  %s\n", changed.toLocalPath().c_str());
}

int runAdd(const KeyOptions& options)
{
    checkName(options.name);
    const seal::Argon2idCost cost = options.cost.cost();
    const KeyDisk disk = openKeyDisk(options.disk);
    const zo::TList<zo::CURI> folders = sharedKeyFolders(disk.fs.get(), disk.folder);
    const auto locks = lockSharedKeyFolders(disk.fs.get(), folders);

    const zo::String password = options.passwords.forExistingDisk(options.disk);
    const zo::String newPassword = options.newPasswords.forNewDisk(options.disk);
    brick::CBrickDiskKeys::addKey(disk.fs.get(), folders, password, zo::String(options.name), newPassword, cost,
                                  options.passwords.allowsExpensiveKdf());
    std::printf("added the key '%s' to %zu disk%s (key wrapped under argon2id, %s):\n", options.name.c_str(),
                folders.size(), folders.size() == 1 ? "" : "s", CKeyDerivationOptions::describe(cost).c_str());
    printDisks(folders);
    return 0;
}

int runRemove(const KeyOptions& options)
{
    const KeyDisk disk = openKeyDisk(options.disk);
    const std::vector<KeySlot> keys = brick::CBrickDiskKeyWrap::getKeys(disk.header);
    if (keys.size() == 1 && keys.front().name.toUTF8() == options.name)
        throw zo::CError("The key is the disk's last one: add another key before removing it.", zo::String(), -1,
                         zo::CProps().add("diskFolder", disk.folder.toString(true)).add("keyName", options.name));
    const zo::TList<zo::CURI> folders = sharedKeyFolders(disk.fs.get(), disk.folder);
    const auto locks = lockSharedKeyFolders(disk.fs.get(), folders);

    const zo::String password = options.passwords.forExistingDisk(options.disk);
    brick::CBrickDiskKeys::removeKey(disk.fs.get(), folders, password, zo::String(options.name),
                                     options.passwords.allowsExpensiveKdf());
    std::printf("removed the key '%s' from %zu disk%s:\n", options.name.c_str(), folders.size(),
                folders.size() == 1 ? "" : "s");
    printDisks(folders);
    return 0;
}

CLI::App* addDiskOption(CLI::App& command, KeyOptions& options)
{
    command.add_option("DISK", options.disk, "Folder of the disk")->required();
    return &command;
}

} // namespace

CommandAction addKeyCommand(CLI::App& program)
{
    auto options = std::make_shared<KeyOptions>();
    CLI::App* command = program.add_subcommand(
        "key", "List, add or remove the keys (passwords) of a disk, its parents and its linked children");
    command->require_subcommand(1);

    CLI::App* list = addDiskOption(*command->add_subcommand("list",
                                                            "List the keys of a disk in the order they "
                                                            "are tried"),
                                   *options);
    list->add_flag("--json", options->json, "Print the same as one JSON object");

    CLI::App* add =
        addDiskOption(*command->add_subcommand("add", "Add a key: a new password that opens the disk"), *options);
    add->add_option("--name", options->name, "Name of the new key")->required();
    options->passwords.addOptionTo(*add);
    options->passwords.addAllowExpensiveKdfOptionTo(*add);
    options->newPasswords.addOptionTo(*add);
    options->cost.addTo(*add);

    CLI::App* remove = addDiskOption(
        *command->add_subcommand("remove", "Remove a key, given the password of a key that stays"), *options);
    remove->add_option("--name", options->name, "Name of the key to remove")->required();
    options->passwords.addOptionTo(*remove);
    options->passwords.addAllowExpensiveKdfOptionTo(*remove);

    return [options, list, add, remove] {
        if (list->parsed())
            return runList(*options);
        if (add->parsed())
            return runAdd(*options);
        if (remove->parsed())
            return runRemove(*options);
        throw UsageError("key needs one of list, add and remove (see brickdisk key --help)");
    };
}

} // namespace cli
