#include "brick/format/BrickDiskAuxFileBase.h"

#include "support/TempFolder.h"

#include "zo/Error.h"
#include "zo/ForwardingFileSystem.h"
#include "zo/LocalFileSystem.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

using brick::CBrickDiskAuxFileBase;
using zo::CError;
using zo::CFileSystemError;
using zo::CMemoryFileSystem;
using zo::CProps;
using zo::CURI;
using zo::P;
using zo::TBuffer;
using zo::uint8;

namespace {

using Op = CMemoryFileSystem::Operation;

TBuffer<uint8> bytes(const std::vector<uint8>& values)
{
    return TBuffer<uint8>(values.data(), static_cast<int>(values.size()));
}

TBuffer<uint8> bytes(const std::string& text)
{
    return TBuffer<uint8>(reinterpret_cast<const uint8*>(text.data()), static_cast<int>(text.size()));
}

std::vector<uint8> toVector(const TBuffer<uint8>& buffer)
{
    return std::vector<uint8>(buffer.getData(), buffer.getData() + buffer.getUsed());
}

// "abc" framed: the payload, then its MD5 digest (from RFC 1321).
std::vector<uint8> framedABC()
{
    return {'a',  'b',  'c',  0x90, 0x01, 0x50, 0x98, 0x3c, 0xd2, 0x4f,
            0xb0, 0xd6, 0x96, 0x3f, 0x7d, 0x28, 0xe1, 0x7f, 0x72};
}

// A stream that cannot tell its length, as some file systems hand out.
class CUnknownLengthStream : public zo::CBase, public zo::IIOStream {
public:
    explicit CUnknownLengthStream(P<zo::IIOStream> inner) : m_inner(std::move(inner)) {}

    zo::int64 getLength() override { return -1; }
    zo::int64 getPosition() override { return m_inner->getPosition(); }
    CURI getURI() override { return m_inner->getURI(); }
    void seek(zo::int64 position) override { m_inner->seek(position); }
    void lockRange(zo::int64 start, zo::int64 length, LockType type) override
    {
        m_inner->lockRange(start, length, type);
    }
    void close() override { m_inner->close(); }
    void read(void* dst, int size) override { m_inner->read(dst, size); }
    int readLax(void* dst, int size) override { return m_inner->readLax(dst, size); }
    int readAvailable(void* dst, int size) override { return m_inner->readAvailable(dst, size); }
    bool waitReadable(int timeoutMillis) override { return m_inner->waitReadable(timeoutMillis); }
    bool isEndOfStream() override { return m_inner->isEndOfStream(); }
    int isEndOfStream_NonBlocking() override { return m_inner->isEndOfStream_NonBlocking(); }
    void write(const void* src, int size, zo::IWriteBarrier* barrier) override { m_inner->write(src, size, barrier); }
    void writeKeepBuffer(const zo::TConstBufferSlice<uint8>& slice, zo::IWriteBarrier* barrier) override
    {
        m_inner->writeKeepBuffer(slice, barrier);
    }
    P<zo::IWriteBarrier> createWriteBarrier(zo::IWriteBarrier* previous) override
    {
        return m_inner->createWriteBarrier(previous);
    }
    void flush() override { m_inner->flush(); }
    void setLength(zo::int64 length) override { m_inner->setLength(length); }

private:
    P<zo::IIOStream> m_inner;
};

// A file system that passes every call to a memory file system, except that
// its streams may not know their length and its openStream may throw an
// exception that is not a CError.
class CAlteredFileSystem : public zo::CForwardingFileSystem {
public:
    explicit CAlteredFileSystem(const P<CMemoryFileSystem>& inner) : CForwardingFileSystem(inner.get()) {}

    bool streamsWithoutLength = false;
    bool openThrowsStdException = false;
    int openCount = 0;

    P<zo::IIOStream> openStream(const CURI& file, zo::IIOStream::Access access, const int& options) override
    {
        ++openCount;
        if (openThrowsStdException)
            throw std::runtime_error("not a brickdisk error");
        P<zo::IIOStream> stream = CForwardingFileSystem::openStream(file, access, options);
        if (streamsWithoutLength)
            return P<zo::IIOStream>(new CUnknownLengthStream(stream));
        return stream;
    }
};

class BrickDiskAuxFile : public ::testing::Test {
protected:
    void SetUp() override { fs->createFolder(folder, 0x1ff); }

