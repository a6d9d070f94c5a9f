// CBrickFileChecker: checks brick files one by one, as `check` and `delete`
// walk a disk. Without a disk it checks what can be checked without the
// key: the file's start ("BRICK") and, unless the digests are keyed
// ("hmac-sha256"), its outer digest (the last D bytes, D the length of the
// header's checksum digest, are the digest of everything before them). With
// an open disk it also decodes the brick at its index (keyed digests,
// decryption, decompression, the inner digest), which also finds a brick
// file moved or copied from another index.
//
// Threads: a checker keeps its buffers between calls, so one checker serves
// one thread; make one per thread to check in parallel.
#pragma once

#include "brick/chain/BrickDisk.h"
#include "brick/chain/BrickReader.h"
#include "brick/format/BrickDataPreparer.h"
#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickTree.h"

#include "seal/Digest.h"
#include "zo/Export.h"
#include "zo/FileSystem.h"
#include "zo/String.h"

namespace brick {

class BRICKDISK_EXPORT CBrickFileChecker {
public:
    // Checks the brick files of the disk that `header` describes, read
    // through `fs`. `disk` may be null: then the data are not decoded; when
    // given, it must stay open as long as the checker is used. Throws the
    // cryptography library's error for a checksum ID it does not know.
    CBrickFileChecker(zo::IFileSystem* fs, const CBrickDiskHeader& header, CBrickDisk* disk);

    // Empty for a good file, otherwise what is wrong with it in plain words
    // ("damaged: its outer digest does not match its content", "at the wrong
    // index: it is the brick file of brick 7 (moved or copied here)", ...).
    // A file that cannot be read is reported, not thrown.
    zo::String check(const CBrickTree::BrickFile& file);

private:
    zo::String checkOuter(const zo::TBuffer<zo::uint8>& bytes);

    zo::P<zo::IFileSystem> m_fs;
    int m_brickSize;
    // Null when the digests are keyed.
    zo::P<seal::IDigestContext> m_digest;
    int m_minimumSize;
    // The disk's brick reader, which decodes; null without a disk.
    zo::P<CBrickReader> m_reader;
    zo::TBuffer<zo::uint8> m_bytes;
    zo::TBuffer<zo::uint8> m_plain;
};

} // namespace brick
