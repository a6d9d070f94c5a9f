#include "brick/format/BrickDiskLink.h"

#include "brick/detail/RecordFields.h"

#include "zo/BufferStream.h"
#include "zo/DataStream.h"
#include "zo/Error.h"

namespace brick {

using zo::CURI;
using zo::P;

namespace {

constexpr const char* kLinkFileID = "BRCKLINK";
constexpr double kGrowFactor = 2.0;
constexpr int kIDSize = 16;
constexpr int kTagSize = 32;

// The identity fields after the target, or false (and nothing read into the
// link's fields) when the bytes left are not exactly those.
bool readIdentity(zo::CDataInStream& in, zo::CBufferStream& stream, zo::TBuffer<zo::uint8>& holderID,
                  zo::TBuffer<zo::uint8>& linkedID, zo::TBuffer<zo::uint8>& tag)
{
    try {
        record::readByteBlock(in, stream, holderID);
        record::readByteBlock(in, stream, linkedID);
        record::readByteBlock(in, stream, tag);
    } catch (const zo::CError&) {
        return false;
    }
    return holderID.getUsed() == kIDSize && linkedID.getUsed() == kIDSize && tag.getUsed() == kTagSize &&
        stream.getPosition() == stream.getLength();
}

} // namespace

bool CBrickDiskLink::holdsRecord(zo::IFileSystem* fs, const CURI& diskFolder, const zo::String& fileName)
{
    return fs->fileExists(getAuxFileURI(diskFolder, fileName, 0)) ||
        fs->fileExists(getAuxFileURI(diskFolder, fileName, 1));
}

void CBrickDiskLink::store(zo::IFileSystem* fs, const CURI& diskFolder, const zo::String& fileName) const
{
    const P<zo::CBufferStream> stream(new zo::CBufferStream(nullptr, kGrowFactor));
    zo::CDataOutStream out(stream.get());
    record::writeFileID(out, kLinkFileID);
    out.writeString(m_target.toString(true));
    if (hasIdentity()) {
        record::writeByteBlock(out, m_holderID);
        record::writeByteBlock(out, m_linkedID);
        record::writeByteBlock(out, m_tag);
    }
    storeAuxFile(fs, diskFolder, fileName, *stream->getBuffer());
}

void CBrickDiskLink::load(zo::IFileSystem* fs, const CURI& diskFolder, const zo::String& fileName)
{
    loadPayload(*loadAuxFile(fs, diskFolder, fileName));
}

void CBrickDiskLink::loadPayload(const zo::TBuffer<zo::uint8>& payload)
{
    const P<zo::CBufferStream> stream(new zo::CBufferStream(&payload));
    zo::CDataInStream in(stream.get());
    if (!record::readFileIDMatches(in, kLinkFileID))
        throw zo::CError("brickdisk link file does not start with correct file ID.");
    m_target = CURI(in.readString());
    zo::TBuffer<zo::uint8> holderID;
    zo::TBuffer<zo::uint8> linkedID;
    zo::TBuffer<zo::uint8> tag;
    if (readIdentity(in, *stream, holderID, linkedID, tag))
        setIdentity(holderID, linkedID, tag);
    else
        setIdentity({}, {}, {});
}

void CBrickDiskLink::setIdentity(const zo::TBuffer<zo::uint8>& holderID, const zo::TBuffer<zo::uint8>& linkedID,
                                 const zo::TBuffer<zo::uint8>& tag)
{
    m_holderID.assign(holderID);
    m_linkedID.assign(linkedID);
    m_tag.assign(tag);
}

} // namespace brick
