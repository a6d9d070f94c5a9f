// The most that `brickdisk import`, `export` and a re-import can reach on two
// cores, from the cost of each stage they are made of, measured one after the
// other on one thread, on the real data: an image, a disk imported from it and
// (optionally) a changed copy of the image.
//
//   ImportExportLimit IMAGE DISK PASSWORD_FILE SCRATCH_FOLDER [--changed IMAGE2] [--cold]
//
// SCRATCH_FOLDER, which must exist, receives the image file written (removed
// at the end) and the scratch disk the bricks are stored into (left there, in
// "store-disk").
//
// One pass over the bricks of IMAGE times, for each brick, with the thread's
// processor clock (the store with the process's, since the file system's
// threads do that work) and the wall clock:
//
//   reading the image       hole check (SEEK_DATA) and read of the brick, from
//                           the page cache; --cold reads it again once its
//                           pages were dropped (wall clock, not in the model)
//   all-zero test           zo::isAllZero on the brick read
//   brick look-up           whether the disk's chain holds a file for the brick
//                           (the importer learns it by loading the brick: for
//                           a missing one, an open that finds no file)
//   compare                 memcmp of the brick with an equal copy (the
//                           importer's test against what the disk holds)
//   HMAC-SHA256, SHA-256    of the plain bytes (HMAC-SHA256 is the format's
//                           brick digest; SHA-256 is the older format's)
//   HMAC-SHA256 of the file of the brick file bytes (the outer digest)
//   LZ4 compress/decompress, AES-256-CBC encrypt/decrypt: the stages alone
//   prepare, unprepare      CBrickDataPreparer's whole work on the brick (the
//                           unprepare on the disk's own brick file)
//   reading the brick file  opening and reading the disk's file of the brick
//   storing the brick file  CBrickDisk::writePreparedBrickData of every
//                           prepared brick into a scratch disk, after the pass,
//                           as import stores them: synced, 8 stores in flight
//                           on 4 file system threads (the prepared bricks are
//                           kept in memory until then, about half the image's
//                           data); mostly the kernel's work, which grows when
//                           many files were deleted shortly before (ext4's
//                           inode allocator steps past recently freed inodes)
//   writing the image       copy of the brick into a page-aligned chunk and
//                           its write(2) into an image file (holes skipped),
//                           as export writes: with direct I/O where the file
//                           system allows it; the final fsync is timed apart
//                           (wall clock, not in the model)
//   empty brick             zero fill and all-zero test of a brick no file holds
//
// and, apart, opening the disk (reading its header and deriving its key; the
// median of three), a fixed cost of every command.
//
// The model: each brick's stages run one after the other, different bricks
// run on different cores, and nothing else costs. So a command can take no
// less than the processor seconds of all its bricks' stages divided by the
// two cores, plus opening the disk (its wall-clock time), which runs before any
// brick; its key derivation uses both cores when the key has several lanes:
//
//   import     = (N x (read + look-up) + D x zero test + S x (prepare + store)) / 2 + open
//   export     = (S x (file read + unprepare + zero test + image write)
//                 + (N - S) x (look-up + empty brick)) / 2 + open
//   re-import  = (N x (read + look-up) + D' x zero test
//                 + S' x (file read + unprepare + compare) + C x (prepare + store)) / 2 + open
//
// with N the disk's bricks, D the image's bricks that are not holes, S the
// bricks the disk stores, D' the changed image's bricks that are not holes, S'
// the stored bricks among them and C the changed bricks (each term is the sum
// over those bricks of their measured seconds; a changed brick's prepare is
// timed on its new bytes, its store priced at the stored bricks' average).
// Reading the changed image costs what reading the image does. Waiting for the
// device (syncs, cold reads) is left out: it overlaps with the other core's
// work when there is enough of it.
//
// Prints the stages and the limits as Markdown, then one line per limit for
// scripts, "limit import|export|reimport|open SECONDS", and one per command
// with the processor seconds the model gives it, opening included, "cpu
// import|export|reimport SECONDS" (to hold against what the command spends).
#include "brick/chain/Brick.h"
#include "brick/chain/BrickDisk.h"
#include "brick/chain/BrickDiskChain.h"
#include "brick/chain/DiskStore.h"
#include "brick/format/BrickDataPreparer.h"
#include "brick/format/BrickTree.h"
#include "seal/Cipher.h"
#include "seal/Digest.h"
#include "zo/Buffer.h"
#include "zo/Error.h"
#include "zo/LZ4Compressor.h"
#include "zo/LocalFileSystem.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace {

using Bytes = zo::TBuffer<zo::uint8>;

double clockSeconds(clockid_t clock)
{
    timespec now{};
    ::clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// One stage: how many bricks it handled and the seconds they took.
struct Stage {
    const char* name;
    // The processor clock that counts its work.
    clockid_t cpuClock = CLOCK_THREAD_CPUTIME_ID;
    zo::int64 bricks = 0;
    double cpu = 0;
    double wall = 0;

    // Runs `work`, which handles `count` bricks, and adds its seconds.
    template <class Work>
    void time(Work&& work, zo::int64 count = 1)
    {
        const double wallStart = clockSeconds(CLOCK_MONOTONIC);
        const double cpuStart = clockSeconds(cpuClock);
        work();
        cpu += clockSeconds(cpuClock) - cpuStart;
        wall += clockSeconds(CLOCK_MONOTONIC) - wallStart;
        bricks += count;
    }
    double perBrick() const { return bricks ? cpu / static_cast<double>(bricks) : 0; }
};

struct Options {
    std::string image;
    std::string disk;
    std::string passwordFile;
    std::string scratch;
    std::string changedImage;
    bool cold = false;
};

[[noreturn]] void usage()
{
    std::fprintf(stderr,
                 "usage: ImportExportLimit IMAGE DISK PASSWORD_FILE SCRATCH_FOLDER [--changed IMAGE2] [--cold]\n");
    std::exit(2);
}

Options parseOptions(int argc, char** argv)
{
    Options options;
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--cold")
            options.cold = true;
        else if (arg == "--changed" && i + 1 < argc)
            options.changedImage = argv[++i];
        else if (arg.rfind("--", 0) == 0)
            usage();
        else
            positional.push_back(arg);
    }
    if (positional.size() != 4)
        usage();
    options.image = positional[0];
    options.disk = positional[1];
    options.passwordFile = positional[2];
    options.scratch = positional[3];
    return options;
}

// The password file's content without one trailing newline, as the tool reads it.
zo::String readPassword(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw zo::makeErrnoError(errno, "open", zo::String(path));
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    if (!text.empty() && text.back() == '\r')
        text.pop_back();
    return zo::String(text);
}

// An image file read brick by brick as the importer reads it: a brick that
// lies wholly in a hole is skipped without reading.
class CImageFile {
public:
    explicit CImageFile(const std::string& path) : m_path(path), m_fd(::open(path.c_str(), O_RDONLY))
    {
        if (m_fd < 0)
            throw zo::makeErrnoError(errno, "open", zo::String(path));
    }
    ~CImageFile() { ::close(m_fd); }
    CImageFile(const CImageFile&) = delete;
    CImageFile& operator=(const CImageFile&) = delete;

    // Reads the brick at `offset` into `brick` (room for `size` bytes) and
    // returns true, or returns false for a hole.
    bool readBrick(zo::int64 offset, zo::uint8* brick, int size)
    {
        const off_t data = ::lseek(m_fd, static_cast<off_t>(offset), SEEK_DATA);
        if ((data < 0 && errno == ENXIO) || (data >= 0 && data >= offset + size))
            return false;
        int done = 0;
        while (done < size) {
            const ssize_t n = ::pread(m_fd, brick + done, static_cast<size_t>(size - done), offset + done);
            if (n < 0)
                throw zo::makeErrnoError(errno, "pread", zo::String(m_path));
            if (n == 0)
                break;
            done += static_cast<int>(n);
        }
        std::memset(brick + done, 0, static_cast<size_t>(size - done));
        return true;
    }
    // Drops the file's pages from the page cache.
    void dropCache() { ::posix_fadvise(m_fd, 0, 0, POSIX_FADV_DONTNEED); }

private:
    std::string m_path;
    int m_fd;
};