    std::vector<uint8> fileBytes(const CURI& file) const
    {
        const P<TBuffer<uint8>> data = fs->getFileData(file);
        return data ? toVector(*data) : std::vector<uint8>();
    }
    void setFile(const CURI& file, const std::vector<uint8>& contents) { fs->setFileData(file, bytes(contents)); }

    P<CMemoryFileSystem> fs{new CMemoryFileSystem()};
    const CURI folder{"/disk"};
    const CURI primary{"/disk/record"};
    const CURI fallback{"/disk/fallback/record"};
};

std::vector<std::string> logOf(const CMemoryFileSystem& fs)
{
    std::vector<std::string> lines;
    for (const auto& line : fs.getOperationLog())
        lines.push_back(line.toUTF8());
    return lines;
}

// The lines of the log that change files or folders: a store first reads
// both copies to choose its order, which is left out here.
std::vector<std::string> changesOf(const CMemoryFileSystem& fs)
{
    std::vector<std::string> changes;
    for (const std::string& line : logOf(fs)) {
        if (line.rfind("openStream ", 0) != 0 && line.rfind("getFileInfo ", 0) != 0)
            changes.push_back(line);
    }
    return changes;
}

} // namespace

TEST(BrickDiskAuxFileURI, CopyZeroIsTheFileInTheFolder)
{
    EXPECT_EQ(CBrickDiskAuxFileBase::getAuxFileURI(CURI("/d"), "disk.brickdisk", 0), CURI("/d/disk.brickdisk"));
}

TEST(BrickDiskAuxFileURI, OtherCopiesAreInTheFallbackFolder)
{
    EXPECT_EQ(CBrickDiskAuxFileBase::getAuxFileURI(CURI("/d"), "x", 1), CURI("/d/fallback/x"));
    EXPECT_EQ(CBrickDiskAuxFileBase::getAuxFileURI(CURI("/d"), "x", 2), CURI("/d/fallback/x"));
    EXPECT_EQ(CBrickDiskAuxFileBase::getAuxFileURI(CURI("/d"), "x", -1), CURI("/d/fallback/x"));
}

TEST_F(BrickDiskAuxFile, StoreWritesPayloadFollowedByItsMD5IntoBothCopies)
{
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, "record", bytes(std::string("abc")));
    EXPECT_EQ(fileBytes(primary), framedABC());
    EXPECT_EQ(fileBytes(fallback), framedABC());
}

TEST_F(BrickDiskAuxFile, StoreReplacesPrimaryBeforeCreatingFallbackFolderAndReplacingFallback)
{
    fs->resetCounters();
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, "record", bytes(std::string("abc")));
    EXPECT_EQ(changesOf(*fs),
              (std::vector<std::string>{"storeFile /disk/record", "createFolderSync /disk/fallback",
                                        "storeFile /disk/fallback/record"}));
}

TEST_F(BrickDiskAuxFile, StoreReplacesTheOnlyIntactPrimaryLast)
{
    for (const bool damaged : {false, true}) {
        setFile(primary, framedABC());
        fs->deleteFile(fallback, true);
        if (damaged)
            setFile(fallback, {1, 2, 3});
        fs->resetCounters();
        CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, "record", bytes(std::string("new record")));
        EXPECT_EQ(changesOf(*fs),
                  (std::vector<std::string>{"createFolderSync /disk/fallback", "storeFile /disk/fallback/record",
                                            "storeFile /disk/record"}))
            << (damaged ? "damaged fallback" : "missing fallback");
    }
}

