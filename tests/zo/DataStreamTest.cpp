#include "zo/DataStream.h"
#include "zo/BufferStream.h"
#include "zo/Error.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

using zo::CBufferStream;
using zo::CDataInStream;
using zo::CDataOutStream;
using zo::CIOError;
using zo::P;
using zo::String;
using zo::TBuffer;
using zo::uint8;

namespace {

std::vector<uint8> written(const P<CBufferStream>& stream)
{
    const P<TBuffer<uint8>> buffer = stream->getBuffer();
    return std::vector<uint8>(buffer->getData(), buffer->getData() + buffer->getUsed());
}

P<CBufferStream> newStream()
{
    return P<CBufferStream>(new CBufferStream(static_cast<TBuffer<uint8>*>(nullptr), 2.0));
}

P<CBufferStream> readerOver(std::vector<uint8> bytes, TBuffer<uint8>& storage)
{
    storage.assign(bytes.data(), static_cast<int>(bytes.size()));
    return P<CBufferStream>(new CBufferStream(&storage));
}

} // namespace

TEST(CDataOutStream, WritesInt16LittleEndian)
{
    P<CBufferStream> stream = newStream();
    CDataOutStream(stream.get()).writeInt16(0x1234).writeInt16(-2);
    EXPECT_EQ(written(stream), (std::vector<uint8>{0x34, 0x12, 0xFE, 0xFF}));
}

TEST(CDataOutStream, WritesInt32LittleEndian)
{
    P<CBufferStream> stream = newStream();
    CDataOutStream(stream.get()).writeInt32(0x01020304).writeInt32(-1);
    EXPECT_EQ(written(stream), (std::vector<uint8>{0x04, 0x03, 0x02, 0x01, 0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST(CDataOutStream, WritesInt64LittleEndian)
{
    P<CBufferStream> stream = newStream();
    CDataOutStream(stream.get()).writeInt64(0x0102030405060708LL);
    EXPECT_EQ(written(stream), (std::vector<uint8>{0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01}));
}

TEST(CDataOutStream, WritesStringAsByteCountAndUtf8)
{
    P<CBufferStream> stream = newStream();
    CDataOutStream(stream.get()).writeString(String(u"a\u00E9"));
    EXPECT_EQ(written(stream), (std::vector<uint8>{3, 0, 0, 0, 'a', 0xC3, 0xA9}));
}

TEST(CDataOutStream, WritesEmptyStringAsZeroCount)
{
    P<CBufferStream> stream = newStream();
    CDataOutStream(stream.get()).writeString(String());
    EXPECT_EQ(written(stream), (std::vector<uint8>{0, 0, 0, 0}));
}

TEST(CDataOutStream, WritesRawBytesWithoutFraming)
{
    P<CBufferStream> stream = newStream();
    CDataOutStream(stream.get()).write("BRCKLINK", 8).writeInt32(1);
    EXPECT_EQ(written(stream), (std::vector<uint8>{'B', 'R', 'C', 'K', 'L', 'I', 'N', 'K', 1, 0, 0, 0}));
}

TEST(CDataInStream, ReadsLittleEndianIntegers)
{
    TBuffer<uint8> storage;
    P<CBufferStream> stream =
        readerOver({0x34, 0x12, 0x04, 0x03, 0x02, 0x01, 0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x81}, storage);
    CDataInStream in(stream.get());
    EXPECT_EQ(in.readInt16(), 0x1234);
    EXPECT_EQ(in.readInt32(), 0x01020304);
    EXPECT_EQ(in.readInt64(), static_cast<int64_t>(0x8102030405060708ULL));
}

TEST(CDataInStream, RoundTripsExtremeValuesAndStrings)
{
    P<CBufferStream> stream = newStream();
    const String text(u"Z\u00FCrich \U0001F600");
    CDataOutStream(stream.get())
        .writeInt16(std::numeric_limits<int16_t>::min())
        .writeInt32(std::numeric_limits<int32_t>::min())
        .writeInt64(std::numeric_limits<int64_t>::max())
        .writeString(text)
        .writeString(String());
    stream->seek(0);
    CDataInStream in(stream.get());
    EXPECT_EQ(in.readInt16(), std::numeric_limits<int16_t>::min());
    EXPECT_EQ(in.readInt32(), std::numeric_limits<int32_t>::min());
    EXPECT_EQ(in.readInt64(), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(in.readString(), text);
    EXPECT_TRUE(in.readString().isEmpty());
    EXPECT_TRUE(stream->isEndOfStream());
}

TEST(CDataInStream, ReadsExactlyTheBytesAskedFor)
{
    TBuffer<uint8> storage;
    P<CBufferStream> stream = readerOver({'B', 'R', 'C', 'K', 'D', 'I', 'S', 'K', 7}, storage);
    CDataInStream in(stream.get());
    char id[8];
    in.read(id, 8);
    EXPECT_EQ(std::string(id, 8), "BRCKDISK");
    EXPECT_EQ(stream->getPosition(), 8);
}

TEST(CDataInStream, ShortReadThrowsEndOfData)
{
    TBuffer<uint8> storage;
    P<CBufferStream> stream = readerOver({1, 2, 3}, storage);
    CDataInStream in(stream.get());
    try {
        in.readInt32();
        FAIL() << "no error thrown";
    } catch (const CIOError& e) {
        EXPECT_EQ(e.getIOCode(), CIOError::EndOfData);
    }
}

TEST(CDataInStream, StringLongerThanDataThrowsEndOfData)
{
    TBuffer<uint8> storage;
    P<CBufferStream> stream = readerOver({0xFF, 0xFF, 0xFF, 0x7F, 'a', 'b'}, storage);
    CDataInStream in(stream.get());
    try {
        in.readString();
        FAIL() << "no error thrown";
    } catch (const CIOError& e) {
        EXPECT_EQ(e.getIOCode(), CIOError::EndOfData);
    }
}

TEST(CDataInStream, NegativeStringLengthThrowsInvalidData)
{
    TBuffer<uint8> storage;
    P<CBufferStream> stream = readerOver({0xFE, 0xFF, 0xFF, 0xFF, 'a'}, storage);
    CDataInStream in(stream.get());
    try {
        in.readString();
        FAIL() << "no error thrown";
    } catch (const CIOError& e) {
        EXPECT_EQ(e.getIOCode(), CIOError::InvalidData);
        EXPECT_EQ(e.getProps().lookup("length"), "-2");
    }
}

TEST(CDataInStream, ReadsStringLargerThanOneChunk)
{
    P<CBufferStream> stream = newStream();
    const String text(std::string(10000, 'q') + "end");
    CDataOutStream(stream.get()).writeString(text);
    stream->seek(0);
    EXPECT_EQ(CDataInStream(stream.get()).readString(), text);
}
