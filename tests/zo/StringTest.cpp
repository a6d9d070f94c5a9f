#include "zo/String.h"
#include "zo/Error.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

using zo::String;

namespace {

// The UTF-8 bytes of a text, as written in the test.
std::string bytes(std::initializer_list<unsigned> values)
{
    std::string out;
    for (unsigned v : values)
        out += static_cast<char>(v);
    return out;
}

} // namespace

TEST(String, ConvertsAsciiToUtf16AndBack)
{
    const String s("brick");
    EXPECT_EQ(s.getLength(), 5u);
    EXPECT_EQ(s.getUTF16(), u"brick");
    EXPECT_EQ(s.toUTF8(), "brick");
}

TEST(String, RoundTripsTwoAndThreeByteCharacters)
{
    const std::string utf8 = bytes({0xC3, 0xA4, 0xE2, 0x82, 0xAC}); // "ä€"
    const String s(utf8);
    EXPECT_EQ(s.getUTF16(), std::u16string(u"\u00E4\u20AC"));
    EXPECT_EQ(s.toUTF8(), utf8);
}

TEST(String, StoresNonBmpCharacterAsSurrogatePair)
{
    const std::string utf8 = bytes({0xF0, 0x9F, 0x98, 0x80}); // U+1F600
    const String s(utf8);
    ASSERT_EQ(s.getLength(), 2u);
    EXPECT_EQ(s[0], 0xD83D);
    EXPECT_EQ(s[1], 0xDE00);
    EXPECT_EQ(s.toUTF8(), utf8);
}

TEST(String, RoundTripsHighestCodePoint)
{
    const std::string utf8 = bytes({0xF4, 0x8F, 0xBF, 0xBF}); // U+10FFFF
    const String s(utf8);
    EXPECT_EQ(s.getUTF16(), std::u16string(u"\U0010FFFF"));
    EXPECT_EQ(s.toUTF8(), utf8);
}

TEST(String, ReplacesMalformedUtf8BytesWithReplacementCharacter)
{
    EXPECT_EQ(String(bytes({'a', 0xFF, 'b'})).getUTF16(), u"a\uFFFDb");
    // A lone continuation byte.
    EXPECT_EQ(String(bytes({0x80})).getUTF16(), u"\uFFFD");
    // A lead byte cut off at the end of the text.
    EXPECT_EQ(String(bytes({'x', 0xE2, 0x82})).getUTF16(), u"x\uFFFD\uFFFD");
    // A lead byte followed by a non-continuation byte keeps that byte.
    EXPECT_EQ(String(bytes({0xC3, 'A'})).getUTF16(), u"\uFFFDA");
}

TEST(String, RefusesOverlongAndSurrogateEncodings)
{
    // "/" encoded in two bytes instead of one.
    EXPECT_EQ(String(bytes({0xC0, 0xAF})).getUTF16(), u"\uFFFD\uFFFD");
    // Overlong three-byte form of U+0000.
    EXPECT_EQ(String(bytes({0xE0, 0x80, 0x80})).getUTF16(), u"\uFFFD\uFFFD\uFFFD");
    // U+D800 encoded directly.
    EXPECT_EQ(String(bytes({0xED, 0xA0, 0x80})).getUTF16(), u"\uFFFD\uFFFD\uFFFD");
    // Beyond U+10FFFF.
    EXPECT_EQ(String(bytes({0xF4, 0x90, 0x80, 0x80})).getUTF16(), u"\uFFFD\uFFFD\uFFFD\uFFFD");
}

TEST(String, WritesLoneSurrogateAsReplacementCharacterInUtf8)
{
    const String s(std::u16string(1, char16_t(0xD800)) + u"a");
    EXPECT_EQ(s.toUTF8(), bytes({0xEF, 0xBF, 0xBD, 'a'}));
}

TEST(String, TakesNullNarrowPointerAsEmpty)
{
    EXPECT_TRUE(String(static_cast<const char*>(nullptr)).isEmpty());
}