// The image file that export would write, with holes for all-zero bricks,
// written as export writes it: each brick copied into a page-aligned chunk
// and written with direct I/O where the file system allows it.
class CImageOut {
public:
    CImageOut(const std::string& path, int brickSize)
        : m_path(path), m_fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600)),
          m_chunk(static_cast<zo::uint8*>(std::aligned_alloc(kPage, roundUpToPage(brickSize))))
    {
        if (m_fd < 0)
            throw zo::makeErrnoError(errno, "open", zo::String(path));
        if (!m_chunk)
            throw std::bad_alloc();
        m_direct = zo::CLocalFileSystem::setDirectIO(m_fd, true, path);
    }
    ~CImageOut()
    {
        ::close(m_fd);
        ::unlink(m_path.c_str());
        std::free(m_chunk);
    }
    CImageOut(const CImageOut&) = delete;
    CImageOut& operator=(const CImageOut&) = delete;

    void write(zo::int64 offset, const zo::uint8* data, int size)
    {
        std::memcpy(m_chunk, data, static_cast<size_t>(size));
        if (m_direct && (size % kPage != 0 || offset % kPage != 0)) {
            m_direct = false;
            zo::CLocalFileSystem::setDirectIO(m_fd, false, m_path);
        }
        if (::pwrite(m_fd, m_chunk, static_cast<size_t>(size), static_cast<off_t>(offset)) != size)
            throw zo::makeErrnoError(errno, "pwrite", zo::String(m_path));
    }
    void finish(zo::int64 size)
    {
        if (::ftruncate(m_fd, static_cast<off_t>(size)) != 0 || ::fsync(m_fd) != 0)
            throw zo::makeErrnoError(errno, "fsync", zo::String(m_path));
    }

private:
    static constexpr int kPage = 4096;
    static size_t roundUpToPage(int size) { return static_cast<size_t>((size + kPage - 1) / kPage * kPage); }

    std::string m_path;
    int m_fd;
    zo::uint8* m_chunk;
    bool m_direct = false;
};

struct Stages {
    Stage read{"reading the image (page cache)"};
    Stage zeroTest{"all-zero test"};
    Stage lookUp{"brick look-up in the disk's chain"};
    Stage compare{"compare with what the disk holds"};
    Stage hmacPlain{"HMAC-SHA256 of the plain bytes"};
    Stage sha256Plain{"SHA-256 of the plain bytes"};
    Stage compress{"LZ4 compress"};
    Stage encrypt{"AES-256-CBC encrypt"};
    Stage hmacFile{"HMAC-SHA256 of the brick file"};
    Stage prepare{"prepare (whole)"};
    Stage store{"storing the brick files (synced, 8 in flight)", CLOCK_PROCESS_CPUTIME_ID};
    Stage readFile{"reading the brick file"};
    Stage decrypt{"AES-256-CBC decrypt"};
    Stage decompress{"LZ4 decompress"};
    Stage unprepare{"unprepare (whole)"};
    Stage writeImage{"writing the image"};
    Stage emptyBrick{"empty brick: zero fill and test"};
    Stage prepareChanged{"prepare (whole), changed bricks"};
    Stage readCold{"reading the image (cold)"};
    Stage syncImage{"fsync of the written image"};
    Stage open{"opening the disk (key derivation)", CLOCK_PROCESS_CPUTIME_ID};
};

struct Counts {
    zo::int64 bricks = 0; // N
    zo::int64 dataBricks = 0; // D
    zo::int64 storedBricks = 0; // S
    zo::int64 changedData = 0; // D'
    zo::int64 changedStored = 0; // S'
    zo::int64 changed = 0; // C
};

class CStageRun {
public:
    CStageRun(const Options& options, const zo::String& password)
        : m_options(options), m_password(password), m_folder(zo::String(options.disk)),
          m_fs(brick::openStore(m_folder, brick::StoreSettings(), false, 1))
    {
        for (int i = 0; i < 3; ++i) {
            const double before = m_stages.open.wall;
            m_stages.open.time([&] {
                m_disk = new brick::CBrickDisk(m_fs.get(), m_folder, m_password, zo::IIOStream::AccessRead, 1);
            });
            m_openSeconds.push_back(m_stages.open.wall - before);
        }
        m_brickSize = static_cast<int>(m_disk->getBrickSize());
        const brick::CBrickDiskHeader& header = m_disk->getHeader();
        if (!header.getCompressID().StartsWith("lz4"))
            throw zo::CError("The stages are those of an lz4 disk; this one compresses with " + header.getCompressID());
        m_lz4 = new zo::CLZ4Compressor(header.getCompressID() == "lz4hc");
        m_cipher = seal::CCipherManager().getCipher(header.getCipherID());
        // A cipher that authenticates its bricks replaces both digests.
        m_sealed = seal::CCipherManager::isAuthenticated(header.getCipherID());
        if (m_sealed) {
            m_stages.encrypt.name = "AES-256-GCM encrypt";
            m_stages.decrypt.name = "AES-256-GCM decrypt";
        }
        const zo::uint8 digestKey[32] = {7};
        m_hmac = seal::createHMACSHA256Context(digestKey, sizeof(digestKey));
        m_sha256 = seal::CDigestManager().getType("sha256")->createContext();
        m_key.setUsed(m_cipher->getKeySize());
        std::memset(m_key.getData(), 5, static_cast<size_t>(m_key.getUsed()));
    }

