#include "brick/chain/Brick.h"

#include "brick/format/BrickTree.h"

#include "zo/Log.h"
#include "zo/Time.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace brick {

using zo::String;

CBrick::CBrick(IFileSystem* fs, const CURI& diskFolder, const CURI& childFolder, const zo::TList<CURI>& parentFolders,
               const CBrickDiskHeader& header, const zo::TCryptBuffer<uint8>& cipherKey, int maxBackgroundOps)
    : CBrick(P<CBrickReader>(new CBrickReader(fs, CBrickReader::chainOf(diskFolder, parentFolders), header, cipherKey))
                 .get(),
             childFolder, maxBackgroundOps)
{}

CBrick::CBrick(CBrickReader* reader, const CURI& childFolder, int maxBackgroundOps)
    : CBrick(reader, P<CBrickStoreQueue>(new CBrickStoreQueue(reader, childFolder, maxBackgroundOps)).get())
{}

CBrick::CBrick(CBrickReader* reader, CBrickStoreQueue* storeQueue)
    : m_reader(reader), m_fs(reader->getFileSystem()), m_diskFolder(reader->getDiskFolder()),
      m_header(reader->getHeader()), m_storeQueue(storeQueue)
{
    m_preparer = reader->createDataPreparer();
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
    return m_reader->holds(m_brickIndex, plain, prepared);
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

bool CBrick::loadFromSearchFolders()
{
    return m_reader->read(m_brickIndex, m_payload).content != CBrickReader::Content::Hole;
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
