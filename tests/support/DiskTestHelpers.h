// Helpers for the tests of the disk object: creating and opening small disks
// (also key-wrapped ones and chains of them), reading and writing byte ranges at positions, naming a disk's files, and
// catching an error of one class to look at its fields.
#pragma once

#include "brick/chain/BrickDisk.h"
#include "seal/KeyDerivation.h"
#include "support/BrickTestHelpers.h"
#include "zo/Error.h"
#include "zo/FileSystem.h"
#include "zo/MemoryFileSystem.h"
#include "zo/URI.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

// Bricks of this size keep test disks small and fast.
constexpr int kDiskTestBrickSize = 4096;

// Creates a disk of `diskSize` bytes in `folder`, payload block size 1.
void createDisk(zo::IFileSystem* fs, const zo::CURI& folder, zo::int64 diskSize, const zo::String& password,
                const zo::String& compressorID = "lz4", int brickSize = kDiskTestBrickSize);
zo::P<brick::CBrickDisk> openDisk(zo::IFileSystem* fs, const zo::CURI& folder, const zo::String& password,
                                  zo::IIOStream::Access access = zo::IIOStream::AccessReadWrite,
                                  int maxBackgroundOps = 4);
// The key that `password` opens the disk in `folder` with (empty for an
// unencrypted disk); fails the test for a wrong password.
zo::TCryptBuffer<zo::uint8> diskKey(zo::IFileSystem* fs, const zo::CURI& folder, const zo::String& password);
// An Argon2id cost that makes key-wrapped test disks quick to open.
inline constexpr seal::Argon2idCost kTestKdfCost{1, 8, 1};
// Creates a key-wrapped disk (a random key wrapped under `password`,
// authenticated bricks) of `diskSize` bytes in `folder`: payload block size
// 1, "lz4", bricks of kDiskTestBrickSize, kTestKdfCost.
void createKeyWrappedDisk(zo::IFileSystem* fs, const zo::CURI& folder, zo::int64 diskSize, const zo::String& password);
// A chain of key-wrapped disks under the one key of `password`: `folders[0]`
// is created as above, each later folder becomes a linked child of the one
// before it, and disk i then holds brick i as patternBytes(brick size,
// seed + i) of its own.
void createKeyWrappedChain(zo::IFileSystem* fs, const std::vector<const char*>& folders, zo::int64 diskSize,
                           const zo::String& password, unsigned seed);
// True when `password` opens the disk in `folder` for reading, false when the
// disk refuses it as incorrect; other errors pass through.
bool opensWith(zo::IFileSystem* fs, const zo::CURI& folder, const zo::String& password);
// Makes a linked child of the disk in `parent`, with the key of `password`
// (which the links of the authenticated format are tied under).
void createLinkedChild(zo::IFileSystem* fs, const zo::CURI& child, const zo::CURI& parent, const zo::String& password);

// `size` bytes read at `position`; the disk's position ends after them.
Bytes readAt(brick::CBrickDisk& disk, zo::int64 position, int size);
// Writes `bytes` at `position`.
void writeAt(brick::CBrickDisk& disk, zo::int64 position, const Bytes& bytes);
// Every byte of the disk, read from position 0.
Bytes readWholeDisk(brick::CBrickDisk& disk);
// `bytes` with `part` copied in at `offset`.
Bytes overlay(const Bytes& bytes, zo::int64 offset, const Bytes& part);

// The file of brick `index` under `folder`, by the brick tree of `disk`.
zo::CURI brickFileOf(const brick::CBrickDisk& disk, const zo::CURI& folder, zo::int64 index);

// The files below `folder`, as paths relative to it, sorted.
std::vector<std::string> filesBelow(zo::IFileSystem* fs, const zo::CURI& folder);
// Every file below `folder` with its bytes.
std::map<std::string, Bytes> fileContentsBelow(zo::CMemoryFileSystem* fs, const zo::CURI& folder);

// The target stored in the link file `fileName` of `folder`.
std::string linkTarget(zo::IFileSystem* fs, const zo::CURI& folder, const char* fileName);
// Writes a link file `fileName` into `folder` that names `target`.
void writeLink(zo::IFileSystem* fs, const zo::CURI& folder, const char* fileName, const zo::CURI& target);

// An error's properties as (name, value) pairs, in the order they were added.
std::vector<std::pair<std::string, std::string>> propsOf(const zo::CError& error);
std::string messageOf(const zo::CError& error);

// The error of class E that `action` throws. Nothing thrown gives nullopt
// and a test failure; an exception of another class passes through.
template <class E, class F>
std::optional<E> errorOf(F&& action)
{
    try {
        action();
    } catch (const E& e) {
        return e;
    }
    ADD_FAILURE() << "Expected an error, but none was thrown.";
    return std::nullopt;
}

} // namespace testsupport
