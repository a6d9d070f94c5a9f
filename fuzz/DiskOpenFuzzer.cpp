// Opens a disk whose header or parent link holds arbitrary bytes. The first
// input byte chooses the record (even: the header, odd: the parent link), the
// rest is its payload, framed with a matching digest as an editor of the
// record would leave it, so that every input reaches the field checks and
// what lies behind them: the chain inspection, the opening, link following
// and a first read. Every CError is an accepted outcome; a crash, a hang or
// an allocation by a hostile field is a bug.
#include "brick/chain/BrickDisk.h"
#include "brick/chain/BrickDiskChain.h"
#include "brick/format/BrickDiskAuxFileBase.h"

#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace {

const zo::CURI kFolder("/disks/child");
const zo::CURI kParentFolder("/disks/parent");
constexpr int kBrickSize = 4096;

// A parent and its child, unencrypted, of the authenticated format, so that
// their headers and links carry identities: the fuzzed record replaces the
// child's header or parent link before each opening.
zo::CMemoryFileSystem& fileSystem()
{
    static const zo::P<zo::CMemoryFileSystem> fs = [] {
        zo::P<zo::CMemoryFileSystem> created(new zo::CMemoryFileSystem(1));
        brick::CBrickDisk::createAuthenticated(created.get(), kParentFolder, 4 * kBrickSize, 1, "", "lz4", kBrickSize,
                                               seal::Argon2idCost{1, 8, 1});
        brick::CBrickDisk::createChild(created.get(), kFolder, kParentFolder, brick::CBrickDisk::standAloneChild);
        return created;
    }();
    return *fs;
}

// Inspects the chain, then opens the disk and reads its start. Deriving a
// key takes up to a second by design (within bounds that the tests check),
// so encrypted headers end after their validation.
void openAndRead(zo::CMemoryFileSystem& fs)
{
    const brick::CBrickDiskChain chain(&fs, kFolder);
    if (chain.getHeader().isEncrypted())
        return;
    const zo::P<brick::CBrickDisk> disk(new brick::CBrickDisk(&fs, kFolder, "", zo::IIOStream::AccessRead, 1));
    std::vector<char> buffer(512);
    disk->read(buffer.data(), static_cast<int>(buffer.size()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > 0x100000 - 16)
        return 0;
    zo::CMemoryFileSystem& fs = fileSystem();
    fs.resetCounters(); // keeps the operation log from growing without end
    const bool header = data[0] % 2 == 0;
    const zo::String fileName =
        header ? brick::CBrickDiskHeader::getHeaderFilename() : brick::CBrickDisk::getParentLinkFileName();
    const zo::P<zo::TBuffer<zo::uint8>> original = brick::CBrickDiskAuxFileBase::loadAuxFile(&fs, kFolder, fileName);
    const zo::TBuffer<zo::uint8> record(data + 1, static_cast<int>(size - 1));
    brick::CBrickDiskAuxFileBase::storeAuxFile(&fs, kFolder, fileName, record);
    try {
        openAndRead(fs);
    } catch (const zo::CError&) {
    }
    brick::CBrickDiskAuxFileBase::storeAuxFile(&fs, kFolder, fileName, *original);
    return 0;
}
