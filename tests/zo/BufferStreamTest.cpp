#include "zo/BufferStream.h"
#include "zo/Error.h"

#include <gtest/gtest.h>

#include <cstring>

using zo::CBufferStream;
using zo::CIOError;
using zo::P;
using zo::TBuffer;
using zo::uint8;

namespace {

P<CBufferStream> ownedStream()
{
    return P<CBufferStream>(new CBufferStream(static_cast<TBuffer<uint8>*>(nullptr), 2.0));
}

// Runs `action` and returns the I/O code it threw, or -1 when it threw none.
template <class F>
int ioCodeOf(F action)
{
    try {
        action();
    } catch (const CIOError& e) {
        return e.getIOCode();
    }
    return -1;
}

} // namespace

TEST(CBufferStream, OwnsNewBufferWhenGivenNone)
{
    P<CBufferStream> stream = ownedStream();
    stream->write("abc", 3);
    P<TBuffer<uint8>> buffer = stream->getBuffer();
    ASSERT_TRUE(buffer);
    ASSERT_EQ(buffer->getUsed(), 3);
    EXPECT_EQ(std::memcmp(buffer->getData(), "abc", 3), 0);
    EXPECT_EQ(stream->getLength(), 3);
    EXPECT_EQ(stream->getPosition(), 3);
}

TEST(CBufferStream, OwnedBufferOutlivesStream)
{
    P<TBuffer<uint8>> buffer;
    {
        P<CBufferStream> stream = ownedStream();
        stream->write("xyz", 3);
        buffer = stream->getBuffer();
    }
    ASSERT_EQ(buffer->getUsed(), 3);
    EXPECT_EQ(buffer->getRefCount(), 1);
    EXPECT_EQ((*buffer)[2], 'z');
}

TEST(CBufferStream, WritesIntoBorrowedBufferFromItsStart)
{
    P<TBuffer<uint8>> buffer(new TBuffer<uint8>(reinterpret_cast<const uint8*>("hello"), 5));
    P<CBufferStream> stream(new CBufferStream(buffer.get(), 2.0));
    EXPECT_EQ(stream->getLength(), 5);
    EXPECT_EQ(stream->getPosition(), 0);
    stream->write("J", 1);
    EXPECT_EQ(std::memcmp(buffer->getData(), "Jello", 5), 0);
    EXPECT_EQ(stream->getBuffer().get(), buffer.get());
    stream->seek(5);
    stream->write("!!", 2);
    EXPECT_EQ(buffer->getUsed(), 7);
}

TEST(CBufferStream, GrowsByFactorAndKeepsEarlierBytes)
{
    P<TBuffer<uint8>> buffer(new TBuffer<uint8>(0, 8));
    P<CBufferStream> stream(new CBufferStream(buffer.get(), 2.0));
    uint8 bytes[100];
    for (int i = 0; i < 100; ++i)
        bytes[i] = static_cast<uint8>(i);
    stream->write(bytes, 8);
    stream->write(bytes, 1);
    EXPECT_EQ(buffer->getCapacity(), 16);
    stream->write(bytes, 100);
    EXPECT_EQ(buffer->getCapacity(), 109);
    ASSERT_EQ(buffer->getUsed(), 109);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ((*buffer)[i], i);
    EXPECT_EQ((*buffer)[8], 0);
    EXPECT_EQ((*buffer)[108], 99);
}

TEST(CBufferStream, ReadsBackWhatWasWritten)
{
    P<CBufferStream> stream = ownedStream();
    stream->write("0123456789", 10);
    stream->seek(3);
    char out[4] = {};
    stream->read(out, 4);
    EXPECT_EQ(std::string(out, 4), "3456");
    EXPECT_EQ(stream->getPosition(), 7);
    EXPECT_FALSE(stream->isEndOfStream());
    EXPECT_EQ(stream->isEndOfStream_NonBlocking(), 0);
}

TEST(CBufferStream, OverwritesInTheMiddleWithoutChangingLength)
{
    P<CBufferStream> stream = ownedStream();
    stream->write("0123456789", 10);
    stream->seek(2);
    stream->write("ab", 2);
    EXPECT_EQ(stream->getLength(), 10);
    EXPECT_EQ(std::memcmp(stream->getBuffer()->getData(), "01ab456789", 10), 0);
}

TEST(CBufferStream, SeeksWithinZeroToLength)
{
    P<CBufferStream> stream = ownedStream();
    stream->write("abcd", 4);
    stream->seek(0);
    EXPECT_EQ(stream->getPosition(), 0);
    stream->seek(4);
    EXPECT_TRUE(stream->isEndOfStream());
    EXPECT_EQ(stream->isEndOfStream_NonBlocking(), 1);
}

TEST(CBufferStream, SeekOutsideDataThrowsCode7)
{
    P<CBufferStream> stream = ownedStream();
    stream->write("abcd", 4);
    EXPECT_EQ(ioCodeOf([&] { stream->seek(5); }), 7);
    EXPECT_EQ(ioCodeOf([&] { stream->seek(-1); }), 7);
    EXPECT_EQ(stream->getPosition(), 4);
}

