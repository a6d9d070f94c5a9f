// brickdisk create DISK --size SIZE [--brick-size SIZE] [--compression ID] [--checksum ID]
//                  [--cipher aes256gcm|aes256cbc] [--kdf argon2id|pbkdf2] [--kdf-memory SIZE]
//                  [--kdf-passes N] [--kdf-lanes N] [--no-encryption]
//
// New disks get authenticated bricks, encrypted with AES-256-GCM, and a
// wrapped key (--kdf argon2id); --kdf pbkdf2 makes a disk that older readers
// open too, whose key is derived from the password itself (so its password
// can never change) and whose bricks are encrypted with AES-256-CBC.
#include "Commands.h"
#include "DiskAccess.h"
#include "KeyDerivationOptions.h"
#include "Password.h"
#include "Units.h"
#include "UsageError.h"

#include "brick/chain/BrickDisk.h"
#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickDiskHeaderLimits.h"
#include "zo/Error.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

namespace cli {

namespace {

struct CreateOptions {
    std::string disk;
    std::string size;
    // Empty: the library's default for the disk's store.
    std::string brickSize;
    // Empty: the library's default for the disk's store.
    std::string compression;
    // Empty: the library's default for the key derivation.
    std::string checksum;
    // Empty: the library's default for the key derivation.
    std::string cipher;
    std::string kdf = "argon2id";
    CKeyDerivationOptions cost;
    bool noEncryption = false;
    CPasswordSource passwords;
};

// How the new disk's bricks and key are protected, as its header says.
std::string encryptionDescription(const brick::CBrickDiskHeader& header)
{
    const std::string cipher = header.getCipherID().toUTF8();
    if (!header.isEncrypted())
        return "not encrypted";
    if (header.getCipherKeyDeriverID() == brick::CBrickDiskHeader::kKeyWrappingDeriverID) {
        const seal::Argon2idCost cost{header.getCipherKeyDerivationIterations(),
                                      header.getCipherKeyDerivationMemoryKiB(), header.getCipherKeyDerivationLanes()};
        return "encrypted with " + cipher + ", key wrapped under argon2id (" + CKeyDerivationOptions::describe(cost) +
            ")";
    }
    return "encrypted with " + cipher + ", key by PKCS5-PBKDF2-HMAC-SHA1";
}

// The library's choices of the new disk, from the command line; what is left
// open the library decides by the disk's store.
brick::CBrickDisk::CreateOptions diskChoices(const CreateOptions& options)
{
    if (options.noEncryption && !options.cipher.empty())
        throw UsageError("--cipher does not go with --no-encryption");
    brick::CBrickDisk::CreateOptions choices;
    choices.diskSize = parseByteSize(options.size, "disk size");
    if (!options.brickSize.empty())
        choices.brickSize = parseByteSize(options.brickSize, "brick size");
    if (!options.compression.empty())
        choices.compressorID = zo::String(options.compression);
    choices.keyDeriverID = options.kdf == "argon2id" ? brick::CBrickDiskHeader::kKeyWrappingDeriverID
                                                     : brick::CBrickDiskHeader::kPBKDF2DeriverID;
    choices.checkSumID = zo::String(options.checksum);
    choices.cipherID = zo::String(options.cipher);
    choices.cost = options.cost.cost();
    return choices;
}

// Refuses the choices that the disk could not have as usage errors, saying
// which option to change.
void checkDiskChoices(const CreateOptions& options, const brick::CBrickDisk::CreateOptions& choices,
                      const zo::CURI& folder)
{
    try {
        brick::CBrickDisk::checkCreateOptions(choices, folder);
    } catch (const zo::CError& e) {
        const zo::String field = e.getProps().lookup("field");
        if (field == "brickSize")
            throw UsageError("invalid brick size '" + options.brickSize +
                             "': it must be a power of two from 4K to 64M");
        if (field == "diskSize" && choices.diskSize < 1)
            throw UsageError("invalid disk size '" + options.size + "': a disk holds at least one byte");
        if (field == "diskSize") {
            const brick::CBrickDisk::CreateOptions resolved = brick::CBrickDisk::resolveCreateOptions(choices, folder);
            const zo::int64 bricks = brick::CBrickDiskHeader::countBricks(resolved.diskSize, *resolved.brickSize);
            throw UsageError("a disk of " + options.size + " needs " + std::to_string(bricks) +
                             " bricks, more than the " +
                             std::to_string(brick::CBrickDiskHeaderLimits::getMaxBrickCount()) +
                             " that a disk can hold; choose larger bricks");
        }
        if (field == "compressID")
            throw UsageError("unknown compression '" + options.compression +
                             "': use null, lz4, lz4hc, zlib-LEVEL (0 to 9), lzma-PRESET[-EXTREME] (0 to 9, "
                             "extreme 0 or 1) or zstd-LEVEL (1 to 19)");
        if (field == "checkSumHashID")
            throw UsageError("--checksum " + options.checksum + " does not go with --kdf " + options.kdf +
                             ": argon2id disks use hmac-sha256, pbkdf2 disks sha256 or md5");
        if (field == "cipherID")
            throw UsageError("--cipher " + options.cipher + " does not go with --kdf " + options.kdf +
                             ": pbkdf2 disks use aes256cbc");
        throw;
    }
}

int runCreate(const CreateOptions& options)
{
    const zo::CURI folder = diskFolderURI(options.disk);
    const brick::CBrickDisk::CreateOptions choices = diskChoices(options);
    checkDiskChoices(options, choices, folder);

    const zo::P<zo::IFileSystem> fs = newFileSystem(folder, true, 1);
    if (!isMissingOrEmptyFolder(fs.get(), folder))
        throw zo::CError("Cannot create a disk in a folder that is not empty.", zo::String(), -1,
                         zo::CProps().add("diskFolder", folder.toString(true)));

    const zo::String password = options.noEncryption ? zo::String() : options.passwords.forNewDisk(options.disk);
    const brick::CBrickDiskHeader header = brick::CBrickDisk::create(fs.get(), folder, password, choices);
    std::printf("created %s: %s in %lld bricks of %s, compression %s, %s, brick digest %s\n",
                folder.toLocalPath().c_str(), formatBytes(header.getDiskSize()).c_str(),
                static_cast<long long>(header.getBrickCount()), formatBytes(header.getBrickSize()).c_str(),
                header.getCompressID().toUTF8().c_str(), encryptionDescription(header).c_str(),
                header.getCheckSumHashID().toUTF8().c_str());
    return 0;
}

} // namespace

CommandAction addCreateCommand(CLI::App& program)
{
    auto options = std::make_shared<CreateOptions>();
    CLI::App* command = program.add_subcommand("create", "Make a new, empty disk in a folder");
    command->add_option("DISK", options->disk, "Folder of the new disk (made when missing; must be empty)")->required();
    command->add_option("--size", options->size, "Size of the disk, e.g. 64G (K, M, G, T are powers of 1024)")
        ->required();
    command->add_option("--brick-size", options->brickSize,
                        "Size of one brick, a power of two from 4K to 64M (default: 512K in a folder, 4M in an "
                        "object store)");
    command->add_option("--compression", options->compression,
                        "Compressor of the bricks: null, lz4, lz4hc, zlib-LEVEL, lzma-PRESET[-EXTREME], zstd-LEVEL "
                        "(default: lz4 in a folder, zstd-3 in an object store)");
    command
        ->add_option("--checksum", options->checksum,
                     "Digest of every brick: hmac-sha256 (keyed, bound to the brick's index; the default with "
                     "--kdf argon2id), or with --kdf pbkdf2 sha256 (its default) or md5")
        ->check(CLI::IsMember({"hmac-sha256", "sha256", "md5"}));
    command
        ->add_option("--cipher", options->cipher,
                     "Cipher of the bricks: aes256gcm (authenticates each brick itself; the default with --kdf "
                     "argon2id) or aes256cbc (with keyed digests; the only choice with --kdf pbkdf2)")
        ->check(CLI::IsMember({"aes256gcm", "aes256cbc"}));
    command
        ->add_option("--kdf", options->kdf,
                     "Key derivation: argon2id (a random key wrapped under a memory-hard derivation of the "
                     "password, which passwd can change) or pbkdf2 (the key derived from the password itself, "
                     "as older disks have it)")
        ->check(CLI::IsMember({"argon2id", "pbkdf2"}))
        ->capture_default_str();
    options->cost.addTo(*command);
    CLI::Option* noEncryption =
        command->add_flag("--no-encryption", options->noEncryption, "Store the bricks unencrypted, without a password");
    options->passwords.addOptionTo(*command);
    noEncryption->excludes("--password-file");
    return [options] { return runCreate(*options); };
}

} // namespace cli
