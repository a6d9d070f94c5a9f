// Helpers shared by the readers and writers of the disk folder's records.
// Used inside the library only; not part of the public API.
#pragma once

#include "zo/Buffer.h"
#include "zo/DataStream.h"
#include "zo/Error.h"
#include "zo/Stream.h"

#include <cstring>
#include <vector>

namespace brick::record {

// Writes the fixed file ID of a record: its bytes, without a terminator.
inline void writeFileID(zo::CDataOutStream& out, const char* fileID)
{
    out.write(fileID, static_cast<int>(std::strlen(fileID)));
}

// Reads as many bytes as `fileID` has and tells whether they are those bytes.
inline bool readFileIDMatches(zo::CDataInStream& in, const char* fileID)
{
    const size_t size = std::strlen(fileID);
    std::vector<char> bytes(size);
    in.read(bytes.data(), static_cast<int>(size));
    return std::memcmp(bytes.data(), fileID, size) == 0;
}

// A byte block: its int32 length, then that many raw bytes.
inline void writeByteBlock(zo::CDataOutStream& out, const zo::TBuffer<zo::uint8>& block)
{
    out.writeInt32(block.getUsed());
    out.write(block.getData(), block.getUsed());
}

// Reads a byte block from `in`, which reads from `stream`. A negative length
// fails with CIOError InvalidData; a length beyond the bytes left in the
// stream fails with CIOError EndOfData before anything is allocated, so a
// damaged length cannot make the reader ask for gigabytes.
inline void readByteBlock(zo::CDataInStream& in, zo::IInStream& stream, zo::TBuffer<zo::uint8>& block)
{
    const zo::int32 size = in.readInt32();
    if (size < 0)
        throw zo::CIOError(zo::CIOError::InvalidData, "Negative byte count in brickdisk record.",
                           zo::CProps().add("length", size));
    const zo::int64 left = stream.getLength() - stream.getPosition();
    if (size > left)
        throw zo::CIOError(zo::CIOError::EndOfData, zo::String(), zo::CProps().add("wanted", size).add("got", left));
    block.setUsed(size);
    in.read(block.getData(), size);
}

} // namespace brick::record
