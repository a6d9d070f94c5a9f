#include "brick/format/BrickDiskLink.h"

#include "RecordBytes.h"
#include "brick/format/BrickDiskHeader.h"

#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <typeinfo>
#include <vector>

using brick::CBrickDiskAuxFileBase;
using brick::CBrickDiskHeader;
using brick::CBrickDiskLink;
using recordtest::RecordBytes;
using zo::CError;
using zo::CFileSystemError;
using zo::CIOError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::P;
using zo::TBuffer;
using zo::uint8;

namespace {

class BrickDiskLinkFile : public ::testing::Test {
protected:
    void SetUp() override { fs->createFolder(folder, 0x1ff); }

    void storeRecord(const RecordBytes& record, const char* fileName = "parent.bricklnk")
    {
        CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, fileName, record.buffer());
    }
    std::vector<uint8> storedRecord(const char* path) const
    {
        const P<TBuffer<uint8>> file = fs->getFileData(CURI(path));
        if (!file || file->getUsed() < 16)
            return {};
        std::vector<uint8> record(file->getData(), file->getData() + file->getUsed());
        record.resize(record.size() - 16);
        return record;
    }

    template <class Check>
    void expectLoadFailure(const char* fileName, Check check)
    {
        CBrickDiskLink link;
        try {
            link.load(fs.get(), folder, fileName);
            ADD_FAILURE() << "load succeeded";
        } catch (const CError& error) {
            check(error);
        }
    }

    P<CMemoryFileSystem> fs{new CMemoryFileSystem()};
    const CURI folder{"/child"};
};

} // namespace

TEST(BrickDiskLink, TargetIsEmptyAfterConstruction)
{
    EXPECT_TRUE(CBrickDiskLink().getTargetURI().isEmpty());
}

TEST(BrickDiskLink, CopyAndMoveCopyTheTarget)
{
    CBrickDiskLink original;
    original.setTargetURI(CURI("../parent"));
    const CBrickDiskLink copied(original);
    CBrickDiskLink assigned;
    assigned = original;
    CBrickDiskLink moveSource(original);
    const CBrickDiskLink moved(std::move(moveSource));
    CBrickDiskLink moveAssigned;
    moveAssigned = CBrickDiskLink(original);
    EXPECT_EQ(copied.getTargetURI(), CURI("../parent"));
    EXPECT_EQ(assigned.getTargetURI(), CURI("../parent"));
    EXPECT_EQ(moved.getTargetURI(), CURI("../parent"));
    EXPECT_EQ(moveAssigned.getTargetURI(), CURI("../parent"));
}

TEST_F(BrickDiskLinkFile, StoredLinkLoadsBackWithTheSameTarget)
{
    CBrickDiskLink link;
    link.setTargetURI(CURI("../parent"));
    link.store(fs.get(), folder, "parent.bricklnk");
    CBrickDiskLink loaded;
    loaded.load(fs.get(), folder, "parent.bricklnk");
    EXPECT_EQ(loaded.getTargetURI().toString(true), "../parent");
}

TEST_F(BrickDiskLinkFile, TargetWithNonAsciiCharactersRoundTrips)
{
    CBrickDiskLink link;
    link.setTargetURI(CURI(zo::String(u"../Sch\u00e4fer/\u00e9t\u00e9")));
    link.store(fs.get(), folder, "child.bricklnk");
    CBrickDiskLink loaded;
    loaded.load(fs.get(), folder, "child.bricklnk");
    EXPECT_EQ(loaded.getTargetURI(), link.getTargetURI());
}

TEST_F(BrickDiskLinkFile, RecordIsFileIDThenTargetString)
{
    CBrickDiskLink link;
    link.setTargetURI(CURI("../p"));
    link.store(fs.get(), folder, "parent.bricklnk");
    const std::vector<uint8> expected = {'B', 'R', 'C', 'K', 'L', 'I', 'N', 'K', 4, 0, 0, 0, '.', '.', '/', 'p'};
    EXPECT_EQ(storedRecord("/child/parent.bricklnk"), expected);
    EXPECT_EQ(storedRecord("/child/fallback/parent.bricklnk"), expected);
}

