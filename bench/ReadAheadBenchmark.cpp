// Front-to-back read throughput of a 256 MiB disk of text-like data (lz4,
// aes256cbc, 512 KiB bricks) on the local file system, read in pieces of
// 64 KiB:
//   PlainStream:     CBrickDiskStream, which loads and decodes every brick on
//                    the reader's thread;
//   ReadAheadStream: CBrickDiskStreamWithParallelReadAhead with 1, 2 and 4
//                    read threads.
// The disk is made once per run in a temporary folder (sync off, so making it
// is quick) and removed at exit. Its files stay in the page cache, so the
// figures are those of decoding bricks, not of a storage device. Every
// benchmark counts the disk's bytes per iteration; the iterations run on the
// wall clock, since the work is spread over threads.
#include "brick/chain/BrickDisk.h"
#include "brick/streams/BrickDiskStream.h"
#include "brick/streams/BrickDiskStreamWithParallelReadAhead.h"
#include "zo/LocalFileSystem.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using zo::int64;
using zo::P;

constexpr int kBrickSize = 0x80000;
constexpr int64 kDiskSize = 256LL << 20;
constexpr int kPieceSize = 0x10000;
constexpr int kIterations = 3;
const char* const kPassword = "read-ahead-benchmark";

// Words and numbers, as in logs or source text: lz4 shrinks it to about half.
void fillWithText(std::vector<zo::uint8>& bytes, unsigned seed)
{
    static const std::vector<std::string> words = {"brick ", "disk ", "the ",   "folder ", "of ",  "sector ", "file\n",
                                                   "data ",  "zero ", "child ", "parent ", "key ", "stream ", "read "};
    std::mt19937 generator(seed);
    size_t used = 0;
    while (used < bytes.size()) {
        std::string word = words[generator() % words.size()];
        if (generator() % 4 == 0)
            word = std::to_string(generator() % 100000) + ' ';
        const size_t n = std::min(word.size(), bytes.size() - used);
        std::memcpy(bytes.data() + used, word.data(), n);
        used += n;
    }
}

// The disk of the run: made on first use, removed with its folder at exit.
class BenchDisk {
public:
    BenchDisk() : m_fs(new zo::CLocalFileSystem(2))
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "brickdisk-bench-XXXXXX").string();
        if (!mkdtemp(pattern.data()))
            throw std::runtime_error("mkdtemp failed");
        m_tempPath = pattern;
        m_folder = zo::CURI(zo::String(m_tempPath)) << "disk";
        m_fs->setSyncEnabled(false);
        brick::CBrickDisk::create(m_fs.get(), m_folder, kDiskSize, 1, kPassword, "lz4", kBrickSize);
        fill();
    }
    ~BenchDisk()
    {
        m_fs->waitUntilIdle();
        std::error_code ignored;
        std::filesystem::remove_all(m_tempPath, ignored);
    }
    BenchDisk(const BenchDisk&) = delete;
    BenchDisk& operator=(const BenchDisk&) = delete;

    P<brick::CBrickDisk> open(zo::IIOStream::Access access) const
    {
        return P<brick::CBrickDisk>(new brick::CBrickDisk(m_fs.get(), m_folder, kPassword, access, 4));
    }

private:
    void fill()
    {
        const P<brick::CBrickDisk> disk = open(zo::IIOStream::AccessReadWrite);
        std::vector<zo::uint8> brick(kBrickSize);
        for (int64 index = 0; index < kDiskSize / kBrickSize; ++index) {
            fillWithText(brick, static_cast<unsigned>(index));
            disk->write(brick.data(), kBrickSize);
        }
        disk->flushChanges();
        if (!disk->getBackgroundErrorList().empty())
            throw std::runtime_error("a brick of the benchmark disk could not be stored");
    }

    P<zo::CLocalFileSystem> m_fs;
    std::string m_tempPath;
    zo::CURI m_folder;
};

const BenchDisk& benchDisk()
{
    static const BenchDisk disk;
    return disk;
}

void readToEnd(zo::IInStream& stream, std::vector<zo::uint8>& piece)
{
    int64 total = 0;
    for (int got; (got = stream.readLax(piece.data(), kPieceSize)) > 0;)
        total += got;
    if (total != kDiskSize)
        throw std::runtime_error("the stream ended early");
}

void BM_PlainStream(benchmark::State& state)
{
    const P<brick::CBrickDisk> disk = benchDisk().open(zo::IIOStream::AccessRead);
    std::vector<zo::uint8> piece(kPieceSize);
    for (auto _ : state) {
        const P<brick::CBrickDiskStream> stream(new brick::CBrickDiskStream(disk.get()));
        stream->seek(0);
        readToEnd(*stream, piece);
    }
    state.SetBytesProcessed(state.iterations() * kDiskSize);
}

void BM_ReadAheadStream(benchmark::State& state)
{
    const P<brick::CBrickDisk> disk = benchDisk().open(zo::IIOStream::AccessRead);
    const int threads = static_cast<int>(state.range(0));
    std::vector<zo::uint8> piece(kPieceSize);
    for (auto _ : state) {
        const P<brick::CBrickDiskStreamWithParallelReadAhead> stream(
            new brick::CBrickDiskStreamWithParallelReadAhead(disk.get(), threads));
        readToEnd(*stream, piece);
    }
    state.SetBytesProcessed(state.iterations() * kDiskSize);
}

BENCHMARK(BM_PlainStream)->Iterations(kIterations)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadAheadStream)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->Arg(4)
    ->Iterations(kIterations)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