TEST_F(BrickDiskAuxFile, StoreThatFailsNeverTouchesTheOnlyIntactCopy)
{
    setFile(primary, framedABC());
    setFile(fallback, {1, 2, 3});
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::NoSpace, false);
    EXPECT_THROW(CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, "record", bytes(std::string("new record"))),
                 CFileSystemError);
    EXPECT_EQ(fileBytes(primary), framedABC());
    EXPECT_EQ(toVector(*CBrickDiskAuxFileBase::loadAuxFile(fs.get(), folder, "record")),
              (std::vector<uint8>{'a', 'b', 'c'}));
}

TEST_F(BrickDiskAuxFile, StoreCreatesFallbackFolderOnEveryStore)
{
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, "record", bytes(std::string("first")));
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, "record", bytes(std::string("abc")));
    EXPECT_EQ(fs->getOperationCount(Op::CreateFolderSync), 2 + 1); // the fixture's folder, then one per store
    EXPECT_EQ(fileBytes(fallback), framedABC());
}

TEST_F(BrickDiskAuxFile, StoreReplacesLongerOldContents)
{
    setFile(primary, std::vector<uint8>(500, 0x55));
    setFile(fallback, std::vector<uint8>(500, 0x55));
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, "record", bytes(std::string("abc")));
    EXPECT_EQ(fileBytes(primary), framedABC());
    EXPECT_EQ(fileBytes(fallback), framedABC());
}

TEST_F(BrickDiskAuxFile, LoadReturnsWhatWasStored)
{
    const TBuffer<uint8> payload = bytes(std::string("some record bytes"));
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, "record", payload);
    const P<TBuffer<uint8>> loaded = CBrickDiskAuxFileBase::loadAuxFile(fs.get(), folder, "record");
    ASSERT_TRUE(loaded);
    EXPECT_EQ(*loaded, payload);
}

TEST_F(BrickDiskAuxFile, LoadOfGoodPrimaryDoesNotReadFallback)
{
    setFile(primary, framedABC());
    setFile(fallback, {1, 2, 3});
    fs->resetCounters();
    const P<TBuffer<uint8>> loaded = CBrickDiskAuxFileBase::loadAuxFile(fs.get(), folder, "record");
    EXPECT_EQ(toVector(*loaded), (std::vector<uint8>{'a', 'b', 'c'}));
    EXPECT_EQ(logOf(*fs), (std::vector<std::string>{"openStream /disk/record"}));
}

TEST_F(BrickDiskAuxFile, LoadOfPrimaryWithFlippedByteTakesFallback)
{
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, "record", bytes(std::string("abc")));
    std::vector<uint8> damaged = framedABC();
    damaged[1] ^= 0x01;
    setFile(primary, damaged);
    const P<TBuffer<uint8>> loaded = CBrickDiskAuxFileBase::loadAuxFile(fs.get(), folder, "record");
    EXPECT_EQ(toVector(*loaded), (std::vector<uint8>{'a', 'b', 'c'}));
}

TEST_F(BrickDiskAuxFile, LoadOfPrimaryWithFlippedDigestByteTakesFallback)
{
    std::vector<uint8> damaged = framedABC();
    damaged.back() ^= 0x80;
    setFile(primary, damaged);
    setFile(fallback, framedABC());
    EXPECT_EQ(toVector(*CBrickDiskAuxFileBase::loadAuxFile(fs.get(), folder, "record")),
              (std::vector<uint8>{'a', 'b', 'c'}));
}

TEST_F(BrickDiskAuxFile, LoadWithoutPrimaryTakesFallback)
{
    setFile(fallback, framedABC());
    EXPECT_EQ(toVector(*CBrickDiskAuxFileBase::loadAuxFile(fs.get(), folder, "record")),
              (std::vector<uint8>{'a', 'b', 'c'}));
}

TEST_F(BrickDiskAuxFile, LoadTakesFallbackWhenPrimaryCannotBeOpened)
{
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, "record", bytes(std::string("abc")));
    fs->failOperation(Op::OpenStream, 1, CFileSystemError::AccessDenied, false, primary);
    EXPECT_EQ(toVector(*CBrickDiskAuxFileBase::loadAuxFile(fs.get(), folder, "record")),
              (std::vector<uint8>{'a', 'b', 'c'}));
}