    void run()
    {
        const brick::CBrickDiskChain chain(m_fs.get(), m_folder);
        const zo::P<brick::CBrickDataPreparer> preparer = m_disk->createDataPreparer();
        CImageFile image(m_options.image);
        std::unique_ptr<CImageFile> changedImage;
        if (!m_options.changedImage.empty())
            changedImage = std::make_unique<CImageFile>(m_options.changedImage);
        CImageOut out(m_options.scratch + "/export.raw", m_brickSize);
        std::vector<std::pair<zo::int64, zo::P<Bytes>>> toStore;

        Bytes plain(m_brickSize), copy(m_brickSize), changedPlain(m_brickSize), decoded(m_brickSize);
        Bytes compressed(m_lz4->getMaxCompressedSize(m_brickSize)), encrypted, decrypted, fileBytes(2 * m_brickSize),
            prepared;
        m_counts.bricks = m_disk->getHeader().getBrickCount();
        for (zo::int64 index = 0; index < m_counts.bricks; ++index) {
            const zo::int64 offset = index * m_brickSize;
            bool data = false;
            m_stages.read.time([&] { data = image.readBrick(offset, plain.getData(), m_brickSize); });
            bool stored = false;
            m_stages.lookUp.time([&] { stored = !chain.locateBrick(m_fs.get(), index).isEmpty(); });
            if (data) {
                ++m_counts.dataBricks;
                m_stages.zeroTest.time(
                    [&] { m_sink = zo::isAllZero(plain.getData(), static_cast<size_t>(m_brickSize)); });
            }
            if (changedImage && changedImage->readBrick(offset, changedPlain.getData(), m_brickSize)) {
                ++m_counts.changedData;
                m_counts.changedStored += stored ? 1 : 0;
                if (std::memcmp(changedPlain.getData(), plain.getData(), static_cast<size_t>(m_brickSize)) != 0) {
                    ++m_counts.changed;
                    m_stages.prepareChanged.time([&] { preparer->prepareData(changedPlain, prepared, index); });
                }
            }
            if (!stored) {
                m_stages.emptyBrick.time([&] {
                    std::memset(decoded.getData(), 0, static_cast<size_t>(m_brickSize));
                    m_sink = zo::isAllZero(decoded.getData(), static_cast<size_t>(m_brickSize));
                });
                continue;
            }
            if (!data)
                throw zo::CError("The disk stores a brick where the image has a hole: it was not imported from it.");
            ++m_counts.storedBricks;
            std::memcpy(copy.getData(), plain.getData(), static_cast<size_t>(m_brickSize));
            m_stages.compare.time(
                [&] { m_sink = std::memcmp(copy.getData(), plain.getData(), static_cast<size_t>(m_brickSize)) == 0; });
            digest(m_stages.hmacPlain, *m_hmac, plain);
            digest(m_stages.sha256Plain, *m_sha256, plain);
            m_stages.compress.time([&] {
                compressed.setUsed(m_lz4->compress(plain.getData(), m_brickSize, compressed.getData(),
                                                   m_lz4->getMaxCompressedSize(m_brickSize)));
            });
            m_stages.encrypt.time(
                [&] { m_cipher->encrypt(m_key, compressed.getData(), compressed.getUsed(), encrypted, false, 0); });
            digest(m_stages.hmacFile, *m_hmac, encrypted);
            m_stages.decrypt.time(
                [&] { m_cipher->decrypt(m_key, encrypted.getData(), encrypted.getUsed(), decrypted, false, 0); });
            m_stages.decompress.time(
                [&] { m_lz4->decompress(decrypted.getData(), decrypted.getUsed(), decoded.getData(), m_brickSize); });
            // Prepared into a buffer that is used again, as the importer's
            // buffers are, and kept as a copy for the store below.
            m_stages.prepare.time([&] { preparer->prepareData(plain, prepared, index); });
            toStore.emplace_back(index, new Bytes(prepared));
            m_stages.readFile.time([&] { readBrickFile(index, fileBytes); });
            m_stages.unprepare.time([&] { preparer->unprepareData(fileBytes, decoded, index); });
            if (std::memcmp(decoded.getData(), plain.getData(), static_cast<size_t>(m_brickSize)) != 0)
                throw zo::CError("The disk holds other bytes than the image: it was not imported from it.");
            m_stages.writeImage.time([&] { out.write(offset, decoded.getData(), m_brickSize); });
        }
        m_stages.syncImage.time([&] { out.finish(m_disk->getSize()); });
        store(toStore);
        if (m_options.cold)
            readCold(image);
    }

