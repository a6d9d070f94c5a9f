// Random reads and writes against a model of the disk's bytes, with flushes
// and reopenings in between, on both file systems, with and without
// encryption, for every compressor.
#include "support/BrickDiskModel.h"
#include "support/TempFolder.h"
#include "zo/LocalFileSystem.h"
#include "zo/MemoryFileSystem.h"

#include <cctype>
#include <memory>
#include <ostream>
#include <string>
#include <tuple>

namespace {

using zo::P;

enum class FileSystemKind { memory, local };

void PrintTo(FileSystemKind kind, std::ostream* out)
{
    *out << (kind == FileSystemKind::memory ? "memory" : "local");
}

using ModelCase = std::tuple<FileSystemKind, bool, const char*>;

class BrickDiskModelTest : public ::testing::TestWithParam<ModelCase> {
protected:
    // A fixed seed per case, different between cases.
    unsigned seed() const
    {
        const auto [kind, encrypted, compressor] = GetParam();
        unsigned value = 7919u * (kind == FileSystemKind::local ? 2u : 1u) + (encrypted ? 104729u : 0u);
        for (const char* c = compressor; *c; ++c)
            value = value * 31u + static_cast<unsigned char>(*c);
        return value;
    }

    std::unique_ptr<testsupport::TempFolder> temp;
};

TEST_P(BrickDiskModelTest, RandomReadsAndWritesMatchAModelOfTheBytes)
{
    const auto [kind, encrypted, compressor] = GetParam();
    P<zo::IFileSystem> fs;
    zo::CURI folder;
    if (kind == FileSystemKind::memory) {
        const P<zo::CMemoryFileSystem> memory(new zo::CMemoryFileSystem(2));
        memory->setCompletionDelay(0, 2);
        fs = memory;
        folder = zo::CURI("/model/disk");
    } else {
        temp = std::make_unique<testsupport::TempFolder>();
        const P<zo::CLocalFileSystem> local(new zo::CLocalFileSystem(2));
        local->setSyncEnabled(false);
        fs = local;
        folder = temp->uri() << "disk";
    }
    testsupport::BrickDiskModel().run(fs.get(), folder, encrypted ? "model password" : "", compressor, seed());
}

std::string caseName(const ::testing::TestParamInfo<ModelCase>& info)
{
    const auto [kind, encrypted, compressor] = info.param;
    std::string name = kind == FileSystemKind::memory ? "Memory" : "Local";
    name += encrypted ? "Encrypted" : "Plain";
    for (const char* c = compressor; *c; ++c)
        name += std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_';
    return name;
}

INSTANTIATE_TEST_SUITE_P(EveryFileSystemCipherAndCompressor, BrickDiskModelTest,
                         ::testing::Combine(::testing::Values(FileSystemKind::memory, FileSystemKind::local),
                                            ::testing::Bool(),
                                            ::testing::Values("null", "zlib-6", "lz4", "lz4hc", "lzma-1", "zstd-3")),
                         caseName);

} // namespace
