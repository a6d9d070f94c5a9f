// Uses the three parts of the installed interface (zo, seal, brick) through
// their umbrella headers: makes an encrypted disk in memory, writes and reads
// it back, and checks that the library it runs with is the release its
// headers describe. Prints one line and exits 0 when all is well.
#include "brick/brick.h"
#include "seal/seal.h"
#include "zo/zo.h"

#include <cstdio>
#include <cstring>

int main()
{
    try {
        if (std::strcmp(brick::getLibraryVersion(), brick::kVersion) != 0) {
            std::fprintf(stderr, "consumer: headers of %s, library %s\n", brick::kVersion, brick::getLibraryVersion());
            return 1;
        }
        const zo::P<zo::CMemoryFileSystem> fs(new zo::CMemoryFileSystem(2));
        const zo::CURI folder("/disk");
        brick::CBrickDisk::create(fs.get(), folder, 1 << 20, 1, "secret", "lz4", 65536);

        const char message[] = "stored through the installed library";
        {
            const zo::P<brick::CBrickDisk> disk(
                new brick::CBrickDisk(fs.get(), folder, "secret", zo::IIOStream::AccessReadWrite, 2));
            disk->seek(70000);
            disk->write(message, sizeof message);
            disk->flushChanges();
        }
        const zo::P<brick::CBrickDisk> disk(
            new brick::CBrickDisk(fs.get(), folder, "secret", zo::IIOStream::AccessRead, 2));
        char back[sizeof message] = {};
        disk->seek(70000);
        disk->read(back, sizeof back);
        if (std::memcmp(back, message, sizeof message) != 0) {
            std::fprintf(stderr, "consumer: the disk gave back other bytes\n");
            return 1;
        }
        try {
            const zo::P<brick::CBrickDisk> wrong(
                new brick::CBrickDisk(fs.get(), folder, "wrong", zo::IIOStream::AccessRead, 2));
            std::fprintf(stderr, "consumer: a wrong password opened the disk\n");
            return 1;
        } catch (const brick::CBrickDiskError& e) {
            if (e.getErrorCode() != brick::CBrickDiskError::IncorrectPassword)
                throw;
        }
        // The first test vector of RFC 6070.
        const zo::uint8 expectedKey[20] = {0x0c, 0x60, 0xc8, 0x0f, 0x96, 0x1f, 0x0e, 0x71, 0xf3, 0xa9,
                                           0xb5, 0x24, 0xaf, 0x60, 0x12, 0x06, 0x2f, 0xe0, 0x37, 0xa6};
        zo::uint8 key[20];
        seal::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("password", 8, "salt", 4, 1, sizeof key, key);
        if (std::memcmp(key, expectedKey, sizeof key) != 0) {
            std::fprintf(stderr, "consumer: PBKDF2 gave another key\n");
            return 1;
        }
        std::printf("brickdisk %s: disk written, read back and password checked\n", brick::getLibraryVersion());
        return 0;
    } catch (const zo::CError& e) {
        std::fprintf(stderr, "consumer: %s\n", e.toString().toUTF8().c_str());
        return 1;
    }
}