TEST(String, MidTakesCountOrRestOfText)
{
    const String s("abcdef");
    EXPECT_EQ(s.Mid(2, 3), "cde");
    EXPECT_EQ(s.Mid(2), "cdef");
    EXPECT_EQ(s.Mid(2, -1), "cdef");
    EXPECT_EQ(s.Mid(4, 100), "ef");
    EXPECT_EQ(s.Mid(6), "");
    EXPECT_EQ(s.Mid(60, 1), "");
    EXPECT_EQ(s.Mid(0, 0), "");
}

TEST(String, StartsWithAndEndsWith)
{
    const String s("bricks/b001");
    EXPECT_TRUE(s.StartsWith("bricks"));
    EXPECT_TRUE(s.StartsWith(""));
    EXPECT_TRUE(s.StartsWith(s));
    EXPECT_FALSE(s.StartsWith("bricks/b0011"));
    EXPECT_FALSE(s.StartsWith("b001"));
    EXPECT_TRUE(s.EndsWith("b001"));
    EXPECT_FALSE(s.EndsWith("bricks"));
}

TEST(String, FindReturnsPositionAtOrAfterStartOrNpos)
{
    const String s("a/b/c");
    EXPECT_EQ(s.find(L'/', 0), 1u);
    EXPECT_EQ(s.find(L'/', 1), 1u);
    EXPECT_EQ(s.find(L'/', 2), 3u);
    EXPECT_EQ(s.find(L'/', 4), String::npos);
    EXPECT_EQ(s.find(L'x', 0), String::npos);
    EXPECT_EQ(s.find(L'/', 100), String::npos);
    EXPECT_EQ(s.findLast(L'/'), 3u);
    EXPECT_EQ(String("abc").findLast(L'/'), String::npos);
}

TEST(String, AppendsStringsLiteralsAndCharacters)
{
    String s;
    s += String("ab");
    s += "cd";
    s += L'e';
    s += L'\u00E9';
    EXPECT_EQ(s.getUTF16(), u"abcde\u00E9");
}

TEST(String, AppendsNonBmpCharacterAsSurrogatePair)
{
    String s;
    s += static_cast<wchar_t>(0x1F600);
    EXPECT_EQ(s.getUTF16(), std::u16string(u"\U0001F600"));
}

TEST(String, AppendsReplacementForValueBeyondUnicode)
{
    String s;
    s += static_cast<wchar_t>(0x110000);
    EXPECT_EQ(s.getUTF16(), u"\uFFFD");
}

TEST(String, ConcatenatesWithNarrowLiteralsOnEitherSide)
{
    const String mid("mid");
    EXPECT_EQ("pre-" + mid, "pre-mid");
    EXPECT_EQ(mid + "-post", "mid-post");
    EXPECT_EQ(mid + String("!"), "mid!");
}

TEST(String, ComparesWithStringsAndLiterals)
{
    const String a("apple");
    EXPECT_TRUE(a == "apple");
    EXPECT_FALSE(a != "apple");
    EXPECT_TRUE(a != "Apple");
    EXPECT_TRUE(a == String("apple"));
    EXPECT_LT(String("apple"), String("banana"));
    EXPECT_LT(String("app"), String("apple"));
    EXPECT_GT(String("b"), String("a"));
}

TEST(String, AssignsFromNarrowLiteral)
{
    String s("old");
    s = "new";
    EXPECT_EQ(s, "new");
}

TEST(String, CopiesAndMovesKeepText)
{
    String a("text");
    String b(a);
    String c(std::move(a));
    EXPECT_EQ(b, "text");
    EXPECT_EQ(c, "text");
}

TEST(String, EmptyStringIsSharedAndEmpty)
{
    EXPECT_TRUE(String::getEmptyString().isEmpty());
    EXPECT_EQ(&String::getEmptyString(), &String::getEmptyString());
    EXPECT_TRUE(String().isEmpty());
    EXPECT_FALSE(String("x").isEmpty());
}

