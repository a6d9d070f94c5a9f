// The per-brick cost of the disk formats side by side: preparing and
// unpreparing one 512 KiB brick of text (lz4) with aes256cbc and plain
// SHA-256 digests, with aes256cbc and HMAC-SHA256 digests bound to the
// brick's index, and with aes256gcm, whose tag replaces the digests; and the
// key derivation of each format at its default cost (PBKDF2-HMAC-SHA1 with
// 10000 iterations, Argon2id with the library's default cost).
#include "brick/format/BrickDataPreparer.h"
#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickDiskKeyWrap.h"
#include "seal/KeyDerivation.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <random>

namespace {

using Bytes = zo::TBuffer<zo::uint8>;
using Key = zo::TCryptBuffer<zo::uint8>;

constexpr int kBrickSize = 0x80000;

// Words, as a file system's text files hold them: lz4 compresses them well.
Bytes textBrick()
{
    static const char* const words[] = {"brick ", "disk ", "the ", "folder ", "of ", "sector ", "file\n", "data "};
    Bytes brick(kBrickSize);
    std::mt19937 generator(42);
    for (int used = 0; used < kBrickSize;) {
        const char* word = words[generator() % 8];
        const int n = std::min(static_cast<int>(std::strlen(word)), kBrickSize - used);
        std::memcpy(brick.getData() + used, word, static_cast<size_t>(n));
        used += n;
    }
    return brick;
}

brick::CBrickDiskHeader headerWith(const char* checkSumHashID, const char* cipherID)
{
    brick::CBrickDiskHeader header;
    header.setCheckSumHashID(checkSumHashID);
    header.setCipherID(cipherID);
    return header;
}

Key key()
{
    Key key(32);
    for (int i = 0; i < 32; ++i)
        key[i] = static_cast<zo::uint8>(i * 13 + 5);
    return key;
}

void BM_Prepare(benchmark::State& state, const char* checkSumHashID, const char* cipherID)
{
    brick::CBrickDataPreparer preparer(headerWith(checkSumHashID, cipherID), key());
    const Bytes plain = textBrick();
    Bytes prepared;
    zo::int64 index = 0;
    for (auto _ : state) {
        preparer.prepareData(plain, prepared, ++index);
        benchmark::DoNotOptimize(prepared.getData());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBrickSize);
}

void BM_Unprepare(benchmark::State& state, const char* checkSumHashID, const char* cipherID)
{
    brick::CBrickDataPreparer preparer(headerWith(checkSumHashID, cipherID), key());
    Bytes prepared;
    preparer.prepareData(textBrick(), prepared, 7);
    Bytes plain;
    for (auto _ : state) {
        preparer.unprepareData(prepared, plain, 7);
        benchmark::DoNotOptimize(plain.getData());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBrickSize);
}

void BM_DerivePBKDF2(benchmark::State& state)
{
    zo::uint8 derived[32];
    for (auto _ : state)
        seal::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("password", 8, "saltsalt", 8, 10000, 32, derived);
}

void BM_DeriveArgon2id(benchmark::State& state)
{
    zo::uint8 derived[32];
    const seal::Argon2idCost cost = brick::CBrickDiskKeyWrap::getDefaultCost();
    for (auto _ : state)
        seal::deriveKey_Argon2id("password", 8, "saltsaltsaltsalt", 16, cost, 32, derived);
    state.counters["memoryMiB"] = cost.memoryKiB / 1024.0;
}

BENCHMARK_CAPTURE(BM_Prepare, sha256, "sha256", "aes256cbc");
BENCHMARK_CAPTURE(BM_Prepare, hmac_sha256, "hmac-sha256", "aes256cbc");
BENCHMARK_CAPTURE(BM_Prepare, aes256gcm, "hmac-sha256", "aes256gcm");
BENCHMARK_CAPTURE(BM_Unprepare, sha256, "sha256", "aes256cbc");
BENCHMARK_CAPTURE(BM_Unprepare, hmac_sha256, "hmac-sha256", "aes256cbc");
BENCHMARK_CAPTURE(BM_Unprepare, aes256gcm, "hmac-sha256", "aes256gcm");
BENCHMARK(BM_DerivePBKDF2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DeriveArgon2id)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
