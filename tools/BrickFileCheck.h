// CBrickFileChecker: checks one brick file. Without a disk it checks what can
// be checked without the key: the file's start ("BRICK") and its outer digest
// (the last D bytes, D the length of the header's checksum digest, are the
// digest of everything before them). With an open disk it also decodes the
// brick (decrypt, decompress, compare with the inner digest). One checker per
// thread.
#pragma once

#include "BrickTree.h"

#include "brick/BrickDataPreparer.h"
#include "brick/BrickDisk.h"
#include "brick/BrickDiskHeader.h"
#include "seal/Digest.h"
#include "zo/FileSystem.h"

#include <string>

namespace cli {

class CBrickFileChecker {
public:
    // `disk` may be null: then the data are not decoded.
    CBrickFileChecker(zo::IFileSystem* fs, const brick::CBrickDiskHeader& header, brick::CBrickDisk* disk);

    // Empty for a good file, otherwise what is wrong with it.
    std::string check(const BrickFile& file);

private:
    std::string checkOuter(const zo::TBuffer<zo::uint8>& bytes);

    zo::P<zo::IFileSystem> m_fs;
    int m_brickSize;
    zo::P<seal::IDigestContext> m_digest;
    zo::P<brick::CBrickDataPreparer> m_preparer;
    zo::TBuffer<zo::uint8> m_bytes;
    zo::TBuffer<zo::uint8> m_plain;
};

} // namespace cli