TEST(CBufferStream, ReadPastEndCopiesRestThenThrowsCode4)
{
    P<CBufferStream> stream = ownedStream();
    stream->write("abc", 3);
    stream->seek(1);
    char out[8] = {};
    EXPECT_EQ(ioCodeOf([&] { stream->read(out, 5); }), 4);
    EXPECT_EQ(std::string(out, 2), "bc");
    EXPECT_EQ(stream->getPosition(), 3);
}

TEST(CBufferStream, ReadLaxReturnsWhatIsThere)
{
    P<CBufferStream> stream = ownedStream();
    stream->write("abc", 3);
    stream->seek(1);
    char out[8] = {};
    EXPECT_EQ(stream->readLax(out, 8), 2);
    EXPECT_EQ(std::string(out, 2), "bc");
    EXPECT_EQ(stream->readLax(out, 8), 0);
    EXPECT_EQ(stream->readAvailable(out, 8), 0);
    EXPECT_EQ(stream->readLax(out, 0), 0);
    EXPECT_EQ(stream->readLax(out, -4), 0);
}

TEST(CBufferStream, ReadOfNothingSucceedsAtEnd)
{
    P<CBufferStream> stream = ownedStream();
    char out[1];
    EXPECT_NO_THROW(stream->read(out, 0));
}

TEST(CBufferStream, ReadOnlyStreamReadsCallersBuffer)
{
    const TBuffer<uint8> data(reinterpret_cast<const uint8*>("record"), 6);
    P<CBufferStream> stream(new CBufferStream(&data));
    char out[6];
    stream->read(out, 6);
    EXPECT_EQ(std::string(out, 6), "record");
    EXPECT_FALSE(stream->getBuffer());
}

TEST(CBufferStream, ReadOnlyStreamRefusesWrites)
{
    const TBuffer<uint8> data(reinterpret_cast<const uint8*>("record"), 6);
    P<CBufferStream> stream(new CBufferStream(&data));
    EXPECT_EQ(ioCodeOf([&] { stream->write("x", 1); }), CIOError::ReadOnly);
    EXPECT_EQ(ioCodeOf([&] { stream->setLength(2); }), CIOError::ReadOnly);
    EXPECT_EQ(data.getUsed(), 6);
}

TEST(CBufferStream, ClosedStreamThrowsCode10)
{
    P<CBufferStream> stream = ownedStream();
    stream->write("abc", 3);
    stream->close();
    char out[1];
    EXPECT_EQ(ioCodeOf([&] { stream->read(out, 1); }), 10);
    EXPECT_EQ(ioCodeOf([&] { stream->readLax(out, 1); }), 10);
    EXPECT_EQ(ioCodeOf([&] { stream->write("x", 1); }), 10);
    EXPECT_EQ(ioCodeOf([&] { stream->seek(0); }), 10);
    EXPECT_EQ(ioCodeOf([&] { stream->getLength(); }), 10);
    EXPECT_EQ(ioCodeOf([&] { stream->getPosition(); }), 10);
    EXPECT_EQ(ioCodeOf([&] { stream->isEndOfStream(); }), 10);
    EXPECT_EQ(ioCodeOf([&] { stream->flush(); }), 10);
}

TEST(CBufferStream, SetLengthCutsAndExtendsWithZeros)
{
    P<CBufferStream> stream = ownedStream();
    stream->write("abcdef", 6);
    stream->setLength(2);
    EXPECT_EQ(stream->getLength(), 2);
    EXPECT_EQ(stream->getPosition(), 2);
    stream->setLength(5);
    EXPECT_EQ(stream->getLength(), 5);
    const uint8* data = stream->getBuffer()->getData();
    EXPECT_EQ(std::memcmp(data, "ab\0\0\0", 5), 0);
    EXPECT_EQ(ioCodeOf([&] { stream->setLength(-1); }), 7);
}

TEST(CBufferStream, WriteKeepBufferWritesTheSlice)
{
    P<CBufferStream> stream = ownedStream();
    const uint8 bytes[] = {9, 8, 7};
    stream->writeKeepBuffer(zo::TConstBufferSlice<uint8>(bytes, 3));
    EXPECT_EQ(stream->getLength(), 3);
    EXPECT_EQ((*stream->getBuffer())[1], 8);
}

TEST(CBufferStream, WriteBarrierIsPassedAtOnce)
{
    P<CBufferStream> stream = ownedStream();
    P<zo::IWriteBarrier> barrier = stream->createWriteBarrier(nullptr);
    ASSERT_TRUE(barrier);
    EXPECT_TRUE(barrier->isPassed());
    EXPECT_TRUE(barrier->wait(0));
}

TEST(CBufferStream, LockRangeIsNotSupported)
{
    P<CBufferStream> stream = ownedStream();
    try {
        stream->lockRange(0, 1, zo::IStreamBase::ExclusiveLock);
        FAIL() << "no error thrown";
    } catch (const zo::CFileSystemError& e) {
        EXPECT_EQ(e.getProblem(), zo::CFileSystemError::NotSupported);
    }
}

TEST(CBufferStream, HasNoURIAndWaitsForNothing)
{
    P<CBufferStream> stream = ownedStream();
    EXPECT_TRUE(stream->getURI().isEmpty());
    EXPECT_TRUE(stream->waitReadable(0));
    EXPECT_EQ(stream->getSize(), 0);
}
