// Feeds arbitrary bytes to CBrickDataPreparer::unprepareData. Every zo::CError
// is an accepted answer to a bad brick file; a crash, an overrun, a leak or a
// sanitizer report is a bug.
//
// Input: byte 0 picks the mode, byte 1 the preparer (compressor, cipher,
// digest and brick size), the rest is the payload.
//   mode 0  the payload is the brick file as it stands;
//   mode 1  the payload gets a valid outer digest, so the checks after it
//           and the cipher see it;
//   mode 2  a brick file is built around the payload: the fixed fields, the
//           first D payload bytes as the inner digest, the rest encrypted
//           with the preparer's key, and a valid outer digest, so the
//           decompressor sees attacker-chosen bytes;
//   mode 3  the payload is prepared and unprepared again and must come back
//           unchanged.
// Modes 4 and 5 fuzz the bricks of the cipher "aes256gcm" at brick index 0;
// byte 1 picks the compressor:
//   mode 4  the payload is the brick file as it stands (only the tag check
//           and the size checks before it see it, barring a forgery);
//   mode 5  the payload is sealed as the compressed bytes of a brick (by a
//           preparer of the same key without compressor, which the tag does
//           not cover), so the decompressor sees attacker-chosen bytes.
#include "brick/format/BrickDataPreparer.h"
#include "brick/format/BrickDiskHeader.h"
#include "seal/Cipher.h"
#include "seal/Digest.h"
#include "zo/Error.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

using Bytes = zo::TBuffer<zo::uint8>;
using Key = zo::TCryptBuffer<zo::uint8>;

struct PreparerConfig {
    const char* compressID;
    const char* cipherID;
    const char* checkSumHashID;
    int brickSize;
};

// The order is part of the seed corpus: byte 1 of an input indexes it, so new
// preparers go at the end.
constexpr PreparerConfig kConfigs[] = {
    {"null", "aes256cbc", "md5", 4096},    {"zlib-6", "aes256cbc", "md5", 4096}, {"lz4", "aes256cbc", "md5", 4096},
    {"lz4hc", "aes256cbc", "md5", 4096},   {"lzma-6", "aes256cbc", "md5", 4096}, {"null", "null", "sha256", 0x80000},
    {"zlib-6", "null", "sha256", 0x80000}, {"lz4", "null", "sha256", 0x80000},   {"lz4hc", "null", "sha256", 0x80000},
    {"lzma-6", "null", "sha256", 0x80000}, {"zstd-3", "aes256cbc", "md5", 4096}, {"zstd-3", "null", "sha256", 0x80000},
};
constexpr size_t kConfigCount = sizeof(kConfigs) / sizeof(kConfigs[0]);

// The compressors of modes 4 and 5, all with bricks of 4096 bytes.
constexpr const char* kSealedCompressIDs[] = {"null", "zlib-6", "lz4", "lz4hc", "lzma-6"};
constexpr size_t kSealedCount = sizeof(kSealedCompressIDs) / sizeof(kSealedCompressIDs[0]);
constexpr int kSealedBrickSize = 4096;

struct Fixture {
    explicit Fixture(const PreparerConfig& config)
    {
        brick::CBrickDiskHeader header;
        header.setCompressID(config.compressID);
        header.setCipherID(config.cipherID);
        header.setCheckSumHashID(config.checkSumHashID);
        header.setBrickSize(config.brickSize);
        cipher = seal::CCipherManager().getCipher(config.cipherID);
        key.setUsed(cipher->getKeySize());
        for (int i = 0; i < key.getUsed(); ++i)
            key[i] = static_cast<zo::uint8>(0xA5 ^ i);
        digest = seal::CDigestManager().getType(config.checkSumHashID)->createContext();
        preparer = zo::P<brick::CBrickDataPreparer>(new brick::CBrickDataPreparer(header, key));
    }

    void appendDigest(Bytes& bytes)
    {
        digest->reset();
        digest->update(bytes.getData(), bytes.getUsed());
        digest->finish();
        bytes.append(digest->getDigest(), digest->getSize());
    }

