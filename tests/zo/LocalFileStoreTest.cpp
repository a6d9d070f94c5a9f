// The names of the temporary files that the local file system's atomic store
// writes before renaming them into place, and how leftovers are recognised. The helper is internal to the
// library, so this test is built into brickdisk_internal_tests.
#include "zo/detail/LocalFileStore.h"
#include "zo/String.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(LocalFileStore, TemporaryNamesAreRandomAndFitAFileNameForLongTargetNames)
{
    std::string longName;
    for (int i = 0; i < 150; ++i)
        longName += "\xc3\xa9"; // 150 two-byte characters, 300 bytes
    const std::string first = zo::makeTemporaryFileName(longName);
    EXPECT_LE(first.size(), 255U);
    EXPECT_TRUE(first.ends_with(".part"));
    EXPECT_EQ(zo::String(first).toUTF8(), first) << "a character was cut in half";
    EXPECT_NE(zo::makeTemporaryFileName("00.brick"), zo::makeTemporaryFileName("00.brick"));
}

TEST(LocalFileStore, TemporaryNamesAreRecognisedAsLeftoversAndTargetNamesAreNot)
{
    EXPECT_TRUE(zo::isTemporaryFileName(zo::makeTemporaryFileName("01.brick")));
    EXPECT_TRUE(zo::isTemporaryFileName(zo::makeTemporaryFileName(std::string(300, 'n'))));
    EXPECT_FALSE(zo::isTemporaryFileName("01.brick"));
    EXPECT_FALSE(zo::isTemporaryFileName(".tmp-not-ours.part"));
}

} // namespace
