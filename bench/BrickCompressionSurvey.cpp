// Stored size and processor time of brick compressors on the bricks of a real
// image: what a disk of each compressor would store for it, and what
// compressing and restoring its bricks costs.
//
//   BrickCompressionSurvey IMAGE BRICK_SIZE ID...
//
// IMAGE is cut into bricks of BRICK_SIZE bytes; all-zero bricks are skipped,
// as disks store no file for them. Each ID (lz4, lz4hc, zlib-L, lzma-P,
// zstd-Z) compresses every other brick in turn, and the result is restored
// and compared with the brick. For each ID the program prints the bricks'
// plain and compressed bytes, their ratio, and the compress and decompress
// throughput measured with the thread's processor clock (so that other work
// on a shared machine adds less noise than to the wall clock), and how many
// bricks did not shrink.
#include "zo/Buffer.h"
#include "zo/LZ4Compressor.h"
#include "zo/LZMACompressor.h"
#include "zo/ZLibCompressor.h"
#include "zo/ZstdCompressor.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<zo::uint8>;

double threadSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

zo::P<zo::ICompressor> makeCompressor(const std::string& id)
{
    if (id == "lz4" || id == "lz4hc")
        return zo::P<zo::ICompressor>(new zo::CLZ4Compressor(id == "lz4hc"));
    if (id.starts_with("zlib-"))
        return zo::P<zo::ICompressor>(new zo::CZLibCompressor(std::atoi(id.c_str() + 5)));
    if (id.starts_with("lzma-"))
        return zo::P<zo::ICompressor>(new zo::CLZMACompressor(std::atoi(id.c_str() + 5), 0));
    if (id.starts_with("zstd-"))
        return zo::P<zo::ICompressor>(new zo::CZstdCompressor(std::atoi(id.c_str() + 5)));
    std::fprintf(stderr, "unknown compressor %s\n", id.c_str());
    std::exit(2);
}

struct Tally {
    std::string id;
    zo::P<zo::ICompressor> compressor;
    long long plainBytes = 0;
    long long storedBytes = 0;
    long long unshrunk = 0;
    double compressSeconds = 0;
    double decompressSeconds = 0;
};

void survey(Tally& tally, const Bytes& brick, Bytes& packed, Bytes& restored)
{
    const int size = static_cast<int>(brick.size());
    packed.resize(static_cast<size_t>(tally.compressor->getMaxCompressedSize(size)));
    const double start = threadSeconds();
    const int packedSize =
        tally.compressor->compress(brick.data(), size, packed.data(), static_cast<int>(packed.size()));
    const double compressed = threadSeconds();
    const int restoredSize = tally.compressor->decompress(packed.data(), packedSize, restored.data(), size);
    const double end = threadSeconds();
    if (restoredSize != size || std::memcmp(restored.data(), brick.data(), brick.size()) != 0) {
        std::fprintf(stderr, "%s did not restore a brick\n", tally.id.c_str());
        std::exit(1);
    }
    tally.plainBytes += size;
    tally.storedBytes += packedSize;
    tally.unshrunk += packedSize >= size ? 1 : 0;
    tally.compressSeconds += compressed - start;
    tally.decompressSeconds += end - compressed;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s IMAGE BRICK_SIZE ID...\n", argv[0]);
        return 2;
    }
    const int fd = open(argv[1], O_RDONLY);
    if (fd < 0) {
        std::perror(argv[1]);
        return 1;
    }
    const size_t brickSize = std::strtoull(argv[2], nullptr, 10);
    std::vector<Tally> tallies;
    for (int i = 3; i < argc; ++i)
        tallies.push_back(Tally{argv[i], makeCompressor(argv[i])});

    Bytes brick(brickSize);
    Bytes packed;
    Bytes restored(brickSize);
    long long bricks = 0;
    long long stored = 0;
    for (;;) {
        const ssize_t got =
            pread(fd, brick.data(), brickSize, static_cast<off_t>(bricks) * static_cast<off_t>(brickSize));
        if (got <= 0)
            break;
        // A short last brick is padded with zeros, as the disk's last brick is.
        std::memset(brick.data() + got, 0, brickSize - static_cast<size_t>(got));
        ++bricks;
        if (zo::isAllZero(brick.data(), brick.size()))
            continue;
        ++stored;
        for (Tally& tally : tallies)
            survey(tally, brick, packed, restored);
    }
    close(fd);

    std::printf("%lld bricks of %zu bytes, %lld not all zero\n", bricks, brickSize, stored);
    std::printf("%-10s %12s %12s %7s %12s %12s %9s\n", "compressor", "plain MiB", "stored MiB", "ratio", "comp MB/s",
                "decomp MB/s", "unshrunk");
    for (const Tally& tally : tallies) {
        const double plain = static_cast<double>(tally.plainBytes);
        std::printf("%-10s %12.2f %12.2f %7.3f %12.0f %12.0f %9lld\n", tally.id.c_str(), plain / 1048576.0,
                    static_cast<double>(tally.storedBytes) / 1048576.0, static_cast<double>(tally.storedBytes) / plain,
                    plain / 1e6 / tally.compressSeconds, plain / 1e6 / tally.decompressSeconds, tally.unshrunk);
    }
    return 0;
}