TEST_F(BrickDiskAuxFile, LoadTakesFallbackWhenPrimaryCannotBeRead)
{
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, "record", bytes(std::string("abc")));
    fs->failStreamReads(primary, CFileSystemError::AccessDenied);
    EXPECT_EQ(toVector(*CBrickDiskAuxFileBase::loadAuxFile(fs.get(), folder, "record")),
              (std::vector<uint8>{'a', 'b', 'c'}));
}

TEST_F(BrickDiskAuxFile, CheckOfAnIntactCopyGivesItsPayload)
{
    setFile(fallback, framedABC());
    const CBrickDiskAuxFileBase::CopyCheck check =
        CBrickDiskAuxFileBase::checkAuxFileCopy(fs.get(), folder, "record", 1);
    EXPECT_TRUE(check.isIntact());
    EXPECT_EQ(check.uri, fallback);
    ASSERT_TRUE(check.payload);
    EXPECT_EQ(toVector(*check.payload), (std::vector<uint8>{'a', 'b', 'c'}));
    EXPECT_EQ(check.describe(), "intact");
}

TEST_F(BrickDiskAuxFile, CheckTellsAMissingCopyFromADamagedOne)
{
    std::vector<uint8> damaged = framedABC();
    damaged[1] ^= 0x04;
    setFile(primary, damaged);
    const CBrickDiskAuxFileBase::CopyCheck corrupted =
        CBrickDiskAuxFileBase::checkAuxFileCopy(fs.get(), folder, "record", 0);
    EXPECT_EQ(corrupted.kind, CBrickDiskAuxFileBase::CopyCheck::Corrupted);
    EXPECT_FALSE(corrupted.payload);
    EXPECT_EQ(corrupted.describe(), "damaged (digest mismatch)");

    const CBrickDiskAuxFileBase::CopyCheck missing =
        CBrickDiskAuxFileBase::checkAuxFileCopy(fs.get(), folder, "record", 1);
    EXPECT_EQ(missing.kind, CBrickDiskAuxFileBase::CopyCheck::Missing);
    EXPECT_EQ(missing.describe(), "missing");
}

TEST_F(BrickDiskAuxFile, CheckOfACopyTooShortForItsDigestIsABadSize)
{
    setFile(primary, std::vector<uint8>(16, 0x11));
    const CBrickDiskAuxFileBase::CopyCheck check =
        CBrickDiskAuxFileBase::checkAuxFileCopy(fs.get(), folder, "record", 0);
    EXPECT_EQ(check.kind, CBrickDiskAuxFileBase::CopyCheck::BadSize);
    EXPECT_EQ(check.size, 16);
}

TEST_F(BrickDiskAuxFile, CheckOfACopyThatCannotBeReadKeepsTheError)
{
    setFile(primary, framedABC());
    fs->failStreamReads(primary, CFileSystemError::AccessDenied);
    const CBrickDiskAuxFileBase::CopyCheck check =
        CBrickDiskAuxFileBase::checkAuxFileCopy(fs.get(), folder, "record", 0);
    EXPECT_EQ(check.kind, CBrickDiskAuxFileBase::CopyCheck::Unreadable);
    ASSERT_TRUE(check.error);
    EXPECT_EQ(CFileSystemError::getProblem(check.error->getProps()), CFileSystemError::AccessDenied);
    EXPECT_EQ(check.describe().toUTF8().rfind("unreadable: ", 0), 0u) << check.describe().toUTF8();
}

TEST_F(BrickDiskAuxFile, LoadDoesNotRepairDamagedPrimary)
{
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, "record", bytes(std::string("abc")));
    const std::vector<uint8> damaged = {9, 9, 9};
    setFile(primary, damaged);
    CBrickDiskAuxFileBase::loadAuxFile(fs.get(), folder, "record");
    EXPECT_EQ(fileBytes(primary), damaged);
}

TEST_F(BrickDiskAuxFile, MissingPrimaryAndCorruptedFallbackGiveThePrimarysOpenError)
{
    std::vector<uint8> damaged = framedABC();
    damaged[0] ^= 0x01;
    setFile(fallback, damaged);
    try {
        CBrickDiskAuxFileBase::loadAuxFile(fs.get(), folder, "record");
        FAIL() << "load succeeded";
    } catch (const CFileSystemError& error) {
        EXPECT_EQ(error.getProblem(), CFileSystemError::NotFound);
        EXPECT_EQ(error.getProps().lookup("uri"), "/disk/record");
    }
}

