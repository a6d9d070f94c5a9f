#include "BrickFileCheck.h"

#include "zo/Error.h"

#include <cstring>

namespace cli {

namespace {

constexpr char kBrickFileID[] = "BRICK";
// "BRICK", the version to read with and the version written with.
constexpr int kFixedHeaderSize = 5 + 2 + 2;
// Keyed digests: the brick index follows the versions; each digest is 32 bytes.
constexpr int kKeyedMinimumSize = kFixedHeaderSize + 8 + 2 * 32;

bool isKeyed(const brick::CBrickDiskHeader& header)
{
    return header.getCheckSumHashID() == brick::CBrickDisk::kAuthenticatedCheckSumID;
}

} // namespace

CBrickFileChecker::CBrickFileChecker(zo::IFileSystem* fs, const brick::CBrickDiskHeader& header,
                                     brick::CBrickDisk* disk)
    : m_fs(fs), m_brickSize(header.getBrickSize()),
      m_digest(isKeyed(header) ? nullptr : seal::CDigestManager().getType(header.getCheckSumHashID())->createContext()),
      m_minimumSize(m_digest ? kFixedHeaderSize + 2 * m_digest->getSize() : kKeyedMinimumSize)
{
    if (disk)
        m_preparer = disk->createDataPreparer();
}

std::string CBrickFileChecker::checkOuter(const zo::TBuffer<zo::uint8>& bytes)
{
    if (bytes.getUsed() < m_minimumSize)
        return "too short to be a brick file (" + std::to_string(bytes.getUsed()) + " bytes)";
    if (std::memcmp(bytes.getData(), kBrickFileID, sizeof(kBrickFileID) - 1) != 0)
        return "is not a brick file (it does not start with BRICK)";
    // Keyed digests are checked when the data are read, with the key.
    if (!m_digest)
        return std::string();
    const int digestSize = m_digest->getSize();
    const int covered = bytes.getUsed() - digestSize;
    m_digest->reset();
    m_digest->update(bytes.getData(), covered);
    m_digest->finish();
    if (std::memcmp(m_digest->getDigest(), bytes.getData() + covered, static_cast<size_t>(digestSize)) != 0)
        return "damaged: its outer digest does not match its content";
    return std::string();
}

std::string CBrickFileChecker::check(const brick::CBrickTree::BrickFile& file)
{
    try {
        const zo::P<zo::IIOStream> stream = m_fs->openStream(file.path, zo::IIOStream::AccessRead, 0);
        m_bytes.setUsed(static_cast<int>(file.size));
        m_bytes.setUsed(stream->readLax(m_bytes.getData(), m_bytes.getUsed()));
    } catch (const zo::CError& e) {
        return "cannot be read: " + e.toString().toUTF8();
    }
    std::string verdict = checkOuter(m_bytes);
    if (!verdict.empty() || !m_preparer)
        return verdict;
    try {
        m_plain.setUsed(0);
        m_preparer->unprepareData(m_bytes, m_plain, file.index);
    } catch (const zo::CError& e) {
        const zo::String storedIndex = e.getProps().lookup("storedBrickIndex");
        if (!storedIndex.isEmpty())
            return "at the wrong index: it is the brick file of brick " + storedIndex.toUTF8() +
                   " (moved or copied here)";
        if (!m_digest && std::string(e.what()) == "Brick file is corrupted.")
            return "damaged: its keyed digest does not match its content";
        return "its data do not decode: " + e.toString().toUTF8();
    }
    if (m_plain.getUsed() != m_brickSize)
        return "decodes to " + std::to_string(m_plain.getUsed()) + " bytes instead of " + std::to_string(m_brickSize);
    return std::string();
}

} // namespace cli
