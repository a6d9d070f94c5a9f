#include "brick/format/BrickDiskHeader.h"

#include "brick/Version.h"
#include "brick/detail/RecordFields.h"
#include "brick/format/BrickDiskError.h"
#include "brick/format/BrickDiskHeaderLimits.h"

#include "zo/BufferStream.h"
#include "zo/DataStream.h"
#include "zo/Error.h"

#include <cstring>
#include <string>

namespace brick {

using zo::CURI;
using zo::P;

namespace {

constexpr const char* kHeaderFileID = "BRCKDISK";
constexpr double kGrowFactor = 2.0;
constexpr const char* kIdentityMark = "BRCKIDNT";
constexpr const char* kKeyListMark = "BRCKKEYS";
constexpr zo::int32 kHasParentFlag = 1;

// The mark of the next part of the record: the next eight bytes, or nothing
// when fewer are left.
std::string readMark(zo::CDataInStream& in, zo::IInStream& stream)
{
    const size_t size = std::strlen(kIdentityMark);
    if (stream.getLength() - stream.getPosition() < static_cast<zo::int64>(size))
        return std::string();
    std::string mark(size, '\0');
    in.read(mark.data(), static_cast<int>(size));
    return mark;
}

void writeKeySlot(zo::CDataOutStream& out, const CBrickDiskHeader::KeySlot& slot)
{
    out.writeString(slot.name);
    out.writeInt64(slot.creationTime);
    record::writeByteBlock(out, slot.salt);
    out.writeInt32(slot.passes);
    out.writeInt32(slot.memoryKiB);
    out.writeInt32(slot.lanes);
    record::writeByteBlock(out, slot.wrappedKey);
}

CBrickDiskHeader::KeySlot readKeySlot(zo::CDataInStream& in, zo::IInStream& stream)
{
    CBrickDiskHeader::KeySlot slot;
    slot.name = in.readString();
    slot.creationTime = in.readInt64();
    record::readByteBlock(in, stream, slot.salt);
    slot.passes = in.readInt32();
    slot.memoryKiB = in.readInt32();
    slot.lanes = in.readInt32();
    record::readByteBlock(in, stream, slot.wrappedKey);
    return slot;
}

} // namespace

bool CBrickDiskHeader::hasKeyWrapFields() const
{
    return m_cipherKeyDeriverID == kKeyWrappingDeriverID;
}

zo::String CBrickDiskHeader::getHeaderFilename()
{
    return "disk.brickdisk";
}

CURI CBrickDiskHeader::getHeaderURI(const CURI& folder, int copy)
{
    return getAuxFileURI(folder, getHeaderFilename(), copy);
}

// Versions and the iteration count are 32-bit values stored as 64-bit ones;
// the field order of the record is fixed and differs from the field order of
// the class (the key hash comes before the compressor ID).
void CBrickDiskHeader::store(zo::IFileSystem* fs, const CURI& folder) const
{
    const P<zo::CBufferStream> stream(new zo::CBufferStream(nullptr, kGrowFactor));
    zo::CDataOutStream out(stream.get());
    record::writeFileID(out, kHeaderFileID);
    out.writeInt64(m_version);
    out.writeInt64(m_minReaderVersion);
    out.writeInt64(m_minWriterVersion);
    out.writeInt32(m_brickSize);
    out.writeInt32(m_payloadBlockSize);
    out.writeInt64(m_diskSize);
    out.writeString(m_checkSumHashID);
    out.writeString(m_cryptoHashID);
    out.writeString(m_cipherID);
    record::writeByteBlock(out, m_cipherKeyHash);
    out.writeString(m_compressID);
    out.writeString(m_cipherKeyDeriverID);
    record::writeByteBlock(out, m_cipherKeyDerivationSalt);
    out.writeInt64(m_cipherKeyDerivationIterations);
    if (hasKeyWrapFields()) {
        out.writeInt32(m_cipherKeyDerivationMemoryKiB);
        out.writeInt32(m_cipherKeyDerivationLanes);
        record::writeByteBlock(out, m_wrappedCipherKey);
    }
    if (hasIdentity()) {
        record::writeFileID(out, kIdentityMark);
        record::writeByteBlock(out, m_diskID);
        out.writeInt32(m_hasParent ? kHasParentFlag : 0);
        record::writeByteBlock(out, m_identityTag);
    }
    if (hasKeyWrapFields() && m_hasKeyList) {
        record::writeFileID(out, kKeyListMark);
        out.writeString(m_firstKeyName);
        out.writeInt64(m_firstKeyCreationTime);
        out.writeInt32(static_cast<zo::int32>(m_furtherKeys.size()));
        for (const KeySlot& slot : m_furtherKeys)
            writeKeySlot(out, slot);
        record::writeByteBlock(out, m_keyListTag);
    }
    storeAuxFile(fs, folder, getHeaderFilename(), *stream->getBuffer());
}

void CBrickDiskHeader::load(zo::IFileSystem* fs, const CURI& folder)
{
    const P<zo::TBuffer<zo::uint8>> payload = loadAuxFile(fs, folder, getHeaderFilename());
    const P<zo::CBufferStream> stream(new zo::CBufferStream(static_cast<const zo::TBuffer<zo::uint8>*>(payload.get())));
    zo::CDataInStream in(stream.get());
    if (!record::readFileIDMatches(in, kHeaderFileID))
        throw zo::CError("brickdisk header file does not start with correct file ID.");
    // The tree shape is not stored: every disk on file has the fixed one.
    m_objectsPerTreeLevel = kFixedObjectsPerTreeLevel;
    m_treeLevels = kFixedTreeLevels;

    const zo::int64 version = in.readInt64();
    const zo::int64 minReaderVersion = in.readInt64();
    m_version = static_cast<int>(version);
    m_minReaderVersion = static_cast<int>(minReaderVersion);
    if (m_minReaderVersion > kImplementationVersion)
        throw CBrickDiskError(CBrickDiskError::NewerSoftwareRequired, folder);

    const zo::int64 minWriterVersion = in.readInt64();
    m_minWriterVersion = static_cast<int>(minWriterVersion);
    m_brickSize = in.readInt32();
    m_payloadBlockSize = in.readInt32();
    m_diskSize = in.readInt64();
    m_checkSumHashID = in.readString();
    m_cryptoHashID = in.readString();
    m_cipherID = in.readString();
    record::readByteBlock(in, *stream, m_cipherKeyHash);
    m_compressID = in.readString();
    m_cipherKeyDeriverID = in.readString();
    record::readByteBlock(in, *stream, m_cipherKeyDerivationSalt);
    const zo::int64 iterations = in.readInt64();
    m_cipherKeyDerivationIterations = static_cast<int>(iterations);

    // Only a key-wrapped header holds the next three fields, only a header
    // with an identity the marked three after them, and only a key-wrapped
    // header with a key list the marked list after those; other bytes after
    // the last field are not read.
    m_cipherKeyDerivationMemoryKiB = 0;
    m_cipherKeyDerivationLanes = 0;
    m_wrappedCipherKey.setUsed(0);
    if (hasKeyWrapFields()) {
        // Every stored bit of these headers counts: a 64-bit field must
        // hold its 32-bit value, sign-extended, and nothing else.
        for (const zo::int64 value : {version, minReaderVersion, minWriterVersion, iterations})
            if (value != static_cast<int>(value))
                throw zo::CError("brickdisk header holds a value beyond 32 bits.");
        m_cipherKeyDerivationMemoryKiB = in.readInt32();
        m_cipherKeyDerivationLanes = in.readInt32();
        record::readByteBlock(in, *stream, m_wrappedCipherKey);
    }
    m_diskID.setUsed(0);
    m_hasParent = false;
    m_identityTag.setUsed(0);
    std::string mark = readMark(in, *stream);
    if (mark == kIdentityMark) {
        record::readByteBlock(in, *stream, m_diskID);
        const zo::int32 flags = in.readInt32();
        if (flags != 0 && flags != kHasParentFlag)
            throw zo::CError("brickdisk header holds unknown identity flags.", zo::String(), -1,
                             zo::CProps().add("flags", flags).add("diskFolder", folder.toString(true)));
        m_hasParent = flags == kHasParentFlag;
        record::readByteBlock(in, *stream, m_identityTag);
        mark = readMark(in, *stream);
    }
    m_hasKeyList = false;
    m_firstKeyName = zo::String();
    m_firstKeyCreationTime = 0;
    m_furtherKeys.clear();
    m_keyListTag.setUsed(0);
    if (hasKeyWrapFields() && mark == kKeyListMark) {
        m_hasKeyList = true;
        m_firstKeyName = in.readString();
        m_firstKeyCreationTime = in.readInt64();
        const zo::int32 count = in.readInt32();
        // Checked before the loop, so that a changed count cannot make it run long.
        if (count < 0 || count >= CBrickDiskHeaderLimits::kMaxKeyCount)
            throw zo::CError("Invalid key count: " + zo::toDecimalString(zo::int64(count) + 1) + " (from 1 to " +
                                 zo::toDecimalString(CBrickDiskHeaderLimits::kMaxKeyCount) + ").",
                             zo::String(), -1,
                             zo::CProps()
                                 .add("field", "keyCount")
                                 .add("value", zo::toDecimalString(zo::int64(count) + 1))
                                 .add("diskFolder", folder.toString(true)));
        for (zo::int32 i = 0; i < count; ++i)
            m_furtherKeys.push_back(readKeySlot(in, *stream));
        record::readByteBlock(in, *stream, m_keyListTag);
    }
    // Before any caller sizes a buffer, a loop or a key derivation by it.
    CBrickDiskHeaderLimits::validate(*this, folder);
}

} // namespace brick