TEST_F(BrickDiskAuxFile, BothCopiesCorruptedGiveThePrimarysCorruptionError)
{
    std::vector<uint8> damaged = framedABC();
    damaged[2] ^= 0x01;
    setFile(primary, damaged);
    setFile(fallback, {1, 2, 3});
    try {
        CBrickDiskAuxFileBase::loadAuxFile(fs.get(), folder, "record");
        FAIL() << "load succeeded";
    } catch (const CError& error) {
        EXPECT_EQ(typeid(error), typeid(CError));
        EXPECT_EQ(error.getMessage(), "Brickdisk auxiliary file is corrupted.");
        EXPECT_EQ(error.getCode(), -1);
        EXPECT_TRUE(error.getDomain().isEmpty());
        EXPECT_EQ(error.getProps(), CProps().add("uri", "/disk/record"));
        EXPECT_FALSE(error.getCause());
    }
}

TEST_F(BrickDiskAuxFile, BothCopiesMissingGiveNotFoundNamingThePrimary)
{
    try {
        CBrickDiskAuxFileBase::loadAuxFile(fs.get(), folder, "record");
        FAIL() << "load succeeded";
    } catch (const CFileSystemError& error) {
        EXPECT_EQ(error.getProblem(), CFileSystemError::NotFound);
        EXPECT_EQ(error.getProps().lookup("uri"), "/disk/record");
    }
}

TEST_F(BrickDiskAuxFile, EmptyPayloadIsStoredAsBareDigestThatCannotBeLoaded)
{
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, "record", TBuffer<uint8>());
    EXPECT_EQ(fileBytes(primary).size(), 16u);
    try {
        CBrickDiskAuxFileBase::loadAuxFile(fs.get(), folder, "record");
        FAIL() << "load succeeded";
    } catch (const CError& error) {
        EXPECT_EQ(error.getMessage(), "Bad brickdisk auxiliary file size: 16");
        EXPECT_EQ(error.getCode(), -1);
        EXPECT_EQ(error.getProps(), CProps().add("uri", "/disk/record"));
    }
}

TEST_F(BrickDiskAuxFile, EmptyFileFailsWithSizeError)
{
    setFile(primary, {});
    EXPECT_THROW(
        {
            try {
                CBrickDiskAuxFileBase::loadAuxFile(fs.get(), folder, "record");
            } catch (const CError& error) {
                EXPECT_EQ(error.getMessage(), "Bad brickdisk auxiliary file size: 0");
                throw;
            }
        },
        CError);
}

TEST_F(BrickDiskAuxFile, OneBytePayloadLoads)
{
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, "record", bytes(std::vector<uint8>{0x7f}));
    EXPECT_EQ(fileBytes(primary).size(), 17u);
    EXPECT_EQ(toVector(*CBrickDiskAuxFileBase::loadAuxFile(fs.get(), folder, "record")), std::vector<uint8>{0x7f});
}

TEST_F(BrickDiskAuxFile, FileOfExactlyOneMebibyteLoads)
{
    std::vector<uint8> payload(0x100000 - 16);
    for (size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<uint8>(i * 7);
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, "record", bytes(payload));
    ASSERT_EQ(fileBytes(primary).size(), 0x100000u);
    EXPECT_EQ(toVector(*CBrickDiskAuxFileBase::loadAuxFile(fs.get(), folder, "record")), payload);
}

TEST_F(BrickDiskAuxFile, FileOneByteOverOneMebibyteFailsWithSizeError)
{
    setFile(primary, std::vector<uint8>(1048577, 0));
    try {
        CBrickDiskAuxFileBase::loadAuxFile(fs.get(), folder, "record");
        FAIL() << "load succeeded";
    } catch (const CError& error) {
        EXPECT_EQ(error.getMessage(), "Bad brickdisk auxiliary file size: 1048577");
        EXPECT_EQ(error.getProps().lookup("uri"), "/disk/record");
    }
}

