#include "brick/format/BrickDiskCreationTime.h"

#include "brick/detail/RecordFields.h"

#include "zo/BufferStream.h"
#include "zo/DataStream.h"
#include "zo/Error.h"

#include <chrono>

namespace brick {

using zo::CURI;
using zo::P;

namespace {

constexpr const char* kCreationTimeFileID = "BRCKTIME";
constexpr double kGrowFactor = 2.0;

} // namespace

void CBrickDiskCreationTime::store(zo::IFileSystem* fs, const CURI& diskFolder, zo::int64 secondsSinceEpoch)
{
    const P<zo::CBufferStream> stream(new zo::CBufferStream(nullptr, kGrowFactor));
    zo::CDataOutStream out(stream.get());
    record::writeFileID(out, kCreationTimeFileID);
    out.writeInt64(secondsSinceEpoch);
    storeAuxFile(fs, diskFolder, getFileName(), *stream->getBuffer());
}

void CBrickDiskCreationTime::storeNow(zo::IFileSystem* fs, const CURI& diskFolder)
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    store(fs, diskFolder, std::chrono::duration_cast<std::chrono::seconds>(now).count());
}

std::optional<zo::int64> CBrickDiskCreationTime::load(zo::IFileSystem* fs, const CURI& diskFolder)
{
    if (!fs->fileExists(getAuxFileURI(diskFolder, getFileName(), 0)) &&
        !fs->fileExists(getAuxFileURI(diskFolder, getFileName(), 1)))
        return std::nullopt;
    const P<zo::TBuffer<zo::uint8>> payload = loadAuxFile(fs, diskFolder, getFileName());
    const P<zo::CBufferStream> stream(new zo::CBufferStream(static_cast<const zo::TBuffer<zo::uint8>*>(payload.get())));
    zo::CDataInStream in(stream.get());
    if (!record::readFileIDMatches(in, kCreationTimeFileID))
        throw zo::CError("brickdisk creation time file does not start with correct file ID.");
    return in.readInt64();
}

} // namespace brick
