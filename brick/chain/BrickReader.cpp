#include "brick/chain/BrickReader.h"

#include "brick/format/BrickTree.h"

#include "zo/Error.h"

#include <cstring>
#include <map>
#include <set>

namespace brick {

using zo::CFileSystemError;
using zo::CURI;
using zo::int64;
using zo::P;
using zo::TBuffer;
using zo::uint8;

// Lends a preparer of the reader's pool to one call and gives it back when
// the call ends, also when it throws.
class CBrickReader::CPreparerLoan {
public:
    explicit CPreparerLoan(const CBrickReader& reader) : m_reader(reader)
    {
        {
            std::lock_guard lock(m_reader.m_mutex);
            if (!m_reader.m_idlePreparers.empty()) {
                m_preparer = m_reader.m_idlePreparers.back();
                m_reader.m_idlePreparers.pop_back();
            }
        }
        if (!m_preparer)
            m_preparer = m_reader.createDataPreparer();
    }
    CPreparerLoan(const CPreparerLoan&) = delete;
    CPreparerLoan& operator=(const CPreparerLoan&) = delete;
    ~CPreparerLoan()
    {
        std::lock_guard lock(m_reader.m_mutex);
        m_reader.m_idlePreparers.push_back(m_preparer);
    }

    CBrickDataPreparer* operator->() const { return m_preparer.get(); }

private:
    const CBrickReader& m_reader;
    P<CBrickDataPreparer> m_preparer;
};

CBrickReader::CBrickReader(zo::IFileSystem* fs, const std::vector<CURI>& chainFolders, const CBrickDiskHeader& header,
                           const zo::TCryptBuffer<uint8>& cipherKey)
    : m_fs(fs), m_folders(chainFolders), m_header(header), m_cipherKey(cipherKey),
      m_maxFileSize(static_cast<int>(header.getBrickSize() * 1.1 + 1024.0))
{
    if (m_folders.empty())
        throw zo::CInvalidArgError("CBrickReader::CBrickReader", "A chain has at least the disk's own folder.");
    m_fileBuffers = P<zo::CMemPool>(new zo::CMemPool(0, m_maxFileSize, 1));
    // The header's cipher, digest and compressor are checked now, not at the
    // first read.
    m_idlePreparers.push_back(createDataPreparer());
}

P<CBrickDataPreparer> CBrickReader::createDataPreparer() const
{
    return P<CBrickDataPreparer>(new CBrickDataPreparer(m_header, m_cipherKey));
}

CBrickReader::Location CBrickReader::locate(int64 brickIndex) const
{
    return locateIn(m_fs.get(), m_folders, m_header, brickIndex);
}

std::vector<CURI> CBrickReader::chainOf(const CURI& diskFolder, const zo::TList<CURI>& parentFolders)
{
    std::vector<CURI> folders{diskFolder};
    folders.insert(folders.end(), parentFolders.begin(), parentFolders.end());
    return folders;
}

CBrickReader::Location CBrickReader::locateIn(zo::IFileSystem* fs, const std::vector<CURI>& chainFolders,
                                              const CBrickDiskHeader& header, int64 brickIndex)
{
    const CURI relative = CBrickTree::getRelativeBrickURI(header, brickIndex);
    for (size_t depth = 0; depth < chainFolders.size(); ++depth) {
        const CURI file = chainFolders[depth] << relative;
        if (fs->fileExists(file))
            return Location{static_cast<int>(depth), chainFolders[depth], file};
    }
    return Location();
}

std::vector<bool> CBrickReader::holdFiles(const std::vector<int64>& brickIndexes) const
{
    // Listing a folder costs more than asking for one file, so only folders
    // that several of the bricks share are listed.
    constexpr size_t kListFromBricks = 4;
    std::map<CURI, std::vector<size_t>> byFolder;
    std::vector<CURI> relatives;
    relatives.reserve(brickIndexes.size());
    for (size_t i = 0; i < brickIndexes.size(); ++i) {
        relatives.push_back(CBrickTree::getRelativeBrickURI(m_header, brickIndexes[i]));
        byFolder[relatives.back().getParent()].push_back(i);
    }
    std::vector<bool> held(brickIndexes.size(), false);
    for (const auto& [folder, members] : byFolder) {
        if (members.size() < kListFromBricks || !holdFilesListed(folder, members, relatives, held)) {
            for (size_t i : members)
                held[i] = !locate(brickIndexes[i]).isHole();
        }
    }
    return held;
}

bool CBrickReader::holdFilesListed(const CURI& folder, const std::vector<size_t>& members,
                                   const std::vector<CURI>& relatives, std::vector<bool>& held) const
{
    std::vector<bool> found(members.size(), false);
    for (const CURI& diskFolder : m_folders) {
        std::set<zo::String> names;
        try {
            for (const zo::String& name : m_fs->listFolder(diskFolder << folder))
                names.insert(name);
        } catch (const CFileSystemError& e) {
            if (e.getProblem() != CFileSystemError::NotFound && e.getProblem() != CFileSystemError::NotAFolder)
                return false;
        } catch (const zo::CError&) {
            return false;
        }
        for (size_t m = 0; m < members.size(); ++m)
            found[m] = found[m] || names.count(relatives[members[m]].getName()) > 0;
    }
    for (size_t m = 0; m < members.size(); ++m)
        held[members[m]] = found[m];
    return true;
}

CBrickReader::Found CBrickReader::read(int64 brickIndex, TBuffer<uint8>& dst) const
{
    const CURI relative = CBrickTree::getRelativeBrickURI(m_header, brickIndex);
    const int depths = static_cast<int>(m_folders.size());
    int first = 0;
    // Each legitimate retry reads from a nearer disk than the one before, so
    // there are fewer retries than disks; past that a file that is listed but
    // cannot be read is taken as missing, as on the first pass.
    for (int attempt = 0;; ++attempt) {
        P<zo::CMemPoolBuffer> file;
        int found = first;
        for (; found < depths && !file; ++found)
            file = readFile(found, brickIndex);
        if (!file) {
            dst.setUsed(m_header.getBrickSize());
            if (dst.getUsed() > 0)
                std::memset(dst.getData(), 0, static_cast<size_t>(dst.getUsed()));
            return Found();
        }
        --found;
        int nearer = 0;
        if (attempt < depths) {
            while (nearer < found && !m_fs->fileExists(m_folders[static_cast<size_t>(nearer)] << relative))
                ++nearer;
        } else {
            nearer = found;
        }
        if (nearer == found) {
            decode(brickIndex, *file, dst);
            const bool zero = zo::isAllZero(dst.getData(), static_cast<size_t>(dst.getUsed()));
            return Found{zero ? Content::Zero : Content::Data, found};
        }
        first = nearer;
    }
}

void CBrickReader::decode(int64 brickIndex, const TBuffer<uint8>& fileBytes, TBuffer<uint8>& dst) const
{
    const CPreparerLoan preparer(*this);
    dst.setUsed(0);
    preparer->unprepareData(fileBytes, dst, brickIndex);
}

bool CBrickReader::holds(int64 brickIndex, const TBuffer<uint8>& plain, const TBuffer<uint8>* prepared) const
{
    const CURI file = getDiskFolder() << CBrickTree::getRelativeBrickURI(m_header, brickIndex);
    try {
        if (!prepared)
            return m_folders.size() == 1 && !m_fs->pathExists(file);
        const CPreparerLoan preparer(*this);
        if (preparer->hasPlainDigest()) {
            const int headSize = preparer->getPlainDigestEnd();
            if (prepared->getUsed() < headSize)
                return false;
            const P<zo::IIOStream> stream = m_fs->openStream(file, zo::IIOStream::AccessRead, 0);
            TBuffer<uint8> head;
            head.setUsed(headSize);
            if (stream->readLax(head.getData(), headSize) != headSize ||
                !preparer->haveSamePlainDigest(head.getData(), prepared->getData()))
                return false;
        }
        const P<zo::CMemPoolBuffer> stored = readFile(0, brickIndex);
        if (!stored)
            return false;
        TBuffer<uint8> storedPlain;
        preparer->unprepareData(*stored, storedPlain, brickIndex);
        return storedPlain.getUsed() == plain.getUsed() &&
            std::memcmp(storedPlain.getData(), plain.getData(), static_cast<size_t>(plain.getUsed())) == 0;
    } catch (const std::exception&) {
        // Missing, unreadable or damaged: storing the brick is the answer.
        return false;
    }
}

P<zo::CMemPoolBuffer> CBrickReader::readFile(int depth, int64 brickIndex) const
{
    if (depth < 0 || depth >= static_cast<int>(m_folders.size()))
        throw zo::CInvalidArgError(
            "CBrickReader::readFile", "The depth lies outside the chain.",
            zo::CProps().add("depth", depth).add("chainLength", static_cast<int64>(m_folders.size())));
    const CURI file = m_folders[static_cast<size_t>(depth)] << CBrickTree::getRelativeBrickURI(m_header, brickIndex);
    try {
        const P<zo::IIOStream> stream = m_fs->openStream(file, zo::IIOStream::AccessRead, 0);
        P<zo::CMemPoolBuffer> buffer = m_fileBuffers->checkOutItem();
        buffer->setUsed(m_maxFileSize);
        buffer->setUsed(stream->readLax(buffer->getData(), m_maxFileSize));
        return buffer;
    } catch (const CFileSystemError& e) {
        // NotAFolder: a file stands where a folder of the path belongs, so
        // no brick file can be there either.
        if (e.getProblem() == CFileSystemError::NotFound || e.getProblem() == CFileSystemError::NotAFolder)
            return P<zo::CMemPoolBuffer>();
        throw;
    }
}

} // namespace brick
