#include "support/DiskStreamTestHelpers.h"

#include "brick/chain/Brick.h"
#include "support/TempFolder.h"
#include "zo/Error.h"
#include "zo/LocalFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace testsupport {

void createStreamTestDisk(zo::IFileSystem* fs, const zo::CURI& folder, zo::int64 diskSize, int brickSize, unsigned seed,
                          Bytes* content)
{
    brick::CBrickDisk::create(fs, folder, diskSize, 1, streamTestPassword(), "lz4", brickSize);
    if (!content)
        return;
    *content = patternBytes(static_cast<int>(diskSize), seed);
    const zo::P<brick::CBrickDisk> disk = openStreamTestDisk(fs, folder, zo::IIOStream::AccessReadWrite);
    disk->write(content->getData(), content->getUsed());
    disk->flushChanges();
    if (!disk->getBackgroundErrorList().empty())
        throw zo::CError("A brick of the test disk could not be stored.");
}

zo::P<brick::CBrickDisk> openStreamTestDisk(zo::IFileSystem* fs, const zo::CURI& folder, zo::IIOStream::Access access)
{
    return zo::P<brick::CBrickDisk>(new brick::CBrickDisk(fs, folder, streamTestPassword(), access, 4));
}

zo::CURI brickFileOf(const brick::CBrickDisk& disk, zo::int64 brickIndex)
{
    const zo::P<brick::CBrick> brick = disk.newStandAloneBrickObject();
    brick->seek(brickIndex, 0);
    return disk.getDiskFolder() << brick->getRelativeBrickURI();
}

void damageFile(zo::CMemoryFileSystem& fs, const zo::CURI& file)
{
    const zo::P<Bytes> data = fs.getFileData(file);
    if (!data || data->getUsed() == 0)
        throw zo::CError("No file to damage.");
    (*data)[data->getUsed() / 2] ^= 0x5a;
    fs.setFileData(file, *data);
}

Bytes readToEndInRandomPieces(zo::IInStream& stream, std::mt19937& random, int maxPiece)
{
    Bytes result;
    std::vector<zo::uint8> piece(static_cast<size_t>(maxPiece));
    std::uniform_int_distribution<int> pieceSize(1, maxPiece);
    for (;;) {
        const int got = stream.readLax(piece.data(), pieceSize(random));
        if (got == 0)
            return result;
        result.append(piece.data(), got);
    }
}

Bytes sliceOf(const Bytes& bytes, zo::int64 offset, zo::int64 count)
{
    return Bytes(bytes.getData() + offset, static_cast<int>(count));
}

void roundTripOnLocalFiles(zo::int64 diskSize, int brickSize, int writePiece, unsigned seed,
                           const StreamMaker& makeStream, Bytes& written, Bytes& read)
{
    const TempFolder temp;
    const zo::P<zo::CLocalFileSystem> fs(new zo::CLocalFileSystem(2));
    fs->setSyncEnabled(false);
    const zo::CURI folder = temp.uri() << "disk";
    createStreamTestDisk(fs.get(), folder, diskSize, brickSize, 0, nullptr);
    written = patternBytes(static_cast<int>(diskSize), seed);
    {
        const zo::P<brick::CBrickDisk> disk = openStreamTestDisk(fs.get(), folder, zo::IIOStream::AccessReadWrite);
        const zo::P<zo::IIOStream> writer = makeStream(disk.get());
        for (zo::int64 done = 0; done < diskSize;) {
            const int piece = static_cast<int>(std::min<zo::int64>(writePiece, diskSize - done));
            writer->write(written.getData() + done, piece);
            done += piece;
        }
        writer->flush();
    }
    const zo::P<brick::CBrickDisk> disk = openStreamTestDisk(fs.get(), folder, zo::IIOStream::AccessRead);
    const zo::P<zo::IIOStream> reader = makeStream(disk.get());
    std::mt19937 random(seed);
    read = readToEndInRandomPieces(*reader, random, 5000);
}

void expectBareIOError(const std::function<void()>& operation, zo::CIOError::Code code)
{
    try {
        operation();
        ADD_FAILURE() << "no error thrown";
    } catch (const zo::CIOError& e) {
        EXPECT_EQ(e.getCode(), code);
        EXPECT_TRUE(e.getMessage().isEmpty());
        EXPECT_TRUE(e.getProps().isEmpty());
    }
}

void expectReadPastTheEndCopiesWhatRemains(zo::IInStream& stream, const zo::CURI& uri, const Bytes& content)
{
    const zo::int64 length = content.getUsed();
    stream.seek(length - 10);
    Bytes got(20);
    try {
        stream.read(got.getData(), 20);
        ADD_FAILURE() << "no error thrown";
    } catch (const zo::CIOError& e) {
        EXPECT_EQ(e.getCode(), zo::CIOError::EndOfData);
        EXPECT_TRUE(e.getMessage().isEmpty());
        EXPECT_EQ(e.getProps().getCount(), 1u);
        EXPECT_EQ(e.getProps().lookup("uri"), uri.toString(true));
    }
    got.setUsed(10);
    EXPECT_TRUE(sameBytes(got, sliceOf(content, length - 10, 10)));
    EXPECT_EQ(stream.getPosition(), length);
}

} // namespace testsupport