TEST_F(BrickDiskAuxFile, OversizePrimaryIsReplacedByFallback)
{
    setFile(primary, std::vector<uint8>(1048577, 0));
    setFile(fallback, framedABC());
    EXPECT_EQ(toVector(*CBrickDiskAuxFileBase::loadAuxFile(fs.get(), folder, "record")),
              (std::vector<uint8>{'a', 'b', 'c'}));
}

TEST_F(BrickDiskAuxFile, StreamWithoutLengthIsSizedThroughFileInfo)
{
    setFile(primary, framedABC());
    const P<CAlteredFileSystem> altered(new CAlteredFileSystem(fs));
    altered->streamsWithoutLength = true;
    fs->resetCounters();
    EXPECT_EQ(toVector(*CBrickDiskAuxFileBase::loadAuxFile(altered.get(), folder, "record")),
              (std::vector<uint8>{'a', 'b', 'c'}));
    EXPECT_EQ(logOf(*fs), (std::vector<std::string>{"openStream /disk/record", "getFileInfo /disk/record"}));
}

TEST_F(BrickDiskAuxFile, StreamWithLengthIsNotSizedThroughFileInfo)
{
    setFile(primary, framedABC());
    fs->resetCounters();
    CBrickDiskAuxFileBase::loadAuxFile(fs.get(), folder, "record");
    EXPECT_EQ(fs->getOperationCount(Op::GetFileInfo), 0);
}

TEST_F(BrickDiskAuxFile, ExceptionThatIsNotACErrorEndsTheLoadAtOnce)
{
    setFile(fallback, framedABC());
    const P<CAlteredFileSystem> altered(new CAlteredFileSystem(fs));
    altered->openThrowsStdException = true;
    EXPECT_THROW(CBrickDiskAuxFileBase::loadAuxFile(altered.get(), folder, "record"), std::runtime_error);
    EXPECT_EQ(altered->openCount, 1);
}

TEST_F(BrickDiskAuxFile, FailureToStorePrimaryPassesThroughAndLeavesFallbackAlone)
{
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::AccessDenied, false);
    fs->resetCounters();
    try {
        CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, "record", bytes(std::string("abc")));
        FAIL() << "store succeeded";
    } catch (const CFileSystemError& error) {
        EXPECT_EQ(error.getProblem(), CFileSystemError::AccessDenied);
        EXPECT_FALSE(error.getProps().contains("uri"));
    }
    EXPECT_EQ(changesOf(*fs), (std::vector<std::string>{"storeFile /disk/record"}));
    EXPECT_FALSE(fs->folderExists(CURI("/disk/fallback")));
}

TEST_F(BrickDiskAuxFile, FailureToCreateFallbackFolderPassesThroughAfterPrimaryIsWritten)
{
    fs->failOperation(Op::CreateFolderSync, 1, CFileSystemError::NoSpace, false, CURI("/disk/fallback"));
    EXPECT_THROW(CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, "record", bytes(std::string("abc"))),
                 CFileSystemError);
    EXPECT_EQ(fileBytes(primary), framedABC());
    EXPECT_FALSE(fs->getFileData(fallback));
}

TEST_F(BrickDiskAuxFile, FailureToStoreFallbackPassesThroughUnchanged)
{
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::NoSpace, false, fallback);
    try {
        CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, "record", bytes(std::string("abc")));
        FAIL() << "store succeeded";
    } catch (const CFileSystemError& error) {
        EXPECT_EQ(error.getProblem(), CFileSystemError::NoSpace);
        EXPECT_FALSE(error.getProps().contains("uri"));
    }
    EXPECT_EQ(fileBytes(primary), framedABC());
    EXPECT_FALSE(fs->getFileData(fallback));
}

namespace {

class BrickDiskAuxFileOnLocalFiles : public ::testing::Test {
protected:
    void SetUp() override { fs->setSyncEnabled(false); }

