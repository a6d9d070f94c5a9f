#include "brick/Brick.h"

#include "brick/BrickTree.h"

#include "zo/Log.h"
#include "zo/Time.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace brick {

using zo::CFileSystemError;
using zo::String;

CBrick::CBrick(IFileSystem* fs, const CURI& diskFolder, const CURI& childFolder, const zo::TList<CURI>& parentFolders,
               const CBrickDiskHeader& header, const zo::TCryptBuffer<uint8>& cipherKey, int maxBackgroundOps)
    : CBrick(fs, diskFolder, parentFolders, header, cipherKey,
             P<CBrickStoreQueue>(new CBrickStoreQueue(fs, diskFolder, childFolder, parentFolders, header, cipherKey,
                                                      maxBackgroundOps))
                 .get())
{
}

CBrick::CBrick(IFileSystem* fs, const CURI& diskFolder, const zo::TList<CURI>& parentFolders,
               const CBrickDiskHeader& header, const zo::TCryptBuffer<uint8>& cipherKey, CBrickStoreQueue* storeQueue)
    : m_fs(fs), m_diskFolder(diskFolder), m_header(header), m_storeQueue(storeQueue)
{
    m_searchFolders.reserve(parentFolders.size() + 1);
    m_searchFolders.push_back(diskFolder);
    m_searchFolders.insert(m_searchFolders.end(), parentFolders.begin(), parentFolders.end());
    m_preparer = P<CBrickDataPreparer>(new CBrickDataPreparer(m_header, cipherKey));
    m_maxPreparedSize = static_cast<int64>(m_header.getBrickSize() * 1.1 + 1024.0);
    const int pooled = storeQueue ? storeQueue->getMaxStores() + 2 : 2;
    m_bufferPool = P<zo::CMemPool>(new zo::CMemPool(pooled, static_cast<int>(m_maxPreparedSize), 1));
}

CBrick::~CBrick()
{
    try {
        backgroundSaveChanges();
        waitUntilBackgroundSavesDone(-1);
    } catch (const std::exception& e) {
        zo::onExceptionInDestructorIgnored("brick::CBrick", e, true);
    }
}

void CBrick::seek(int64 brickIndex, int positionInBrick)
{
    if (brickIndex != m_brickIndex) {
        backgroundSaveChanges();
        m_brickIndex = brickIndex;
        m_payloadLoaded = false;
    }
    m_positionInBrick = positionInBrick;
}

int CBrick::readLaxInsideBrick(void* dst, int size)
{
    if (!m_payloadLoaded)
        loadBrickPayload();
    const int n = std::max(0, std::min(size, m_payload.getUsed() - static_cast<int>(m_positionInBrick)));
    if (n > 0)
        std::memcpy(dst, m_payload.getData() + m_positionInBrick, static_cast<size_t>(n));
    m_positionInBrick += n;
    return n;
}

bool CBrick::isStored()
{
    if (!m_payloadLoaded)
        loadBrickPayload();
    return m_payloadStored;
}

int CBrick::writeLaxInsideBrick(const void* src, int size)
{
    if (m_positionInBrick == 0 && size == m_header.getBrickSize()) {
        m_payload.setUsed(size);
        if (size > 0)
            std::memcpy(m_payload.getData(), src, static_cast<size_t>(size));
        m_payloadLoaded = true;
        m_payloadStored = true;
        m_positionInBrick += size;
        if (size > 0)
            m_payloadDirty = true;
        return size;
    }
    if (!m_payloadLoaded)
        loadBrickPayload();
    const int n = std::max(0, std::min(size, m_payload.getUsed() - static_cast<int>(m_positionInBrick)));
    if (n > 0) {
        std::memcpy(m_payload.getData() + m_positionInBrick, src, static_cast<size_t>(n));
        m_payloadDirty = true;
    }
    m_positionInBrick += n;
    return n;
}

P<CBrickStorer> CBrick::writePreparedBrick(const TBuffer<uint8>* prepared, IDoneListener* listener)
{
    P<CBrickStorer> storer = storeQueue().store(m_brickIndex, prepared, listener);
    m_payload.setUsed(0);
    m_payloadDirty = false;
    m_payloadLoaded = false;
    return storer;
}

bool CBrick::storedFileHolds(const TBuffer<uint8>& plain, const TBuffer<uint8>* prepared)
{
    const CURI file = m_diskFolder << getRelativeBrickURI();
    try {
        if (!prepared)
            return m_searchFolders.size() == 1 && !m_fs->pathExists(file);
        const int headSize = m_preparer->getPlainDigestEnd();
        if (m_preparer->hasPlainDigest() && prepared->getUsed() < headSize)
            return false;
        if (m_preparer->hasPlainDigest()) {
            const P<zo::IIOStream> stream = m_fs->openStream(file, zo::IIOStream::AccessRead, 0);
            TBuffer<uint8> head;
            head.setUsed(headSize);
            if (stream->readLax(head.getData(), headSize) != headSize ||
                !m_preparer->haveSamePlainDigest(head.getData(), prepared->getData()))
                return false;
        }
        const P<zo::CMemPoolBuffer> stored = readBrickFile(m_diskFolder);
        if (!stored)
            return false;
        TBuffer<uint8> storedPlain;
        m_preparer->unprepareData(*stored, storedPlain, m_brickIndex);
        return storedPlain.getUsed() == plain.getUsed() &&
               std::memcmp(storedPlain.getData(), plain.getData(), static_cast<size_t>(plain.getUsed())) == 0;
    } catch (const std::exception&) {
        // Missing, unreadable or damaged: storing the brick is the answer.
        return false;
    }
}

CURI CBrick::getRelativeBrickURI()
{
    return CBrickTree::getRelativeBrickURI(m_header, m_brickIndex);
}

