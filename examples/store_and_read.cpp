// Stores a buffer as a file through the local file system's asynchronous
// store, reads it back through a stream and checks every byte.
//
//   store_and_read FOLDER
#include "zo/LocalFileSystem.h"
#include "zo/Random.h"
#include "zo/zo.h"

#include <cstdio>
#include <cstring>

using namespace zo;

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    try {
        P<IFileSystem> fs(new CLocalFileSystem());
        const CURI folder = CURI(String(argv[1])) << "example";
        const CURI file = folder << "data.bin";

        TBuffer<uint8> data(1 << 20);
        CMTRand random;
        random.randData(data.getData(), data.getUsed());

        fs->createFolder(folder, 0x1ff);
        P<CBufferStream> source(new CBufferStream(&data));
        fs->beginStoreFile(file, data.getUsed(), source.get(), true, nullptr)->wait();

        P<IIOStream> in = fs->openStream(file, IIOStream::AccessRead, IIOStream::OptionNone);
        TBuffer<uint8> back(static_cast<int>(in->getSize()));
        in->read(back.getData(), back.getUsed());
        in.reset();

        if (back != data) {
            std::fprintf(stderr, "store_and_read: the file read back differs from what was stored\n");
            return 1;
        }
        std::printf("stored and read back %d bytes through %s: identical\n", data.getUsed(),
                    file.toString().toUTF8().c_str());
        return 0;
    } catch (const CError& e) {
        std::fprintf(stderr, "store_and_read: %s\n", e.toString().toUTF8().c_str());
        return 1;
    }
}
