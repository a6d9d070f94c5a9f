#include "JsonWriter.h"

#include <cmath>
#include <cstdio>

namespace cli {

namespace {

std::string quoted(const std::string& text)
{
    std::string out = "\"";
    for (const char c : text) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
                out += escaped;
            } else {
                out += c;
            }
        }
    }
    return out + "\"";
}

} // namespace

void CJsonWriter::newLine()
{
    m_out << '\n' << std::string(m_hasItems.size() * 2, ' ');
}

void CJsonWriter::beginValue()
{
    if (m_afterKey) {
        m_afterKey = false;
        return;
    }
    if (!m_hasItems.empty()) {
        if (m_hasItems.back())
            m_out << ',';
        m_hasItems.back() = true;
        newLine();
    }
}

void CJsonWriter::beginObject()
{
    beginValue();
    m_out << '{';
    m_hasItems.push_back(false);
}

void CJsonWriter::beginArray()
{
    beginValue();
    m_out << '[';
    m_hasItems.push_back(false);
}

void CJsonWriter::end(char closing)
{
    const bool hadItems = m_hasItems.back();
    m_hasItems.pop_back();
    if (hadItems)
        newLine();
    m_out << closing;
    if (m_hasItems.empty())
        m_out << '\n';
}

void CJsonWriter::endObject()
{
    end('}');
}

void CJsonWriter::endArray()
{
    end(']');
}

void CJsonWriter::key(const std::string& name)
{
    beginValue();
    m_out << quoted(name) << ": ";
    m_afterKey = true;
}

void CJsonWriter::value(const std::string& text)
{
    beginValue();
    m_out << quoted(text);
}

void CJsonWriter::value(zo::int64 number)
{
    beginValue();
    m_out << number;
}

void CJsonWriter::value(double number)
{
    beginValue();
    if (!std::isfinite(number)) {
        m_out << "null";
        return;
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", number);
    m_out << text;
}

void CJsonWriter::value(bool flag)
{
    beginValue();
    m_out << (flag ? "true" : "false");
}

void CJsonWriter::nullValue()
{
    beginValue();
    m_out << "null";
}

} // namespace cli
