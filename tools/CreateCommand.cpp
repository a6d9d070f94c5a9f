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

#include "brick/BrickDisk.h"
#include "brick/BrickDiskHeader.h"
#include "brick/BrickDiskHeaderLimits.h"
#include "zo/Error.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

namespace cli {

namespace {

// Without --brick-size: 512 KiB bricks in a local folder; in an object store,
// where every brick is a request and a service's work per object bounds the
// speed, 4 MiB bricks (eight times fewer objects).
constexpr const char* kLocalBrickSize = "512K";
constexpr const char* kObjectStoreBrickSize = "4M";
// Without --compression: LZ4 in a local folder, where import speed counts
// most; in an object store, where every stored byte is paid for and the
// network is slower than zstd at level 3, zstd-3 (about two thirds of LZ4's
// bytes on the comparison image; docs/benchmarks.md).
constexpr const char* kLocalCompression = "lz4";
constexpr const char* kObjectStoreCompression = "zstd-3";

struct CreateOptions {
    std::string disk;
    std::string size;
    // Empty: kLocalBrickSize or kObjectStoreBrickSize, by where the disk is.
    std::string brickSize;
    // Empty: kLocalCompression or kObjectStoreCompression, by where the disk is.
    std::string compression;
    // Empty: "hmac-sha256" for argon2id, "sha256" for pbkdf2.
    std::string checksum;
    // Empty: "aes256gcm" for argon2id, "aes256cbc" for pbkdf2.
    std::string cipher;
    std::string kdf = "argon2id";
    CKeyDerivationOptions cost;
    bool noEncryption = false;
    CPasswordSource passwords;
};

bool isAuthenticated(const CreateOptions& options)
{
    return options.kdf == "argon2id";
}

// The brick digest for the chosen key derivation; a combination that the
// disk could not use is a usage error.
std::string brickDigestFor(const CreateOptions& options)
{
    if (options.checksum.empty())
        return isAuthenticated(options) ? brick::CBrickDisk::kAuthenticatedCheckSumID : "sha256";
    if (isAuthenticated(options) != (options.checksum == brick::CBrickDisk::kAuthenticatedCheckSumID))
        throw UsageError("--checksum " + options.checksum + " does not go with --kdf " + options.kdf +
                         ": argon2id disks use hmac-sha256, pbkdf2 disks sha256 or md5");
    return options.checksum;
}

// The cipher for the chosen key derivation; the authenticated cipher on a
// disk of the original format is a usage error.
std::string cipherFor(const CreateOptions& options)
{
    if (options.noEncryption && !options.cipher.empty())
        throw UsageError("--cipher does not go with --no-encryption");
    if (options.cipher.empty())
        return isAuthenticated(options) ? brick::CBrickDisk::kAuthenticatedCipherID : "aes256cbc";
    if (!isAuthenticated(options) && options.cipher != "aes256cbc")
        throw UsageError("--cipher " + options.cipher + " does not go with --kdf " + options.kdf +
                         ": pbkdf2 disks use aes256cbc");
    return options.cipher;
}

std::string encryptionDescription(const CreateOptions& options, const std::string& cipher,
                                  const seal::Argon2idCost& cost)
{
    if (options.noEncryption)
        return "not encrypted";
    if (isAuthenticated(options))
        return "encrypted with " + cipher + ", key wrapped under argon2id (" + CKeyDerivationOptions::describe(cost) +
               ")";
    return "encrypted with " + cipher + ", key by PKCS5-PBKDF2-HMAC-SHA1";
}

// A brick size that the disk could not be opened with is a usage error.
zo::int64 validBrickSize(const std::string& text)
{
    const zo::int64 size = parseByteSize(text, "brick size");
    try {
        brick::CBrickDiskHeaderLimits::checkBrickSize(size);
    } catch (const zo::CError&) {
        throw UsageError("invalid brick size '" + text + "': it must be a power of two from 4K to 64M");
    }
    return size;
}

// The same for a disk size: at least one byte, and no more bricks than the
// brick tree addresses.
void checkDiskSize(const std::string& text, zo::int64 diskSize, zo::int64 brickSize)
{
    try {
        brick::CBrickDiskHeaderLimits::checkDiskSize(diskSize, brickSize);
    } catch (const zo::CError&) {
        if (diskSize < 1)
            throw UsageError("invalid disk size '" + text + "': a disk holds at least one byte");
        const zo::int64 maxCount = brick::CBrickDiskHeaderLimits::getMaxBrickCount();
        const zo::int64 brickCount = diskSize / brickSize + (diskSize % brickSize != 0 ? 1 : 0);
        throw UsageError("a disk of " + text + " needs " + std::to_string(brickCount) + " bricks, more than the " +
                         std::to_string(maxCount) + " that a disk can hold; choose larger bricks");
    }
}

// The same for a compressor ID.
void checkCompressorID(const std::string& id)
{
    try {
        brick::CBrickDiskHeaderLimits::checkCompressID(zo::String(id));
    } catch (const zo::CError&) {
        throw UsageError("unknown compression '" + id +
                         "': use null, lz4, lz4hc, zlib-LEVEL (0 to 9), lzma-PRESET[-EXTREME] (0 to 9, "
                         "extreme 0 or 1) or zstd-LEVEL (1 to 19)");
    }
}

// Gives the new disk's bricks another digest than the one a new header has:
// the header is written again with it before any brick exists.
void setBrickDigest(zo::IFileSystem* fs, const zo::CURI& folder, const std::string& checksum)
{
    brick::CBrickDiskHeader header;
    header.load(fs, folder);
    if (header.getCheckSumHashID() == zo::String(checksum))
        return;
    header.setCheckSumHashID(zo::String(checksum));
    header.store(fs, folder);
}

int runCreate(const CreateOptions& options)
{
    const zo::CURI folder = diskFolderURI(options.disk);
    const zo::int64 diskSize = parseByteSize(options.size, "disk size");
    const zo::int64 brickSize = validBrickSize(
        !options.brickSize.empty() ? options.brickSize : isLocalFolder(folder) ? kLocalBrickSize : kObjectStoreBrickSize);
    checkDiskSize(options.size, diskSize, brickSize);
    // Rounded up without overflowing for sizes near the largest number.
    const zo::int64 brickCount = diskSize / brickSize + (diskSize % brickSize != 0 ? 1 : 0);
    const std::string compression = !options.compression.empty() ? options.compression
                                    : isLocalFolder(folder)       ? kLocalCompression
                                                                  : kObjectStoreCompression;
    checkCompressorID(compression);
    const std::string checksum = brickDigestFor(options);
    const std::string cipher = cipherFor(options);
    const seal::Argon2idCost cost = options.cost.cost();

    const zo::P<zo::IFileSystem> fs = newFileSystem(folder, true, 1);
    if (!isMissingOrEmptyFolder(fs.get(), folder))
        throw zo::CError("Cannot create a disk in a folder that is not empty.", zo::String(), -1,
                         zo::CProps().add("diskFolder", folder.toString(true)));

    const zo::String password = options.noEncryption ? zo::String() : options.passwords.forNewDisk(options.disk);
    if (isAuthenticated(options)) {
        brick::CBrickDisk::createAuthenticated(fs.get(), folder, diskSize, 1, password,
                                               zo::String(compression), static_cast<int>(brickSize), cost,
                                               zo::String(cipher));
    } else {
        brick::CBrickDisk::create(fs.get(), folder, diskSize, 1, password, zo::String(compression),
                                  static_cast<int>(brickSize));
        setBrickDigest(fs.get(), folder, checksum);
    }
    std::printf("created %s: %s in %lld bricks of %s, compression %s, %s, brick digest %s\n",
                folder.toLocalPath().c_str(), formatBytes(diskSize).c_str(), static_cast<long long>(brickCount),
                formatBytes(brickSize).c_str(), compression.c_str(),
                encryptionDescription(options, cipher, cost).c_str(), checksum.c_str());
    return 0;
}

} // namespace

CommandAction addCreateCommand(CLI::App& program)
{
    auto options = std::make_shared<CreateOptions>();
    CLI::App* command = program.add_subcommand("create", "Make a new, empty disk in a folder");
    command->add_option("DISK", options->disk, "Folder of the new disk (made when missing; must be empty)")
        ->required();
    command->add_option("--size", options->size, "Size of the disk, e.g. 64G (K, M, G, T are powers of 1024)")
        ->required();
    command->add_option("--brick-size", options->brickSize,
                        "Size of one brick, a power of two from 4K to 64M (default: 512K in a folder, 4M in an "
                        "object store)");
    command->add_option("--compression", options->compression,
                        "Compressor of the bricks: null, lz4, lz4hc, zlib-LEVEL, lzma-PRESET[-EXTREME], zstd-LEVEL "
                        "(default: lz4 in a folder, zstd-3 in an object store)");
    command->add_option("--checksum", options->checksum,
                        "Digest of every brick: hmac-sha256 (keyed, bound to the brick's index; the default with "
                        "--kdf argon2id), or with --kdf pbkdf2 sha256 (its default) or md5")
        ->check(CLI::IsMember({"hmac-sha256", "sha256", "md5"}));
    command->add_option("--cipher", options->cipher,
                        "Cipher of the bricks: aes256gcm (authenticates each brick itself; the default with --kdf "
                        "argon2id) or aes256cbc (with keyed digests; the only choice with --kdf pbkdf2)")
        ->check(CLI::IsMember({"aes256gcm", "aes256cbc"}));
    command->add_option("--kdf", options->kdf,
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
