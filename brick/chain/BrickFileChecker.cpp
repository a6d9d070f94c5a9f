#include "brick/chain/BrickFileChecker.h"

#include "brick/detail/BrickFileLayout.h"
#include "seal/Cipher.h"
#include "zo/Error.h"

#include <cstring>

namespace brick {

namespace {

bool isKeyed(const CBrickDiskHeader& header)
{
    return header.getCheckSumHashID() == CBrickDiskHeader::kAuthenticatedCheckSumID;
}

// The smallest brick file of the disk's format: its fixed fields and nothing encrypted.
int minimumFileSize(const CBrickDiskHeader& header, const seal::IDigestContext* digest)
{
    if (digest)
        return layout::kFixedHeaderSize + 2 * digest->getSize();
    if (seal::CCipherManager::isAuthenticated(header.getCipherID()))
        return layout::kSealedHeaderSize + layout::kSealedTagSize;
    return layout::kFixedHeaderSize + layout::kBrickIndexSize + 2 * layout::kIndexBoundDigestSize;
}

zo::String decimal(zo::int64 value)
{
    return zo::toDecimalString(value);
}

} // namespace

CBrickFileChecker::CBrickFileChecker(zo::IFileSystem* fs, const CBrickDiskHeader& header, CBrickDisk* disk)
    : m_fs(fs), m_brickSize(header.getBrickSize()),
      m_digest(isKeyed(header) ? nullptr : seal::CDigestManager().getType(header.getCheckSumHashID())->createContext()),
      m_minimumSize(minimumFileSize(header, m_digest.get()))
{
    if (disk)
        m_reader = disk->getBrickReader();
}

zo::String CBrickFileChecker::checkOuter(const zo::TBuffer<zo::uint8>& bytes)
{
    if (bytes.getUsed() < m_minimumSize)
        return "too short to be a brick file (" + decimal(bytes.getUsed()) + " bytes)";
    if (std::memcmp(bytes.getData(), layout::kBrickFileID, layout::kBrickFileIDSize) != 0)
        return "is not a brick file (it does not start with BRICK)";
    // Keyed digests are checked when the data are decoded, with the key.
    if (!m_digest)
        return zo::String();
    const int digestSize = m_digest->getSize();
    const int covered = bytes.getUsed() - digestSize;
    m_digest->reset();
    m_digest->update(bytes.getData(), covered);
    m_digest->finish();
    if (std::memcmp(m_digest->getDigest(), bytes.getData() + covered, static_cast<size_t>(digestSize)) != 0)
        return "damaged: its outer digest does not match its content";
    return zo::String();
}

zo::String CBrickFileChecker::check(const CBrickTree::BrickFile& file)
{
    try {
        const zo::P<zo::IIOStream> stream = m_fs->openStream(file.path, zo::IIOStream::AccessRead, 0);
        m_bytes.setUsed(static_cast<int>(file.size));
        m_bytes.setUsed(stream->readLax(m_bytes.getData(), m_bytes.getUsed()));
    } catch (const zo::CError& e) {
        return "cannot be read: " + e.toString();
    }
    zo::String verdict = checkOuter(m_bytes);
    if (!verdict.isEmpty() || !m_reader)
        return verdict;
    try {
        m_reader->decode(file.index, m_bytes, m_plain);
    } catch (const zo::CError& e) {
        if (CBrickDataPreparer::isError(e, CBrickDataPreparer::WrongBrickIndex))
            return "at the wrong index: it is the brick file of brick " + e.getProps().lookup("storedBrickIndex") +
                " (moved or copied here)";
        if (!m_digest && CBrickDataPreparer::isError(e, CBrickDataPreparer::CorruptedFile))
            return "damaged: its keyed digest does not match its content";
        return "its data do not decode: " + e.toString();
    }
    if (m_plain.getUsed() != m_brickSize)
        return "decodes to " + decimal(m_plain.getUsed()) + " bytes instead of " + decimal(m_brickSize);
    return zo::String();
}

} // namespace brick