    zo::P<seal::ICipher> cipher;
    Key key;
    zo::P<seal::IDigestContext> digest;
    zo::P<brick::CBrickDataPreparer> preparer;
};

Fixture& fixture(size_t index)
{
    static std::vector<std::unique_ptr<Fixture>> fixtures = [] {
        std::vector<std::unique_ptr<Fixture>> made;
        for (const PreparerConfig& config : kConfigs)
            made.push_back(std::make_unique<Fixture>(config));
        return made;
    }();
    return *fixtures[index];
}

// The preparer of the "aes256gcm" bricks that compress with
// kSealedCompressIDs[index]; one key for all.
brick::CBrickDataPreparer& sealedPreparer(size_t index)
{
    static std::vector<zo::P<brick::CBrickDataPreparer>> preparers = [] {
        Key key(32);
        for (int i = 0; i < key.getUsed(); ++i)
            key[i] = static_cast<zo::uint8>(0x5A ^ i);
        std::vector<zo::P<brick::CBrickDataPreparer>> made;
        for (const char* compressID : kSealedCompressIDs) {
            brick::CBrickDiskHeader header;
            header.setCompressID(compressID);
            header.setCipherID("aes256gcm");
            header.setCheckSumHashID("hmac-sha256");
            header.setBrickSize(kSealedBrickSize);
            made.push_back(zo::P<brick::CBrickDataPreparer>(new brick::CBrickDataPreparer(header, key)));
        }
        return made;
    }();
    return *preparers[index];
}

Bytes encryptedBrickFile(Fixture& fixture, const zo::uint8* payload, int size)
{
    const int digestSize = fixture.digest->getSize();
    Bytes file(reinterpret_cast<const zo::uint8*>("BRICK\x01\x00\x01\x00"), 9);
    // The inner digest: the first D payload bytes, padded with zeros.
    const int innerDigestSize = size < digestSize ? size : digestSize;
    zo::uint8* innerDigest = file.getFreePtr(digestSize);
    std::memset(innerDigest, 0, static_cast<size_t>(digestSize));
    if (innerDigestSize > 0)
        std::memcpy(innerDigest, payload, static_cast<size_t>(innerDigestSize));
    file.addUsed(digestSize);
    fixture.cipher->encrypt(fixture.key, payload + innerDigestSize, size - innerDigestSize, file, true, 0);
    fixture.appendDigest(file);
    return file;
}

void checkRoundTrip(Fixture& fixture, const Bytes& source)
{
    Bytes prepared;
    fixture.preparer->prepareData(source, prepared);
    Bytes plain;
    fixture.preparer->unprepareData(prepared, plain);
    if (!(plain == source))
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2 || size > 0x200000)
        return 0;
    const int mode = data[0] % 6;
    const Bytes payload(data + 2, static_cast<int>(size - 2));
    if (mode >= 4) {
        brick::CBrickDataPreparer& preparer = sealedPreparer(data[1] % kSealedCount);
        try {
            Bytes plain;
            if (mode == 4) {
                preparer.unprepareData(payload, plain, 0);
            } else if (payload.getUsed() <= kSealedBrickSize) {
                // The compressor "null" takes at most a brick.
                Bytes file;
                sealedPreparer(0).prepareData(payload, file, 0);
                preparer.unprepareData(file, plain, 0);
            }
        } catch (const zo::CError&) {
        }
        return 0;
    }
    const size_t configIndex = data[1] % kConfigCount;
    Fixture& target = fixture(configIndex);

    if (mode == 3) {
        // Any error here is a bug: every source of at most a brick prepares.
        if (payload.getUsed() <= kConfigs[configIndex].brickSize)
            checkRoundTrip(target, payload);
        return 0;
    }
    try {
        Bytes plain;
        if (mode == 0) {
            target.preparer->unprepareData(payload, plain);
        } else if (mode == 1) {
            Bytes file(payload);
            target.appendDigest(file);
            target.preparer->unprepareData(file, plain);
        } else {
            target.preparer->unprepareData(encryptedBrickFile(target, payload.getData(), payload.getUsed()), plain);
        }
    } catch (const zo::CError&) {
    }
    return 0;
}