TEST(ToHexString, WritesLowerCaseWithoutPrefixOrPadding)
{
    EXPECT_EQ(zo::toHexString(0), "0");
    EXPECT_EQ(zo::toHexString(10), "a");
    EXPECT_EQ(zo::toHexString(255), "ff");
    EXPECT_EQ(zo::toHexString(0x1F), "1f");
    EXPECT_EQ(zo::toHexString(0xABCDEF), "abcdef");
    EXPECT_EQ(zo::toHexString(std::numeric_limits<int>::max()), "7fffffff");
}

TEST(ToHexDigits, WritesTwoLowerCaseDigitsForEachByteInOrder)
{
    const unsigned char bytes[] = {0x00, 0x0f, 0xa5, 0xff, 0x10};
    EXPECT_EQ(zo::toHexDigits(bytes, sizeof(bytes)), "000fa5ff10");
    EXPECT_EQ(zo::toHexDigits(bytes, 0), "");
}

TEST(ToHexString, WritesNegativeValuesAsTwosComplement)
{
    EXPECT_EQ(zo::toHexString(-1), "ffffffff");
    EXPECT_EQ(zo::toHexString(-16), "fffffff0");
    EXPECT_EQ(zo::toHexString(std::numeric_limits<int>::min()), "80000000");
}

TEST(ToDecimalString, WritesSignedSixtyFourBitValues)
{
    EXPECT_EQ(zo::toDecimalString(0), "0");
    EXPECT_EQ(zo::toDecimalString(-42), "-42");
    EXPECT_EQ(zo::toDecimalString(524288), "524288");
    EXPECT_EQ(zo::toDecimalString(std::numeric_limits<int64_t>::max()), "9223372036854775807");
    EXPECT_EQ(zo::toDecimalString(std::numeric_limits<int64_t>::min()), "-9223372036854775808");
}

TEST(ParseInt64, ParsesSignedNumbers)
{
    EXPECT_EQ(zo::parseInt64("0", false), 0);
    EXPECT_EQ(zo::parseInt64("123", false), 123);
    EXPECT_EQ(zo::parseInt64("-123", false), -123);
    EXPECT_EQ(zo::parseInt64("+123", false), 123);
    EXPECT_EQ(zo::parseInt64("007", false), 7);
    EXPECT_EQ(zo::parseInt64("9223372036854775807", false), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(zo::parseInt64("-9223372036854775808", false), std::numeric_limits<int64_t>::min());
}

TEST(ParseInt64, ThrowsInvalidArgOnOverflow)
{
    EXPECT_THROW(zo::parseInt64("9223372036854775808", false), zo::CInvalidArgError);
    EXPECT_THROW(zo::parseInt64("-9223372036854775809", false), zo::CInvalidArgError);
    EXPECT_THROW(zo::parseInt64("99999999999999999999", true), zo::CInvalidArgError);
}

TEST(ParseInt64, ThrowsInvalidArgOnTrailingTextUnlessAllowed)
{
    EXPECT_THROW(zo::parseInt64("12ab", false), zo::CInvalidArgError);
    EXPECT_THROW(zo::parseInt64("12 ", false), zo::CInvalidArgError);
    EXPECT_EQ(zo::parseInt64("12ab", true), 12);
}

TEST(ParseInt64, ThrowsInvalidArgOnTextWithoutLeadingNumber)
{
    for (const char* text : {"", "+", "-", "abc", " 1", "+-5", "-+5", "++5"}) {
        SCOPED_TRACE(text);
        EXPECT_THROW(zo::parseInt64(text, true), zo::CInvalidArgError);
    }
}

TEST(ParseInt64, ReadsOnlyDecimalDigits)
{
    EXPECT_THROW(zo::parseInt64("0x10", false), zo::CInvalidArgError);
    EXPECT_EQ(zo::parseInt64("0x10", true), 0);
}

TEST(ParseInt64, NamesItselfAndTheTextInTheError)
{
    try {
        zo::parseInt64("x1", false);
        FAIL() << "no error thrown";
    } catch (const zo::CInvalidArgError& e) {
        EXPECT_EQ(e.getWhere(), "zo::parseInt64");
        EXPECT_EQ(e.getProps().lookup("text"), "x1");
    }
}
