#include "zo/String.h"

#include "zo/Error.h"

#include <charconv>
#include <limits>

namespace zo {

namespace {

// Appends the UTF-16 form of UTF-8 text; a malformed byte becomes U+FFFD.
void appendUTF8(std::u16string& out, std::string_view in)
{
    size_t i = 0;
    while (i < in.size()) {
        const auto c = static_cast<unsigned char>(in[i]);
        char32_t cp = 0xFFFD;
        size_t len = 1;
        const int extra = c < 0x80     ? 0
            : (c >= 0xC2 && c < 0xE0)  ? 1
            : (c >= 0xE0 && c < 0xF0)  ? 2
            : (c >= 0xF0 && c <= 0xF4) ? 3
                                       : -1;
        if (extra == 0) {
            cp = c;
        } else if (extra > 0 && i + static_cast<size_t>(extra) < in.size()) {
            char32_t v = c & (0x3F >> extra);
            bool ok = true;
            for (int k = 1; ok && k <= extra; ++k) {
                const auto cc = static_cast<unsigned char>(in[i + static_cast<size_t>(k)]);
                ok = (cc & 0xC0) == 0x80;
                v = (v << 6) | (cc & 0x3F);
            }
            const char32_t minimum = extra == 1 ? 0x80 : extra == 2 ? 0x800 : 0x10000;
            if (ok && v >= minimum && v <= 0x10FFFF && !(v >= 0xD800 && v <= 0xDFFF)) {
                cp = v;
                len = static_cast<size_t>(extra) + 1;
            }
        }
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out += static_cast<char16_t>(0xD800 + (cp >> 10));
            out += static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
        } else {
            out += static_cast<char16_t>(cp);
        }
        i += len;
    }
}

void appendCodePoint(std::string& out, char32_t cp)
{
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

} // namespace

String::String(const char* utf8)
{
    if (utf8)
        appendUTF8(m_text, utf8);
}

String::String(std::string_view utf8)
{
    appendUTF8(m_text, utf8);
}

String::String(const char16_t* utf16)
{
    if (utf16)
        m_text = utf16;
}

const String& String::getEmptyString()
{
    static const String empty;
    return empty;
}

String String::Mid(size_t start, int64 count) const
{
    if (start >= m_text.size())
        return String();
    const size_t n = count < 0 ? npos : static_cast<size_t>(count);
    return String(m_text.substr(start, n));
}

bool String::StartsWith(const String& prefix) const
{
    return m_text.starts_with(prefix.m_text);
}

bool String::EndsWith(const String& suffix) const
{
    return m_text.ends_with(suffix.m_text);
}

size_t String::find(wchar_t ch, size_t from) const
{
    if (static_cast<uint32>(ch) > 0xFFFF)
        return npos;
    return m_text.find(static_cast<char16_t>(ch), from);
}

size_t String::findLast(wchar_t ch) const
{
    if (static_cast<uint32>(ch) > 0xFFFF)
        return npos;
    return m_text.rfind(static_cast<char16_t>(ch));
}

String& String::operator+=(wchar_t ch)
{
    char32_t cp = static_cast<char32_t>(ch);
    if (cp > 0x10FFFF)
        cp = 0xFFFD; // not a Unicode character
    if (cp >= 0x10000) {
        cp -= 0x10000;
        m_text += static_cast<char16_t>(0xD800 + (cp >> 10));
        m_text += static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
    } else {
        m_text += static_cast<char16_t>(cp);
    }
    return *this;
}

std::string String::toUTF8() const
{
    std::string out;
    out.reserve(m_text.size());
    for (size_t i = 0; i < m_text.size(); ++i) {
        char32_t cp = m_text[i];
        if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < m_text.size() && m_text[i + 1] >= 0xDC00 &&
            m_text[i + 1] <= 0xDFFF) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (m_text[i + 1] - 0xDC00);
            ++i;
        } else if (cp >= 0xD800 && cp <= 0xDFFF) {
            cp = 0xFFFD; // a lone surrogate has no UTF-8 form
        }
        appendCodePoint(out, cp);
    }
    return out;
}

String toDecimalString(int64 value)
{
    return String(std::to_string(value));
}

String toHexString(int value)
{
    char buf[16];
    const auto res = std::to_chars(buf, buf + sizeof buf, static_cast<uint32>(value), 16);
    return String(std::string_view(buf, static_cast<size_t>(res.ptr - buf)));
}

std::string toHexDigits(const void* bytes, size_t size)
{
    static const char digits[] = "0123456789abcdef";
    const auto* const in = static_cast<const unsigned char*>(bytes);
    std::string hex;
    hex.reserve(size * 2);
    for (size_t i = 0; i < size; ++i) {
        hex += digits[in[i] >> 4];
        hex += digits[in[i] & 15];
    }
    return hex;
}

int64 parseInt64(const String& text, bool allowTrailing)
{
    const std::string s = text.toUTF8();
    const char* begin = s.data();
    const char* end = s.data() + s.size();
    // One optional sign: "+" is skipped here, "-" is read by from_chars; a
    // second sign ("+-5") is refused there.
    if (begin != end && *begin == '+' && (begin + 1 == end || begin[1] != '-'))
        ++begin;
    int64 value = 0;
    const auto res = std::from_chars(begin, end, value, 10);
    if (res.ec == std::errc::result_out_of_range)
        throw CInvalidArgError("zo::parseInt64", "Number is out of range.", CProps().add("text", text));
    if (res.ec != std::errc() || (!allowTrailing && res.ptr != end))
        throw CInvalidArgError("zo::parseInt64", "Text is not a decimal number.", CProps().add("text", text));
    return value;
}

} // namespace zo
