// Throughput of CBrickDataPreparer on full bricks with the default header
// (lz4, aes256cbc, md5), next to the stages it is made of, each alone on the
// same data:
//   prepare:   MD5 of the plain bytes, LZ4 compress, AES-256-CBC encrypt,
//              MD5 of the brick file;
//   unprepare: MD5 of the brick file, AES-256-CBC decrypt, LZ4 decompress,
//              MD5 of the plain bytes.
// Every benchmark counts one brick of plain bytes per iteration, whatever it
// touches, so the stage throughputs combine: the stages of one brick take
// 1 / (sum of 1 / stage throughput) together, which is the most that prepare
// or unprepare can reach. bench/preparer_ratio.py prints how close they come.
#include "brick/format/BrickDataPreparer.h"
#include "brick/format/BrickDiskHeader.h"
#include "seal/Cipher.h"
#include "seal/Digest.h"
#include "zo/LZ4Compressor.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = zo::TBuffer<zo::uint8>;
using Key = zo::TCryptBuffer<zo::uint8>;

constexpr int kBrickSize = 0x80000;

enum DataKind { zeros, text, random };

Bytes makeBrick(DataKind kind)
{
    Bytes brick(kBrickSize);
    std::mt19937 generator(42);
    if (kind == zeros) {
        std::memset(brick.getData(), 0, kBrickSize);
    } else if (kind == random) {
        for (int i = 0; i < kBrickSize; ++i)
            brick[i] = static_cast<zo::uint8>(generator());
    } else {
        static const std::vector<std::string> words = {"brick ", "disk ", "the ",  "folder ", "of ",     "sector ",
                                                       "file\n", "data ", "zero ", "child ",  "parent ", "key "};
        int used = 0;
        while (used < kBrickSize) {
            const std::string& word = words[generator() % words.size()];
            const int n = std::min(static_cast<int>(word.size()), kBrickSize - used);
            std::memcpy(brick.getData() + used, word.data(), static_cast<size_t>(n));
            used += n;
        }
    }
    return brick;
}

Key makeKey()
{
    Key key(32);
    for (int i = 0; i < 32; ++i)
        key[i] = static_cast<zo::uint8>(i * 13 + 5);
    return key;
}

// The data of one kind in every form the stages see.
struct Forms {
    explicit Forms(DataKind kind) : plain(makeBrick(kind))
    {
        brick::CBrickDataPreparer preparer(header, key);
        preparer.prepareData(plain, prepared);
        zo::CLZ4Compressor lz4(false);
        compressed.setUsed(lz4.getMaxCompressedSize(kBrickSize));
        compressed.setUsed(lz4.compress(plain.getData(), kBrickSize, compressed.getData(), compressed.getUsed()));
        seal::CCipherManager()
            .getCipher("aes256cbc")
            ->encrypt(key, compressed.getData(), compressed.getUsed(), encrypted, false, 0);
    }

    const brick::CBrickDiskHeader header;
    const Key key = makeKey();
    Bytes plain;
    Bytes prepared;
    Bytes compressed;
    Bytes encrypted;
};

void countBricks(benchmark::State& state)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBrickSize);
}

void BM_Prepare(benchmark::State& state, DataKind kind)
{
    const Forms forms(kind);
    brick::CBrickDataPreparer preparer(forms.header, forms.key);
    Bytes prepared;
    for (auto _ : state) {
        preparer.prepareData(forms.plain, prepared);
        benchmark::DoNotOptimize(prepared.getData());
    }
    countBricks(state);
}

void BM_Unprepare(benchmark::State& state, DataKind kind)
{
    const Forms forms(kind);
    brick::CBrickDataPreparer preparer(forms.header, forms.key);
    Bytes plain;
    for (auto _ : state) {
        preparer.unprepareData(forms.prepared, plain);
        benchmark::DoNotOptimize(plain.getData());
    }
    countBricks(state);
}

void digestLoop(benchmark::State& state, const Bytes& bytes)
{
    const zo::P<seal::IDigestContext> md5 = seal::CDigestManager().getType("md5")->createContext();
    for (auto _ : state) {
        md5->reset();
        md5->update(bytes.getData(), bytes.getUsed());
        md5->finish();
        benchmark::DoNotOptimize(md5->getDigest());
    }
    countBricks(state);
}

void BM_StageMd5Plain(benchmark::State& state, DataKind kind)
{
    digestLoop(state, Forms(kind).plain);
}

void BM_StageMd5Prepared(benchmark::State& state, DataKind kind)
{
    digestLoop(state, Forms(kind).prepared);
}

void BM_StageCompress(benchmark::State& state, DataKind kind)
{
    const Forms forms(kind);
    zo::CLZ4Compressor lz4(false);
    Bytes work(lz4.getMaxCompressedSize(kBrickSize));
    for (auto _ : state)
        benchmark::DoNotOptimize(lz4.compress(forms.plain.getData(), kBrickSize, work.getData(), work.getUsed()));
    countBricks(state);
}

void BM_StageDecompress(benchmark::State& state, DataKind kind)
{
    const Forms forms(kind);
    zo::CLZ4Compressor lz4(false);
    Bytes plain(kBrickSize);
    for (auto _ : state)
        benchmark::DoNotOptimize(
            lz4.decompress(forms.compressed.getData(), forms.compressed.getUsed(), plain.getData(), kBrickSize));
    countBricks(state);
}

void BM_StageEncrypt(benchmark::State& state, DataKind kind)
{
    const Forms forms(kind);
    const zo::P<seal::ICipher> aes = seal::CCipherManager().getCipher("aes256cbc");
    Bytes encrypted;
    for (auto _ : state) {
        aes->encrypt(forms.key, forms.compressed.getData(), forms.compressed.getUsed(), encrypted, false, 0);
        benchmark::DoNotOptimize(encrypted.getData());
    }
    countBricks(state);
}

void BM_StageDecrypt(benchmark::State& state, DataKind kind)
{
    const Forms forms(kind);
    const zo::P<seal::ICipher> aes = seal::CCipherManager().getCipher("aes256cbc");
    Bytes decrypted;
    for (auto _ : state) {
        aes->decrypt(forms.key, forms.encrypted.getData(), forms.encrypted.getUsed(), decrypted, false, 0);
        benchmark::DoNotOptimize(decrypted.getData());
    }
    countBricks(state);
}

#define BRICK_BENCHMARK(function)                                                                                      \
    BENCHMARK_CAPTURE(function, zeros, zeros);                                                                         \
    BENCHMARK_CAPTURE(function, text, text);                                                                           \
    BENCHMARK_CAPTURE(function, random, random)

BRICK_BENCHMARK(BM_Prepare);
BRICK_BENCHMARK(BM_StageMd5Plain);
BRICK_BENCHMARK(BM_StageCompress);
BRICK_BENCHMARK(BM_StageEncrypt);
BRICK_BENCHMARK(BM_StageMd5Prepared);
BRICK_BENCHMARK(BM_Unprepare);
BRICK_BENCHMARK(BM_StageDecrypt);
BRICK_BENCHMARK(BM_StageDecompress);

} // namespace

BENCHMARK_MAIN();
