// The defaults of CInStreamBase, CStreamBase and CReadOnlyStreamBase, seen
// through small streams that implement only the calls the bases leave to
// them.
#include "zo/StreamBase.h"
#include "zo/Error.h"
#include "zo/URI.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

using namespace zo;

namespace {

// Bytes in a string; readLax and write are its own, the rest comes from the base.
class CStringStream : public CStreamBase {
public:
    CStringStream(std::string bytes, CURI uri)
        : CStreamBase("String stream"), m_bytes(std::move(bytes)), m_uri(std::move(uri))
    {}

    int64 getLength() override { return static_cast<int64>(m_bytes.size()); }
    int64 getPosition() override { return m_position; }
    CURI getURI() override { return m_uri; }
    void seek(int64 position) override { m_position = position; }
    void close() override {}
    int readLax(void* dst, int size) override
    {
        const int count = static_cast<int>(std::min<int64>(size, getLength() - m_position));
        std::memcpy(dst, m_bytes.data() + m_position, static_cast<size_t>(count));
        m_position += count;
        return count;
    }
    void write(const void* src, int size, IWriteBarrier*) override
    {
        m_bytes.replace(static_cast<size_t>(m_position), static_cast<size_t>(size), static_cast<const char*>(src),
                        static_cast<size_t>(size));
        m_position += size;
    }
    void flush() override {}
    void setLength(int64 length) override { m_bytes.resize(static_cast<size_t>(length)); }

    const std::string& bytes() const { return m_bytes; }

private:
    std::string m_bytes;
    CURI m_uri;
    int64 m_position = 0;
};

P<CStringStream> makeStream(const std::string& bytes, const CURI& uri = CURI("/s"))
{
    return P<CStringStream>(new CStringStream(bytes, uri));
}

TEST(StreamBase, ReadGivesExactlyTheBytesAsked)
{
    const P<CStringStream> stream = makeStream("abcdef");
    char out[4] = {};
    stream->read(out, 4);
    EXPECT_EQ(std::string(out, 4), "abcd");
    EXPECT_EQ(stream->getPosition(), 4);
}

TEST(StreamBase, ShortReadThrowsEndOfDataWithWantedGotAndURI)
{
    const P<CStringStream> stream = makeStream("abc");
    char out[5] = {};
    try {
        stream->read(out, 5);
        FAIL() << "read did not throw";
    } catch (const CIOError& e) {
        EXPECT_EQ(e.getCode(), CIOError::EndOfData);
        EXPECT_EQ(e.getProps().lookup("wanted"), "5");
        EXPECT_EQ(e.getProps().lookup("got"), "3");
        EXPECT_EQ(e.getProps().lookup("uri"), "/s");
    }
}

TEST(StreamBase, ShortReadOfAStreamWithoutURILeavesTheURIOut)
{
    const P<CStringStream> stream = makeStream("abc", CURI());
    char out[5] = {};
    try {
        stream->read(out, 5);
        FAIL() << "read did not throw";
    } catch (const CIOError& e) {
        EXPECT_FALSE(e.getProps().contains("uri"));
    }
}

TEST(StreamBase, ReadAvailableAndEndOfStreamFollowTheStream)
{
    const P<CStringStream> stream = makeStream("abc");
    char out[8] = {};
    EXPECT_TRUE(stream->waitReadable(0));
    EXPECT_FALSE(stream->isEndOfStream());
    EXPECT_EQ(stream->isEndOfStream_NonBlocking(), 0);
    EXPECT_EQ(stream->readAvailable(out, 8), 3);
    EXPECT_TRUE(stream->isEndOfStream());
    EXPECT_EQ(stream->isEndOfStream_NonBlocking(), 1);
}

TEST(StreamBase, LockRangeIsNotSupportedAndNamesTheStream)
{
    const P<CStringStream> stream = makeStream("abc");
    try {
        stream->lockRange(0, 1, IStreamBase::SharedLock);
        FAIL() << "lockRange did not throw";
    } catch (const CFileSystemError& e) {
        EXPECT_EQ(e.getProblem(), CFileSystemError::NotSupported);
        EXPECT_EQ(e.getMessage(), "String stream does not support lockRange.");
        EXPECT_EQ(e.getProps().lookup("uri"), "/s");
    }
}

TEST(StreamBase, WriteKeepBufferWritesTheSliceAndBarriersArePassed)
{
    const P<CStringStream> stream = makeStream("......");
    const TBuffer<uint8> data(reinterpret_cast<const uint8*>("xyz"), 3);
    stream->seek(2);
    stream->writeKeepBuffer(TConstBufferSlice<uint8>(data));
    EXPECT_EQ(stream->bytes(), "..xyz.");
    const P<IWriteBarrier> barrier = stream->createWriteBarrier(nullptr);
    EXPECT_TRUE(barrier->isPassed());
    EXPECT_TRUE(barrier->wait(0));
}

// Bytes in a string that refuses writes; checkOpen is its own, the writing
// calls come from the base.
class CReadOnlyStringStream : public CReadOnlyStreamBase {
public:
    explicit CReadOnlyStringStream(CURI uri) : CReadOnlyStreamBase("Read-only string stream"), m_uri(std::move(uri)) {}

    int64 getLength() override { return 3; }
    int64 getPosition() override { return 0; }
    CURI getURI() override { return m_uri; }
    void seek(int64) override {}
    void close() override { m_closed = true; }
    int readLax(void*, int) override { return 0; }

private:
    void checkOpen() const override
    {
        if (m_closed)
            throw CIOError(CIOError::StreamClosed, String());
    }

    CURI m_uri;
    bool m_closed = false;
};

// The error `call` throws: a CIOError, or a test failure.
P<CError> ioErrorOf(const std::function<void()>& call)
{
    try {
        call();
    } catch (const CIOError& e) {
        return e.clone();
    }
    ADD_FAILURE() << "no CIOError";
    return P<CError>();
}

TEST(StreamBase, ReadOnlyStreamRefusesWritesAndNamesItsURI)
{
    const P<CReadOnlyStringStream> stream(new CReadOnlyStringStream(CURI("/r")));
    for (const auto& call :
         std::vector<std::function<void()>>{[&] { stream->write("x", 1); }, [&] { stream->setLength(1); }}) {
        const P<CError> error = ioErrorOf(call);
        ASSERT_TRUE(error);
        EXPECT_EQ(error->getCode(), CIOError::ReadOnly);
        EXPECT_EQ(error->getMessage(), "The stream is open for reading only.");
        EXPECT_EQ(error->getProps().lookup("uri"), "/r");
    }
    EXPECT_NO_THROW(stream->flush());

    const P<CReadOnlyStringStream> unnamed(new CReadOnlyStringStream(CURI()));
    const P<CError> error = ioErrorOf([&] { unnamed->write("x", 1); });
    ASSERT_TRUE(error);
    EXPECT_FALSE(error->getProps().contains("uri"));
}

TEST(StreamBase, ClosedReadOnlyStreamSaysItIsClosed)
{
    const P<CReadOnlyStringStream> stream(new CReadOnlyStringStream(CURI("/r")));
    stream->close();
    for (const auto& call : std::vector<std::function<void()>>{
             [&] { stream->write("x", 1); }, [&] { stream->setLength(1); }, [&] { stream->flush(); }}) {
        const P<CError> error = ioErrorOf(call);
        ASSERT_TRUE(error);
        EXPECT_EQ(error->getCode(), CIOError::StreamClosed);
    }
}

} // namespace