    void print() const
    {
        std::printf("| stage | bricks | CPU s | wall s | ms per brick | MB/s of the bricks |\n");
        std::printf("|---|---:|---:|---:|---:|---:|\n");
        const Stage* all[] = {&m_stages.read,        &m_stages.readCold,   &m_stages.lookUp,
                              &m_stages.zeroTest,    &m_stages.compare,    &m_stages.hmacPlain,
                              &m_stages.sha256Plain, &m_stages.compress,   &m_stages.encrypt,
                              &m_stages.hmacFile,    &m_stages.prepare,    &m_stages.prepareChanged,
                              &m_stages.store,       &m_stages.readFile,   &m_stages.decrypt,
                              &m_stages.decompress,  &m_stages.unprepare,  &m_stages.writeImage,
                              &m_stages.syncImage,   &m_stages.emptyBrick, &m_stages.open};
        for (const Stage* stage : all) {
            if (stage->bricks == 0)
                continue;
            const bool perDisk = stage == &m_stages.syncImage || stage == &m_stages.open;
            const double seconds = stage == &m_stages.readCold ? stage->wall : stage->cpu;
            std::printf(
                "| %s | %lld | %.3f | %.3f | %s | %s |\n", stage->name, static_cast<long long>(stage->bricks),
                stage->cpu, stage->wall,
                perDisk ? "" : formatDouble("%.3f", 1e3 * seconds / static_cast<double>(stage->bricks)).c_str(),
                perDisk
                    ? ""
                    : formatDouble("%.0f", static_cast<double>(stage->bricks) * m_brickSize / 1e6 / seconds).c_str());
        }
        const double digests = m_sealed ? 0 : m_stages.hmacPlain.perBrick() + m_stages.hmacFile.perBrick();
        const double sumOfStages = m_stages.compress.perBrick() + m_stages.encrypt.perBrick() + digests;
        const double sumOfUnstages = m_stages.decrypt.perBrick() + m_stages.decompress.perBrick() + digests;
        std::printf("\nbricks: N %lld, D %lld, S %lld", static_cast<long long>(m_counts.bricks),
                    static_cast<long long>(m_counts.dataBricks), static_cast<long long>(m_counts.storedBricks));
        if (!m_options.changedImage.empty())
            std::printf(", D' %lld, S' %lld, C %lld", static_cast<long long>(m_counts.changedData),
                        static_cast<long long>(m_counts.changedStored), static_cast<long long>(m_counts.changed));
        std::printf("\nprepare %.3f ms per brick against %.3f ms for its stages alone; unprepare %.3f against %.3f\n",
                    1e3 * m_stages.prepare.perBrick(), 1e3 * sumOfStages, 1e3 * m_stages.unprepare.perBrick(),
                    1e3 * sumOfUnstages);

        const double open = medianOpenSeconds();
        const double openCpu = m_stages.open.perBrick();
        const double importWork =
            m_stages.read.cpu + m_stages.lookUp.cpu + m_stages.zeroTest.cpu + m_stages.prepare.cpu + m_stages.store.cpu;
        const double exportWork = m_stages.readFile.cpu + m_stages.unprepare.cpu + m_stages.writeImage.cpu +
            m_stages.zeroTest.perBrick() * static_cast<double>(m_counts.storedBricks) +
            m_stages.lookUp.perBrick() * static_cast<double>(m_counts.bricks - m_counts.storedBricks) +
            m_stages.emptyBrick.cpu;
        std::printf("\n| command | work CPU s | two-core limit s | with opening the disk s |\n|---|---:|---:|---:|\n");
        printLimit("import", importWork, open);
        printLimit("export", exportWork, open);
        double reimportWork = 0;
        if (!m_options.changedImage.empty()) {
            const double stored = static_cast<double>(m_counts.changedStored);
            reimportWork = m_stages.read.cpu + m_stages.lookUp.cpu +
                m_stages.zeroTest.perBrick() * static_cast<double>(m_counts.changedData) +
                stored * (m_stages.readFile.perBrick() + m_stages.unprepare.perBrick() + m_stages.compare.perBrick()) +
                m_stages.prepareChanged.cpu + static_cast<double>(m_counts.changed) * m_stages.store.perBrick();
            printLimit("re-import", reimportWork, open);
        }
        std::printf("\nlimit open %.3f\nlimit import %.3f\nlimit export %.3f\n", open, importWork / 2 + open,
                    exportWork / 2 + open);
        std::printf("cpu import %.3f\ncpu export %.3f\n", importWork + openCpu, exportWork + openCpu);
        if (!m_options.changedImage.empty())
            std::printf("limit reimport %.3f\ncpu reimport %.3f\n", reimportWork / 2 + open, reimportWork + openCpu);
    }

private:
    static void digest(Stage& stage, seal::IDigestContext& context, const Bytes& bytes)
    {
        stage.time([&] {
            context.reset();
            context.update(bytes.getData(), bytes.getUsed());
            context.finish();
        });
    }

