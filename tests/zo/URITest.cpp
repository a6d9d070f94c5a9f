#include "zo/URI.h"
#include "zo/Error.h"

#include <gtest/gtest.h>

using zo::CURI;

namespace {

std::string text(const CURI& uri)
{
    return uri.toString(true).toUTF8();
}

} // namespace

TEST(CURI, DefaultIsEmptyAndNeitherAbsoluteNorRelativeText)
{
    const CURI uri;
    EXPECT_TRUE(uri.isEmpty());
    EXPECT_FALSE(uri.isAbsolute());
    EXPECT_EQ(text(uri), "");
}

TEST(CURI, TellsAbsoluteFromRelative)
{
    EXPECT_TRUE(CURI("/a/b").isAbsolute());
    EXPECT_TRUE(CURI("/").isAbsolute());
    EXPECT_TRUE(CURI("mem://bucket/a").isAbsolute());
    EXPECT_FALSE(CURI("a/b").isAbsolute());
    EXPECT_FALSE(CURI("../a").isAbsolute());
    EXPECT_FALSE(CURI("://x").isAbsolute());
    EXPECT_FALSE(CURI("1abc://x").isAbsolute());
}

TEST(CURI, AppendsOneComponentWithSeparator)
{
    EXPECT_EQ(text(CURI("/disk") << "bricks"), "/disk/bricks");
    EXPECT_EQ(text(CURI("/disk/") << "bricks"), "/disk/bricks");
    EXPECT_EQ(text(CURI("/") << "bricks"), "/bricks");
    EXPECT_EQ(text(CURI() << "bricks"), "bricks");
    EXPECT_EQ(text(CURI("/disk") << ""), "/disk");
    EXPECT_EQ(text(CURI("/disk") << "bricks"
                                 << "b001"
                                 << "a023"),
              "/disk/bricks/b001/a023");
}

TEST(CURI, AppendingLeavesOriginalUnchanged)
{
    const CURI base("/disk");
    const CURI child = base << "x";
    EXPECT_EQ(text(base), "/disk");
    EXPECT_EQ(text(child), "/disk/x");
}

TEST(CURI, JoinsRelativePath)
{
    EXPECT_EQ(text(CURI("/disk") << CURI("bricks/b001/a023.brick")), "/disk/bricks/b001/a023.brick");
    EXPECT_EQ(text(CURI("/x/child") << CURI("../parent")), "/x/child/../parent");
    EXPECT_EQ(text(CURI("/disk") << CURI()), "/disk");
    EXPECT_EQ(text(CURI() << CURI("rel")), "rel");
}

TEST(CURI, JoiningAbsolutePathReplacesBase)
{
    EXPECT_EQ(text(CURI("/disk") << CURI("/other/place")), "/other/place");
    EXPECT_EQ(text(CURI("/disk") << CURI("mem://b/x")), "mem://b/x");
}

TEST(CURI, ConstructsFromBaseAndOptionalRelativeText)
{
    EXPECT_EQ(text(CURI(CURI("/disk"), zo::String("sub/file"))), "/disk/sub/file");
    EXPECT_EQ(text(CURI(CURI("/disk"), zo::String())), "/disk");
    EXPECT_EQ(text(CURI(CURI("/disk"), zo::String("/abs"))), "/abs");
}

TEST(CURI, ParentChainOfRelativePathEndsEmpty)
{
    CURI uri("bricks/b001/a023");
    EXPECT_EQ(text(uri = uri.getParent()), "bricks/b001");
    EXPECT_EQ(text(uri = uri.getParent()), "bricks");
    uri = uri.getParent();
    EXPECT_TRUE(uri.isEmpty());
    EXPECT_TRUE(uri.getParent().isEmpty());
}

TEST(CURI, ParentChainOfAbsolutePathPassesRootThenEndsEmpty)
{
    CURI uri("/a/b");
    EXPECT_EQ(text(uri = uri.getParent()), "/a");
    EXPECT_EQ(text(uri = uri.getParent()), "/");
    EXPECT_TRUE(uri.getParent().isEmpty());
}

TEST(CURI, ParentIgnoresTrailingAndDoubledSeparators)
{
    EXPECT_EQ(text(CURI("/a/b/").getParent()), "/a");
    EXPECT_EQ(text(CURI("a//b").getParent()), "a");
    EXPECT_EQ(text(CURI("//a").getParent()), "/");
}

TEST(CURI, ParentOfSchemePathStopsAtItsRoot)
{
    EXPECT_EQ(text(CURI("mem://bucket/a/b").getParent()), "mem://bucket/a");
    EXPECT_EQ(text(CURI("mem://bucket/a").getParent()), "mem://bucket/");
    EXPECT_TRUE(CURI("mem://bucket/").getParent().isEmpty());
}

