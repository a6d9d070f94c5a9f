// CCopyRecord on its own: what it stores loads back, in a folder it makes;
// every spelling of a destination finds one record; a record that is damaged
// or made for another destination loads empty; tags that a line cannot hold
// are not noted.
#include "brick/backup/CopyRecord.h"
#include "support/LocalFile.h"
#include "support/TempFolder.h"

#include <gtest/gtest.h>

#include <string>

using brick::CCopyRecord;
using testsupport::readLocalFile;
using testsupport::writeLocalFile;
using zo::CURI;

namespace {

const CURI kDestination("s3://bucket/backups/vm");

CCopyRecord twoEntries()
{
    CCopyRecord record(kDestination);
    record.note("0123456789abcdef0123456789abcdef", 1000, std::string(32, '\x01'));
    record.note("fedcba9876543210fedcba9876543210-2", 2000, std::string("\x00\xff\x7f", 3));
    return record;
}

TEST(CopyRecord, StoredEntriesLoadBackInAFolderItMakes)
{
    const testsupport::TempFolder temp;
    const CURI folder(zo::String(temp.path() + "/cache/brickdisk"));
    const CCopyRecord stored = twoEntries();
    EXPECT_TRUE(stored.isChanged());
    stored.store(folder);

    const CCopyRecord loaded = CCopyRecord::load(folder, kDestination);

    EXPECT_FALSE(loaded.isChanged());
    ASSERT_EQ(loaded.getEntryCount(), 2u);
    const CCopyRecord::Entry* first = loaded.find("0123456789abcdef0123456789abcdef");
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->size, 1000);
    EXPECT_EQ(first->tail, std::string(32, '\x01'));
    const CCopyRecord::Entry* second = loaded.find("fedcba9876543210fedcba9876543210-2");
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->size, 2000);
    EXPECT_EQ(second->tail, std::string("\x00\xff\x7f", 3));
    EXPECT_EQ(loaded.find("00000000000000000000000000000000"), nullptr);
}

TEST(CopyRecord, EverySpellingOfADestinationFindsOneRecord)
{
    const CURI folder("/records");
    EXPECT_EQ(CCopyRecord::getFileURI(folder, CURI("s3://bucket/backups/vm/")),
              CCopyRecord::getFileURI(folder, kDestination));
    EXPECT_EQ(CCopyRecord::getFileURI(folder, CURI("s3://bucket/backups//vm")),
              CCopyRecord::getFileURI(folder, kDestination));
    EXPECT_NE(CCopyRecord::getFileURI(folder, CURI("s3://bucket/backups/vm2")),
              CCopyRecord::getFileURI(folder, kDestination));
}

TEST(CopyRecord, MissingRecordLoadsEmpty)
{
    const testsupport::TempFolder temp;
    EXPECT_EQ(CCopyRecord::load(temp.uri(), kDestination).getEntryCount(), 0u);
}

TEST(CopyRecord, DamagedRecordLoadsEmpty)
{
    const testsupport::TempFolder temp;
    twoEntries().store(temp.uri());
    const std::string path = CCopyRecord::getFileURI(temp.uri(), kDestination).toLocalPath();
    const std::string good = readLocalFile(path);
    ASSERT_EQ(CCopyRecord::load(temp.uri(), kDestination).getEntryCount(), 2u);

    // A digit of a size changed, then the record cut short, then garbage.
    std::string changed = good;
    changed[changed.find(" 1000 ") + 1] = '2';
    for (const std::string& damaged : {changed, good.substr(0, good.size() / 2), std::string("\x01garbage\n")}) {
        writeLocalFile(path, damaged);
        EXPECT_EQ(CCopyRecord::load(temp.uri(), kDestination).getEntryCount(), 0u) << damaged;
    }
}

TEST(CopyRecord, RecordOfAnotherDestinationLoadsEmpty)
{
    const testsupport::TempFolder temp;
    const CURI other("s3://other/backups/vm");
    twoEntries().store(temp.uri());
    writeLocalFile(CCopyRecord::getFileURI(temp.uri(), other).toLocalPath(),
                   readLocalFile(CCopyRecord::getFileURI(temp.uri(), kDestination).toLocalPath()));

    EXPECT_EQ(CCopyRecord::load(temp.uri(), other).getEntryCount(), 0u);
}

TEST(CopyRecord, TagsThatALineCannotHoldAreNotNoted)
{
    CCopyRecord record(kDestination);
    for (const std::string& tag : {std::string(), std::string("two words"), std::string("line\nbreak"),
                                   std::string("tab\there"), std::string(257, 'a')})
        record.note(tag, 10, "tail");
    EXPECT_EQ(record.getEntryCount(), 0u);
    EXPECT_FALSE(record.isChanged());
    record.note(std::string(256, 'a'), 10, "tail");
    EXPECT_EQ(record.getEntryCount(), 1u);
}

TEST(CopyRecord, KeepOnlyDropsTheOtherTags)
{
    const testsupport::TempFolder temp;
    twoEntries().store(temp.uri());
    CCopyRecord record = CCopyRecord::load(temp.uri(), kDestination);

    record.keepOnly({"0123456789abcdef0123456789abcdef", "not in the record"});

    EXPECT_TRUE(record.isChanged());
    EXPECT_EQ(record.getEntryCount(), 1u);
    EXPECT_NE(record.find("0123456789abcdef0123456789abcdef"), nullptr);
}

} // namespace