    static std::string formatDouble(const char* format, double value)
    {
        char text[64];
        std::snprintf(text, sizeof(text), format, value);
        return text;
    }

    // The wall-clock median of the openings.
    double medianOpenSeconds() const
    {
        std::vector<double> sorted = m_openSeconds;
        std::sort(sorted.begin(), sorted.end());
        return sorted[sorted.size() / 2];
    }

    static void printLimit(const char* command, double work, double open)
    {
        std::printf("| %s | %.3f | %.3f | %.3f |\n", command, work, work / 2, work / 2 + open);
    }

    void readBrickFile(zo::int64 index, Bytes& bytes)
    {
        const zo::CURI file = m_folder << brick::CBrickTree::getRelativeBrickURI(m_disk->getHeader(), index);
        const zo::P<zo::IIOStream> stream = m_fs->openStream(file, zo::IIOStream::AccessRead, 0);
        bytes.setUsed(bytes.getCapacity());
        bytes.setUsed(stream->readLax(bytes.getData(), bytes.getUsed()));
    }

    // Stores the prepared bricks into a new unencrypted scratch disk with the
    // file system threads and stores in flight of an import with two jobs.
    void store(const std::vector<std::pair<zo::int64, zo::P<Bytes>>>& bricks)
    {
        const zo::P<zo::CLocalFileSystem> fs(new zo::CLocalFileSystem(4));
        const zo::CURI folder(zo::String(m_options.scratch + "/store-disk"));
        brick::CBrickDisk::create(fs.get(), folder, m_disk->getSize(), 1, "", "null", m_brickSize);
        brick::CBrickDisk disk(fs.get(), folder, "", zo::IIOStream::AccessReadWrite, 8);
        m_stages.store.time(
            [&] {
                for (const auto& [index, prepared] : bricks) {
                    disk.seek(index * m_brickSize);
                    disk.writePreparedBrickData(prepared.get(), nullptr);
                }
                disk.flushChanges();
            },
            static_cast<zo::int64>(bricks.size()));
        if (disk.getBackgroundErrorList().size() != 0)
            throw zo::CError("Storing a brick file into the scratch disk failed.");
    }

    void readCold(CImageFile& image)
    {
        image.dropCache();
        Bytes plain(m_brickSize);
        for (zo::int64 index = 0; index < m_counts.bricks; ++index)
            m_stages.readCold.time([&] { image.readBrick(index * m_brickSize, plain.getData(), m_brickSize); });
    }

    const Options& m_options;
    const zo::String m_password;
    const zo::CURI m_folder;
    const zo::P<zo::IFileSystem> m_fs;
    zo::P<brick::CBrickDisk> m_disk;
    int m_brickSize = 0;
    zo::P<zo::CLZ4Compressor> m_lz4;
    zo::P<seal::ICipher> m_cipher;
    bool m_sealed = false;
    zo::P<seal::IDigestContext> m_hmac;
    zo::P<seal::IDigestContext> m_sha256;
    zo::TCryptBuffer<zo::uint8> m_key;
    Stages m_stages;
    Counts m_counts;
    std::vector<double> m_openSeconds;
    // Where the results of tests go, so that the compiler keeps them.
    volatile bool m_sink = false;
};

} // namespace

int main(int argc, char** argv)
{
    const Options options = parseOptions(argc, argv);
    try {
        CStageRun run(options, readPassword(options.passwordFile));
        run.run();
        run.print();
    } catch (const zo::CError& e) {
        std::fprintf(stderr, "ImportExportLimit: %s\n", e.what());
        return 1;
    }
    return 0;
}