TEST(CURI, NameIsLastComponent)
{
    EXPECT_EQ(CURI("/a/b.brick").getName(), "b.brick");
    EXPECT_EQ(CURI("/a/b/").getName(), "b");
    EXPECT_EQ(CURI("/").getName(), "");
    EXPECT_EQ(CURI().getName(), "");
}

TEST(CURI, NormalizesDotAndEmptyComponents)
{
    EXPECT_EQ(text(CURI("/a/./b//c/").toNormalized()), "/a/b/c");
    EXPECT_EQ(text(CURI("a/.").toNormalized()), "a");
    EXPECT_EQ(text(CURI(".").toNormalized()), ".");
    EXPECT_EQ(text(CURI("//a").toNormalized()), "/a");
    EXPECT_TRUE(CURI().toNormalized().isEmpty());
}

TEST(CURI, NormalizesDotDotAgainstPreviousComponent)
{
    EXPECT_EQ(text(CURI("/x/child/../parent").toNormalized()), "/x/parent");
    EXPECT_EQ(text(CURI("/a/b/../../c").toNormalized()), "/c");
    EXPECT_EQ(text(CURI("a/..").toNormalized()), ".");
}

TEST(CURI, NormalizingKeepsDotDotAtRootOfAbsolutePath)
{
    EXPECT_EQ(text(CURI("/..").toNormalized()), "/");
    EXPECT_EQ(text(CURI("/../a").toNormalized()), "/a");
    EXPECT_EQ(text(CURI("mem://b/x/../..").toNormalized()), "mem://b/");
}

TEST(CURI, NormalizingKeepsLeadingDotDotOfRelativePath)
{
    EXPECT_EQ(text(CURI("../a").toNormalized()), "../a");
    EXPECT_EQ(text(CURI("../a/../../b").toNormalized()), "../../b");
}

TEST(CURI, ParentRelativeToSiblingChildFolder)
{
    EXPECT_EQ(text(CURI("/disks/p").toRelative(CURI("/disks/c"))), "../p");
}

TEST(CURI, RelativePathJoinedToBaseLeadsBackToTarget)
{
    const CURI parent("/disks/base/parent");
    const CURI child("/disks/work/child");
    const CURI relative = parent.toRelative(child);
    EXPECT_EQ(text(relative), "../../base/parent");
    EXPECT_EQ((child << relative).toNormalized(), parent);
}

TEST(CURI, NestedFoldersRelativeToEachOther)
{
    EXPECT_EQ(text(CURI("/d/p").toRelative(CURI("/d/p/c"))), "..");
    EXPECT_EQ(text(CURI("/d/p/c/e").toRelative(CURI("/d/p"))), "c/e");
    EXPECT_EQ(text(CURI("a/b").toRelative(CURI("a"))), "b");
}

TEST(CURI, IdenticalPathsAreDotRelativeToEachOther)
{
    EXPECT_EQ(text(CURI("/d/p").toRelative(CURI("/d/p"))), ".");
    EXPECT_EQ(text(CURI("/d/./p/").toRelative(CURI("/d/p"))), ".");
}

TEST(CURI, RelativeOfNonNormalizedPathsUsesTheirNormalForm)
{
    EXPECT_EQ(text(CURI("/d/x/../p").toRelative(CURI("/d//c/"))), "../p");
}

TEST(CURI, RelativeOfAbsoluteToRelativeThrows)
{
    EXPECT_THROW(CURI("/d/p").toRelative(CURI("d/c")), zo::CError);
    EXPECT_THROW(CURI("d/p").toRelative(CURI("/d/c")), zo::CError);
}

TEST(CURI, RelativeAcrossDifferentRootsThrowsWithBothPaths)
{
    try {
        CURI("mem://one/a").toRelative(CURI("mem://two/a"));
        FAIL() << "no error thrown";
    } catch (const zo::CError& e) {
        EXPECT_EQ(e.getProps().lookup("path"), "mem://one/a");
        EXPECT_EQ(e.getProps().lookup("base"), "mem://two/a");
    }
}

TEST(CURI, RelativeToBaseThatClimbsAboveItsStartThrows)
{
    EXPECT_THROW(CURI("a").toRelative(CURI("../b")), zo::CError);
}

TEST(CURI, ComparesByText)
{
    EXPECT_EQ(CURI("/a"), CURI("/a"));
    EXPECT_NE(CURI("/a"), CURI("/a/"));
    EXPECT_LT(CURI("/a"), CURI("/b"));
}

TEST(CURI, CopiesAndAssigns)
{
    const CURI a("/a");
    CURI b(a);
    CURI c;
    c = b;
    EXPECT_EQ(c, a);
    EXPECT_EQ(c.toLocalPath(), "/a");
}
