// Builds the bytes of a record by hand, field by field, in the encoding the
// disk uses (little-endian integers, strings as an int32 byte count and UTF-8).
#pragma once

#include "zo/Base.h"
#include "zo/Buffer.h"

#include <string>
#include <vector>

namespace recordtest {

class RecordBytes {
public:
    RecordBytes& text(const std::string& ascii)
    {
        m_bytes.insert(m_bytes.end(), ascii.begin(), ascii.end());
        return *this;
    }
    RecordBytes& raw(const std::vector<zo::uint8>& bytes)
    {
        m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
        return *this;
    }
    RecordBytes& int32(zo::int64 value) { return littleEndian(static_cast<zo::uint64>(value), 4); }
    RecordBytes& int64(zo::int64 value) { return littleEndian(static_cast<zo::uint64>(value), 8); }
    RecordBytes& string(const std::string& utf8)
    {
        int32(static_cast<zo::int64>(utf8.size()));
        return text(utf8);
    }

    const std::vector<zo::uint8>& bytes() const { return m_bytes; }
    zo::TBuffer<zo::uint8> buffer() const
    {
        return zo::TBuffer<zo::uint8>(m_bytes.data(), static_cast<int>(m_bytes.size()));
    }

private:
    RecordBytes& littleEndian(zo::uint64 value, int width)
    {
        for (int i = 0; i < width; ++i)
            m_bytes.push_back(static_cast<zo::uint8>(value >> (8 * i)));
        return *this;
    }

    std::vector<zo::uint8> m_bytes;
};

} // namespace recordtest