    std::vector<uint8> readFile(const std::string& path) const
    {
        std::ifstream in(path, std::ios::binary);
        return std::vector<uint8>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    void writeFile(const std::string& path, const std::vector<uint8>& contents) const
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(contents.data()), static_cast<std::streamsize>(contents.size()));
    }

    testsupport::TempFolder temp;
    P<zo::CLocalFileSystem> fs{new zo::CLocalFileSystem(1)};
};

} // namespace

TEST_F(BrickDiskAuxFileOnLocalFiles, StoreWritesBothFilesWithDigest)
{
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), temp.uri(), "record", bytes(std::string("abc")));
    EXPECT_EQ(readFile(temp.path() + "/record"), framedABC());
    EXPECT_EQ(readFile(temp.path() + "/fallback/record"), framedABC());
}

TEST_F(BrickDiskAuxFileOnLocalFiles, DamagedPrimaryLoadsFallback)
{
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), temp.uri(), "record", bytes(std::string("abc")));
    std::vector<uint8> damaged = framedABC();
    damaged[5] ^= 0x10;
    writeFile(temp.path() + "/record", damaged);
    EXPECT_EQ(toVector(*CBrickDiskAuxFileBase::loadAuxFile(fs.get(), temp.uri(), "record")),
              (std::vector<uint8>{'a', 'b', 'c'}));
}

TEST_F(BrickDiskAuxFileOnLocalFiles, TruncatedPrimaryLoadsFallback)
{
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), temp.uri(), "record", bytes(std::string("abc")));
    std::vector<uint8> truncated = framedABC();
    truncated.resize(10);
    writeFile(temp.path() + "/record", truncated);
    EXPECT_EQ(toVector(*CBrickDiskAuxFileBase::loadAuxFile(fs.get(), temp.uri(), "record")),
              (std::vector<uint8>{'a', 'b', 'c'}));
}

TEST_F(BrickDiskAuxFileOnLocalFiles, BothCopiesDamagedGiveThePrimarysErrorNamingIt)
{
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), temp.uri(), "record", bytes(std::string("abc")));
    std::vector<uint8> damaged = framedABC();
    damaged[0] ^= 0x01;
    writeFile(temp.path() + "/record", damaged);
    writeFile(temp.path() + "/fallback/record", {1, 2});
    try {
        CBrickDiskAuxFileBase::loadAuxFile(fs.get(), temp.uri(), "record");
        FAIL() << "load succeeded";
    } catch (const CError& error) {
        EXPECT_EQ(error.getMessage(), "Brickdisk auxiliary file is corrupted.");
        EXPECT_EQ(error.getProps().lookup("uri"), (temp.uri() << "record").toString(true));
    }
}

TEST_F(BrickDiskAuxFileOnLocalFiles, FailedReplacementOfPrimaryPassesThroughAndFallbackIsNotWritten)
{
    // A folder in the primary copy's place cannot be replaced by a file.
    std::filesystem::create_directories(temp.path() + "/record/inside");
    try {
        CBrickDiskAuxFileBase::storeAuxFile(fs.get(), temp.uri(), "record", bytes(std::string("abc")));
        FAIL() << "store succeeded";
    } catch (const CFileSystemError& error) {
        EXPECT_FALSE(error.getProps().contains("uri"));
    }
    EXPECT_FALSE(std::filesystem::exists(temp.path() + "/fallback"));
}

TEST_F(BrickDiskAuxFileOnLocalFiles, StoreReplacesEachCopyWithoutEverEmptyingIt)
{
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), temp.uri(), "record", bytes(std::string("abc")));
    // A reader holding the old primary copy open still reads it whole after
    // the store: the new copy was renamed over it, not written into it.
    std::ifstream old(temp.path() + "/record", std::ios::binary);
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), temp.uri(), "record", bytes(std::string("a longer record")));
    const std::vector<uint8> held((std::istreambuf_iterator<char>(old)), std::istreambuf_iterator<char>());
    EXPECT_EQ(held, framedABC());
    EXPECT_EQ(toVector(*CBrickDiskAuxFileBase::loadAuxFile(fs.get(), temp.uri(), "record")),
              toVector(bytes(std::string("a longer record"))));
}