TEST_F(BrickDiskLinkFile, EmptyTargetRoundTrips)
{
    CBrickDiskLink().store(fs.get(), folder, "parent.bricklnk");
    CBrickDiskLink loaded;
    loaded.setTargetURI(CURI("/somewhere"));
    loaded.load(fs.get(), folder, "parent.bricklnk");
    EXPECT_TRUE(loaded.getTargetURI().isEmpty());
}

TEST_F(BrickDiskLinkFile, HeaderFileGivenAsALinkIsRefused)
{
    CBrickDiskHeader().store(fs.get(), folder);
    expectLoadFailure("disk.brickdisk", [](const CError& error) {
        EXPECT_EQ(typeid(error), typeid(CError));
        EXPECT_EQ(error.getMessage(), "brickdisk link file does not start with correct file ID.");
        EXPECT_EQ(error.getCode(), -1);
        EXPECT_TRUE(error.getDomain().isEmpty());
        EXPECT_TRUE(error.getProps().isEmpty());
        EXPECT_FALSE(error.getCause());
    });
}

TEST_F(BrickDiskLinkFile, ExtraBytesAfterTheTargetAreIgnored)
{
    storeRecord(RecordBytes().text("BRCKLINK").string("../parent").text("more").int64(42));
    CBrickDiskLink loaded;
    loaded.load(fs.get(), folder, "parent.bricklnk");
    EXPECT_EQ(loaded.getTargetURI(), CURI("../parent"));
}

TEST_F(BrickDiskLinkFile, RecordWithoutTargetGivesTheReadError)
{
    storeRecord(RecordBytes().text("BRCKLINK"));
    expectLoadFailure("parent.bricklnk", [](const CError& error) {
        ASSERT_EQ(typeid(error), typeid(CIOError));
        EXPECT_EQ(error.getCode(), CIOError::EndOfData);
    });
}

TEST_F(BrickDiskLinkFile, TargetLongerThanTheRecordGivesTheReadError)
{
    storeRecord(RecordBytes().text("BRCKLINK").int32(100).text("../p"));
    expectLoadFailure("parent.bricklnk", [](const CError& error) {
        ASSERT_EQ(typeid(error), typeid(CIOError));
        EXPECT_EQ(error.getCode(), CIOError::EndOfData);
    });
}

TEST_F(BrickDiskLinkFile, MissingFileGivesNotFoundNamingThePrimaryCopy)
{
    expectLoadFailure("parent.bricklnk", [](const CError& error) {
        EXPECT_EQ(CFileSystemError::getProblem(error.getProps()), CFileSystemError::NotFound);
        EXPECT_EQ(error.getProps().lookup("uri"), "/child/parent.bricklnk");
    });
}

TEST_F(BrickDiskLinkFile, DamagedPrimaryCopyLoadsFromFallback)
{
    CBrickDiskLink link;
    link.setTargetURI(CURI("../parent"));
    link.store(fs.get(), folder, "parent.bricklnk");
    const P<TBuffer<uint8>> file = fs->getFileData(CURI("/child/parent.bricklnk"));
    (*file)[12] ^= 0x01;
    fs->setFileData(CURI("/child/parent.bricklnk"), *file);
    CBrickDiskLink loaded;
    loaded.load(fs.get(), folder, "parent.bricklnk");
    EXPECT_EQ(loaded.getTargetURI(), CURI("../parent"));
}

TEST_F(BrickDiskLinkFile, FailedPrimaryWritePassesThroughAndFallbackIsNotWritten)
{
    fs->failOperation(CMemoryFileSystem::Operation::StoreFile, 1, CFileSystemError::NoSpace, false);
    CBrickDiskLink link;
    link.setTargetURI(CURI("../parent"));
    try {
        link.store(fs.get(), folder, "parent.bricklnk");
        FAIL() << "store succeeded";
    } catch (const CFileSystemError& error) {
        EXPECT_EQ(error.getProblem(), CFileSystemError::NoSpace);
    }
    EXPECT_FALSE(fs->getFileData(CURI("/child/fallback/parent.bricklnk")));
}
