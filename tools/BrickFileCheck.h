// CBrickFileChecker: checks one brick file. Without a disk it checks what can
// be checked without the key: the file's start ("BRICK") and, unless the
// digests are keyed ("hmac-sha256"), its outer digest (the last D bytes, D
// the length of the header's checksum digest, are the digest of everything
// before them). With an open disk it also decodes the brick at its index
// (keyed digests, decrypt, decompress, compare with the inner digest), which
// finds a brick file moved or copied from another index. One checker per
// thread.
#pragma once

#include "brick/BrickDataPreparer.h"
#include "brick/BrickDisk.h"
#include "brick/BrickDiskHeader.h"
#include "brick/BrickTree.h"
#include "seal/Digest.h"
#include "zo/FileSystem.h"

#include <string>

namespace cli {

class CBrickFileChecker {
public:
    // `disk` may be null: then the data are not decoded.
    CBrickFileChecker(zo::IFileSystem* fs, const brick::CBrickDiskHeader& header, brick::CBrickDisk* disk);

    // Empty for a good file, otherwise what is wrong with it.
    std::string check(const brick::CBrickTree::BrickFile& file);

private:
    std::string checkOuter(const zo::TBuffer<zo::uint8>& bytes);

    zo::P<zo::IFileSystem> m_fs;
    int m_brickSize;
    // Null when the digests are keyed.
    zo::P<seal::IDigestContext> m_digest;
    int m_minimumSize;
    zo::P<brick::CBrickDataPreparer> m_preparer;
    zo::TBuffer<zo::uint8> m_bytes;
    zo::TBuffer<zo::uint8> m_plain;
};

} // namespace cli
