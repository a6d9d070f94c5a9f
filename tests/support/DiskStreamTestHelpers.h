// Helpers for the tests of the disk streams: small disks filled with known
// bytes, the file of a brick, damaging a brick file, and reading a stream to
// its end in pieces of random sizes.
#pragma once

#include "brick/chain/BrickDisk.h"
#include "support/BrickTestHelpers.h"
#include "zo/Error.h"
#include "zo/FileSystem.h"
#include "zo/MemoryFileSystem.h"
#include "zo/Stream.h"

#include <functional>
#include <random>

namespace testsupport {

// The password of the test disks.
inline const char* streamTestPassword()
{
    return "stream-test";
}

// Creates a disk of `diskSize` bytes in bricks of `brickSize` in `folder`
// (lz4, aes256cbc) and, unless `content` is null, writes pattern bytes drawn
// from `seed` to the whole disk and flushes them; `content` then receives
// those bytes. Nothing stays open.
void createStreamTestDisk(zo::IFileSystem* fs, const zo::CURI& folder, zo::int64 diskSize, int brickSize, unsigned seed,
                          Bytes* content);

// Opens the test disk in `folder` with `access`.
zo::P<brick::CBrickDisk> openStreamTestDisk(zo::IFileSystem* fs, const zo::CURI& folder, zo::IIOStream::Access access);

// The file that holds brick `brickIndex` of `disk`.
zo::CURI brickFileOf(const brick::CBrickDisk& disk, zo::int64 brickIndex);

// Flips one byte in the middle of `file`, which must exist.
void damageFile(zo::CMemoryFileSystem& fs, const zo::CURI& file);

// Reads `stream` with readLax from its position to its end, in pieces of 1 to
// `maxPiece` bytes drawn from `random`, and returns what it read.
Bytes readToEndInRandomPieces(zo::IInStream& stream, std::mt19937& random, int maxPiece);

// A stream over an open disk, as a test makes it.
using StreamMaker = std::function<zo::P<zo::IIOStream>(brick::CBrickDisk* disk)>;

// Creates a disk of `diskSize` bytes in bricks of `brickSize` on local files
// in a temporary folder, writes pattern bytes drawn from `seed` over all of it
// through a stream from `makeStream` in pieces of `writePiece` bytes, flushes
// and closes it, then opens the disk again and reads it whole through another
// such stream, in random pieces. `written` and `read` receive both.
void roundTripOnLocalFiles(zo::int64 diskSize, int brickSize, int writePiece, unsigned seed,
                           const StreamMaker& makeStream, Bytes& written, Bytes& read);

// Reads 20 bytes from 10 bytes before the end of `stream`, whose length is
// the size of `content`, and expects zo::CIOError EndOfData with an empty
// message and "uri" (`uri`) as its only property, the 10 bytes that remain
// copied, and the position left at the end.
void expectReadPastTheEndCopiesWhatRemains(zo::IInStream& stream, const zo::CURI& uri, const Bytes& content);

// Runs `operation` and expects it to throw zo::CIOError `code` with an empty
// message and no properties, as the streams do for misuse such as a seek
// out of range or any call on a closed stream.
void expectBareIOError(const std::function<void()>& operation, zo::CIOError::Code code);

// `count` bytes of `bytes` from `offset` on.
Bytes sliceOf(const Bytes& bytes, zo::int64 offset, zo::int64 count);

} // namespace testsupport
