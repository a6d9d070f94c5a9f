// Feeds arbitrary bytes to the auxiliary file loader as the contents of the
// primary and fallback copies of a record. The first byte chooses which
// copies exist and how the fallback copy differs; the rest is the file.
// Every CError is an accepted outcome; anything else is a bug.
#include "brick/format/BrickDiskAuxFileBase.h"

#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <cstddef>
#include <cstdint>

namespace {

const zo::CURI kFolder("/disk");
const zo::CURI kPrimary("/disk/record");
const zo::CURI kFallback("/disk/fallback/record");

zo::CMemoryFileSystem& fileSystem()
{
    static const zo::P<zo::CMemoryFileSystem> fs = [] {
        zo::P<zo::CMemoryFileSystem> created(new zo::CMemoryFileSystem(1));
        created->createFolder(kFolder, 0x1ff);
        return created;
    }();
    return *fs;
}

enum class Layout : uint8_t {
    PrimaryOnly,
    FallbackOnly,
    BothSame,
    FallbackWithLastByteFlipped,
    PrimaryHalfFallbackWhole,
};
constexpr uint8_t kLayoutCount = 5;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > 0x100010)
        return 0;
    const auto layout = static_cast<Layout>(data[0] % kLayoutCount);
    const zo::TBuffer<zo::uint8> file(data + 1, static_cast<int>(size - 1));
    zo::TBuffer<zo::uint8> other(file);
    zo::CMemoryFileSystem& fs = fileSystem();
    fs.resetCounters(); // keeps the operation log from growing without end
    fs.deleteFile(kPrimary, true);
    fs.deleteFile(kFallback, true);
    switch (layout) {
    case Layout::PrimaryOnly:
        fs.setFileData(kPrimary, file);
        break;
    case Layout::FallbackOnly:
        fs.setFileData(kFallback, file);
        break;
    case Layout::BothSame:
        fs.setFileData(kPrimary, file);
        fs.setFileData(kFallback, file);
        break;
    case Layout::FallbackWithLastByteFlipped:
        if (other.getUsed() > 0)
            other[other.getUsed() - 1] ^= 0xFF;
        fs.setFileData(kPrimary, file);
        fs.setFileData(kFallback, other);
        break;
    case Layout::PrimaryHalfFallbackWhole:
        other.setUsed(file.getUsed() / 2);
        fs.setFileData(kPrimary, other);
        fs.setFileData(kFallback, file);
        break;
    }
    try {
        const zo::P<zo::TBuffer<zo::uint8>> payload = brick::CBrickDiskAuxFileBase::loadAuxFile(&fs, kFolder, "record");
        if (!payload || payload->getUsed() < 1 || payload->getUsed() >= file.getUsed())
            __builtin_trap();
    } catch (const zo::CError&) {
    }
    return 0;
}
