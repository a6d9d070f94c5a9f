// Feeds arbitrary bytes to the link file parser. The bytes are framed as a
// valid link file (with a matching digest) so that every input reaches the
// parser. Every CError is an accepted outcome; anything else is a bug.
#include "brick/format/BrickDiskLink.h"

#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <cstddef>
#include <cstdint>

namespace {

const zo::CURI kFolder("/disk");

zo::CMemoryFileSystem& fileSystem()
{
    static const zo::P<zo::CMemoryFileSystem> fs = [] {
        zo::P<zo::CMemoryFileSystem> created(new zo::CMemoryFileSystem(1));
        created->createFolder(kFolder, 0x1ff);
        return created;
    }();
    return *fs;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 0x100000 - 16)
        return 0;
    zo::CMemoryFileSystem& fs = fileSystem();
    fs.resetCounters(); // keeps the operation log from growing without end
    const zo::TBuffer<zo::uint8> record(data, static_cast<int>(size));
    brick::CBrickDiskAuxFileBase::storeAuxFile(&fs, kFolder, "parent.bricklnk", record);
    try {
        brick::CBrickDiskLink link;
        link.load(&fs, kFolder, "parent.bricklnk");
    } catch (const zo::CError&) {
    }
    return 0;
}
