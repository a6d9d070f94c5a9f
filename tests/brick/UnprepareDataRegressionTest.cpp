// Brick files that once made unpreparing misbehave, kept so that they never do
// again.
#include "brick/format/BrickDataPreparer.h"
#include "brick/format/BrickDiskHeader.h"
#include "seal/Digest.h"
#include "zo/Error.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

using Bytes = zo::TBuffer<zo::uint8>;

// An intact, unencrypted brick file with the given inner digest and an empty
// ciphertext, under SHA-256 digests.
Bytes emptyCipherTextBrick(const Bytes& innerDigest)
{
    Bytes file(reinterpret_cast<const zo::uint8*>("BRICK\x01\x00\x01\x00"), 9);
    file.append(innerDigest.getData(), innerDigest.getUsed());
    const zo::P<seal::IDigestContext> sha256 = seal::CDigestManager().getType("sha256")->createContext();
    sha256->update(file.getData(), file.getUsed());
    sha256->finish();
    file.append(sha256->getDigest(), sha256->getSize());
    return file;
}

zo::CError unprepareFailure(const char* compressID, const Bytes& file)
{
    brick::CBrickDiskHeader header;
    header.setCompressID(compressID);
    header.setCipherID("null");
    header.setCheckSumHashID("sha256");
    brick::CBrickDataPreparer preparer(header, zo::TCryptBuffer<zo::uint8>());
    Bytes plain;
    try {
        preparer.unprepareData(file, plain);
    } catch (const zo::CError& error) {
        return error;
    }
    ADD_FAILURE() << "the brick file was accepted";
    return zo::CError("no error");
}

TEST(UnprepareDataRegression, CompressorsRefuseAnEmptyCipherText)
{
    Bytes zeroDigest(32);
    std::memset(zeroDigest.getData(), 0, 32);
    for (const char* compressID : {"zlib-6", "lz4", "lz4hc", "lzma-6", "zstd-3"}) {
        SCOPED_TRACE(compressID);
        const zo::CError error = unprepareFailure(compressID, emptyCipherTextBrick(zeroDigest));
        EXPECT_FALSE(error.getProps().contains("action")) << error.what();
    }
}

TEST(UnprepareDataRegression, InnerDigestRefusesTheEmptyResultOfAnEmptyCipherText)
{
    Bytes zeroDigest(32);
    std::memset(zeroDigest.getData(), 0, 32);
    const zo::CError error = unprepareFailure("null", emptyCipherTextBrick(zeroDigest));
    EXPECT_EQ(error.getMessage().toUTF8(), "Decrypted and decompressed brick data does not match hash.");
}

} // namespace
