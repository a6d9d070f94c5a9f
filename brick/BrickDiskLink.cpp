#include "brick/BrickDiskLink.h"

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

} // namespace

void CBrickDiskLink::store(zo::IFileSystem* fs, const CURI& diskFolder, const zo::String& fileName) const
{
    const P<zo::CBufferStream> stream(new zo::CBufferStream(nullptr, kGrowFactor));
    zo::CDataOutStream out(stream.get());
    record::writeFileID(out, kLinkFileID);
    out.writeString(m_target.toString(true));
    storeAuxFile(fs, diskFolder, fileName, *stream->getBuffer());
}

void CBrickDiskLink::load(zo::IFileSystem* fs, const CURI& diskFolder, const zo::String& fileName)
{
    const P<zo::TBuffer<zo::uint8>> payload = loadAuxFile(fs, diskFolder, fileName);
    const P<zo::CBufferStream> stream(new zo::CBufferStream(static_cast<const zo::TBuffer<zo::uint8>*>(payload.get())));
    zo::CDataInStream in(stream.get());
    if (!record::readFileIDMatches(in, kLinkFileID))
        throw zo::CError("brickdisk link file does not start with correct file ID.");
    m_target = CURI(in.readString());
}

} // namespace brick
