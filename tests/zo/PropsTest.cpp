#include "zo/Props.h"

#include <gtest/gtest.h>

#include <vector>

using zo::CProps;
using zo::String;

namespace {

std::vector<std::string> names(const CProps& props)
{
    std::vector<std::string> out;
    for (const auto& [name, value] : props)
        out.push_back(name.toUTF8());
    return out;
}

} // namespace

TEST(CProps, KeepsPropertiesInOrderOfAdding)
{
    CProps props;
    props.add("uri", "/disk").add("brickIndex", int64_t(7)).add("action", "store");
    EXPECT_EQ(names(props), (std::vector<std::string>{"uri", "brickIndex", "action"}));
    EXPECT_EQ(props.getCount(), 3u);
}

TEST(CProps, ReplacingKeepsPlaceAndCount)
{
    CProps props;
    props.add("a", "1").add("b", "2").add("a", "3");
    EXPECT_EQ(names(props), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(props.lookup("a"), "3");
}

TEST(CProps, LookupOfAbsentNameGivesEmptyString)
{
    const CProps props = CProps().add("a", "1");
    EXPECT_TRUE(props.lookup("missing").isEmpty());
    EXPECT_FALSE(props.contains("missing"));
    EXPECT_TRUE(props.contains("a"));
}

TEST(CProps, StoresNumbersAsDecimalText)
{
    const CProps props = CProps().add("size", int64_t(-524288)).add("count", 3);
    EXPECT_EQ(props.lookup("size"), "-524288");
    EXPECT_EQ(props.lookup("count"), "3");
}

TEST(CProps, AddAllAppendsNewAndReplacesExisting)
{
    CProps target = CProps().add("a", "1").add("b", "2");
    const CProps more = CProps().add("b", "20").add("c", "30");
    target.addAll(more);
    EXPECT_EQ(names(target), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(target.lookup("b"), "20");
    EXPECT_EQ(target.lookup("c"), "30");
}

TEST(CProps, EmptyUntilSomethingIsAdded)
{
    CProps props;
    EXPECT_TRUE(props.isEmpty());
    props.add("x", String());
    EXPECT_FALSE(props.isEmpty());
    EXPECT_TRUE(props.contains("x"));
}

TEST(CProps, EqualWhenSameEntriesInSameOrder)
{
    EXPECT_EQ(CProps().add("a", "1").add("b", "2"), CProps().add("a", "1").add("b", "2"));
    EXPECT_NE(CProps().add("a", "1").add("b", "2"), CProps().add("b", "2").add("a", "1"));
}