void CBrick::loadBrickPayload()
{
    try {
        m_payloadStored = loadFromStoreQueue() || loadFromSearchFolders();
        if (!m_payloadStored)
            fillPayloadWithZeros();
    } catch (const std::exception& e) {
        zo::logError(e,
                     "Error loading brick payload (diskFolder:" + m_diskFolder.toString(true) +
                         ", brickIndex:" + zo::toDecimalString(m_brickIndex) + "). Letting through.",
                     String::getEmptyString());
        throw;
    }
    m_payloadLoaded = true;
}

bool CBrick::loadFromStoreQueue()
{
    if (!m_storeQueue)
        return false;
    const std::optional<CBrickStoreQueue::Store> store = m_storeQueue->getStoreOf(m_brickIndex);
    if (!store)
        return false;
    const PC<TBuffer<uint8>> prepared = store->prepared;
    if (!prepared) {
        fillPayloadWithZeros();
    } else {
        m_payload.setUsed(0);
        m_preparer->unprepareData(*prepared, m_payload, m_brickIndex);
    }
    return true;
}

// A parent disk may be written by another process or thread while this disk
// reads it (a snapshot read while its origin changes). Its writer always
// copies a brick's old file into the child before it replaces the brick, so a
// file taken from an ancestor's folder is the right version only if the nearer
// folders still lack the brick after the file was read: had the writer
// replaced the file in the meantime, the nearer folder would already hold the
// old copy. So after each read from an ancestor the nearer folders are looked
// at again, and when one of them has gained the brick it is read from there.
bool CBrick::loadFromSearchFolders()
{
    const std::vector<CURI>& folders = m_searchFolders;
    const CURI relativeURI = getRelativeBrickURI();
    size_t first = 0;
    // Each legitimate retry reads from a nearer folder than the one before, so
    // there are fewer retries than folders; past that a file that is listed
    // but cannot be read is taken as missing, as on the first pass.
    for (size_t attempt = 0;; ++attempt) {
        P<zo::CMemPoolBuffer> file;
        size_t found = first;
        for (; found < folders.size() && !file; ++found)
            file = readBrickFile(folders[found]);
        if (!file)
            return false;
        --found;
        size_t nearer = 0;
        if (attempt < folders.size()) {
            while (nearer < found && !m_fs->fileExists(folders[nearer] << relativeURI))
                ++nearer;
        } else {
            nearer = found;
        }
        if (nearer == found) {
            m_payload.setUsed(0);
            m_preparer->unprepareData(*file, m_payload, m_brickIndex);
            return true;
        }
        first = nearer;
    }
}

P<zo::CMemPoolBuffer> CBrick::readBrickFile(const CURI& folder)
{
    try {
        P<zo::IIOStream> stream = m_fs->openStream(folder << getRelativeBrickURI(), zo::IIOStream::AccessRead, 0);
        P<zo::CMemPoolBuffer> buffer = m_bufferPool->checkOutItem();
        buffer->setUsed(static_cast<int>(m_maxPreparedSize));
        buffer->setUsed(stream->readLax(buffer->getData(), static_cast<int>(m_maxPreparedSize)));
        return buffer;
    } catch (const CFileSystemError& e) {
        // NotAFolder: a file stands where a folder of the path belongs, so
        // no brick file can be there either.
        if (e.getProblem() == CFileSystemError::NotFound || e.getProblem() == CFileSystemError::NotAFolder)
            return P<zo::CMemPoolBuffer>();
        throw;
    }
}

void CBrick::fillPayloadWithZeros()
{
    m_payload.setUsed(m_header.getBrickSize());
    if (m_payload.getUsed() > 0)
        std::memset(m_payload.getData(), 0, static_cast<size_t>(m_payload.getUsed()));
}

void CBrick::backgroundSaveChanges()
{
    if (!m_payloadDirty)
        return;
    P<zo::CMemPoolBuffer> prepared;
    if (!zo::isAllZero(m_payload.getData(), static_cast<size_t>(m_payload.getUsed()))) {
        prepared = m_bufferPool->checkOutItem();
        prepared->setUsed(0);
        m_preparer->prepareData(m_payload, *prepared, m_brickIndex);
    }
    try {
        storeQueue().store(m_brickIndex, prepared.get(), nullptr);
    } catch (const CError&) {
        // Logged and recorded by the queue.
    }
    m_payloadDirty = false;
}

CBrickStoreQueue& CBrick::storeQueue() const
{
    if (!m_storeQueue)
        throw CError("The brick object cannot save: its disk is open for reading only.", String(), -1,
                     zo::CProps().add("diskFolder", m_diskFolder.toString(true)).add("brickIndex", m_brickIndex));
    return *m_storeQueue;
}

bool CBrick::waitForFreeBackgroundOpSlot(int timeoutMillis)
{
    return !m_storeQueue || m_storeQueue->waitForFreeSlot(timeoutMillis);
}

bool CBrick::waitUntilBackgroundSavesDone(int timeoutMillis)
{
    return !m_storeQueue || m_storeQueue->waitForAll(timeoutMillis);
}

const zo::TList<CBrick::Error>& CBrick::getBackgroundErrorList()
{
    if (m_storeQueue) {
        const std::vector<Error> failures = m_storeQueue->getFailures();
        m_backgroundErrors.assign(failures.begin(), failures.end());
    }
    return m_backgroundErrors;
}

int CBrick::getBackgroundSavesInProgress()
{
    return m_storeQueue ? m_storeQueue->getStoresInFlight() : 0;
}

bool CBrick::haveBackgroundErrors()
{
    return m_storeQueue && m_storeQueue->hasFailures();
}

} // namespace brick
