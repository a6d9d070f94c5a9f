// String: the system's text type, UTF-16 code units. Narrow literals and
// std::string arguments are taken as UTF-8.
#pragma once

#include "zo/Base.h"
#include "zo/Export.h"

#include <string>
#include <string_view>

namespace zo {

class BRICKDISK_EXPORT String {
public:
    static constexpr size_t npos = std::u16string::npos;

    String() = default;
    String(const char* utf8);
    String(std::string_view utf8);
    String(const std::string& utf8) : String(std::string_view(utf8)) {}
    String(const char16_t* utf16);
    String(std::u16string utf16) : m_text(std::move(utf16)) {}

    static String fromUTF8(std::string_view utf8) { return String(utf8); }
    // A shared empty string, for arguments that want "no text".
    static const String& getEmptyString();

    String& operator=(const char* utf8) { return *this = String(utf8); }

    size_t getLength() const { return m_text.size(); }
    bool isEmpty() const { return m_text.empty(); }
    // `count` characters from `start`; count -1 (or past the end) takes the rest.
    String Mid(size_t start, int64 count = -1) const;
    bool StartsWith(const String& prefix) const;
    bool EndsWith(const String& suffix) const;
    // Position of `ch` at or after `from`, npos when absent.
    size_t find(wchar_t ch, size_t from = 0) const;
    size_t findLast(wchar_t ch) const;
    std::string toUTF8() const;
    const std::u16string& getUTF16() const { return m_text; }
    char16_t operator[](size_t i) const { return m_text[i]; }

    String& operator+=(const String& other)
    {
        m_text += other.m_text;
        return *this;
    }
    String& operator+=(const char* utf8) { return *this += String(utf8); }
    // Appends one character: a surrogate pair beyond U+FFFF, U+FFFD for a
    // value beyond U+10FFFF.
    String& operator+=(wchar_t ch);

    friend String operator+(String a, const String& b)
    {
        a += b;
        return a;
    }
    friend String operator+(String a, const char* b)
    {
        a += b;
        return a;
    }
    friend String operator+(const char* a, const String& b)
    {
        String s(a);
        s += b;
        return s;
    }

    friend bool operator==(const String& a, const String& b) { return a.m_text == b.m_text; }
    friend bool operator==(const String& a, const char* b) { return a == String(b); }
    friend auto operator<=>(const String& a, const String& b) { return a.m_text <=> b.m_text; }

private:
    std::u16string m_text;
};

// Decimal text of a signed 64-bit number.
BRICKDISK_EXPORT String toDecimalString(int64 value);
// Lower-case hexadecimal text of `value` without prefix or padding; negative
// values show their 32-bit two's complement.
BRICKDISK_EXPORT String toHexString(int value);
// Two lower-case hexadecimal digits for each of the `size` bytes at `bytes`,
// in order: the usual text of a digest, key or random ID.
BRICKDISK_EXPORT std::string toHexDigits(const void* bytes, size_t size);
// Parses a decimal number with an optional sign. `allowTrailing` false: the
// whole text must be the number. Throws CInvalidArgError on bad text or overflow.
BRICKDISK_EXPORT int64 parseInt64(const String& text, bool allowTrailing);

} // namespace zo

template <>
struct std::hash<zo::String> {
    size_t operator()(const zo::String& s) const noexcept { return std::hash<std::u16string>()(s.getUTF16()); }
};
