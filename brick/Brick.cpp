#include "brick/Brick.h"

#include "brick/BrickTree.h"

#include "zo/Log.h"
#include "zo/Time.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace brick {

using zo::String;

namespace {

std::vector<CURI> chainOf(const CURI& diskFolder, const zo::TList<CURI>& parentFolders)
{
    std::vector<CURI> folders{diskFolder};
    folders.insert(folders.end(), parentFolders.begin(), parentFolders.end());
    return folders;
}

} // namespace

CBrick::CBrick(IFileSystem* fs, const CURI& diskFolder, const CURI& childFolder, const zo::TList<CURI>& parentFolders,
               const CBrickDiskHeader& header, const zo::TCryptBuffer<uint8>& cipherKey, int maxBackgroundOps)
    : CBrick(P<CBrickReader>(new CBrickReader(fs, chainOf(diskFolder, parentFolders), header, cipherKey)).get(),
             childFolder, maxBackgroundOps)
{
}

CBrick::CBrick(CBrickReader* reader, const CURI& childFolder, int maxBackgroundOps)
    : m_reader(reader), m_fs(reader->getFileSystem()), m_diskFolder(reader->getDiskFolder()),
      m_childFolder(childFolder), m_searchFolders(reader->getChainFolders()), m_header(reader->getHeader()),
      m_maxBackgroundOps(std::max(1, maxBackgroundOps))
{
    m_preparer = reader->createDataPreparer();
    m_maxPreparedSize = static_cast<int64>(m_header.getBrickSize() * 1.1 + 1024.0);
    m_bufferPool = P<zo::CMemPool>(new zo::CMemPool(m_maxBackgroundOps + 2, static_cast<int>(m_maxPreparedSize), 1));

    TBuffer<uint8> zeros(m_header.getBrickSize());
    if (zeros.getUsed() > 0)
        std::memset(zeros.getData(), 0, static_cast<size_t>(zeros.getUsed()));
    m_preparedZeroBrick = m_bufferPool->checkOutItem();
    m_preparer->prepareData(zeros, *m_preparedZeroBrick, m_zeroBrickIndex);
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
    P<CBrickStorer> storer = writePreparedBrickImpl(prepared, listener);
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
        const P<zo::CMemPoolBuffer> stored = m_reader->readFile(0, m_brickIndex);
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
        m_payloadStored = loadFromStorer() || loadFromSearchFolders();
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

bool CBrick::loadFromStorer()
{
    const auto it = m_storers.find(m_brickIndex);
    if (it == m_storers.end())
        return false;
    const PC<TBuffer<uint8>> prepared = it->second->getBrickData();
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

// A disk between a parent and a child shows, where it has no file of its own,
// the brick of its nearest parent, and so does its child. Before such a brick
// is written, the child receives a copy of that parent's file: the storer then
// finds the brick already present in the child and leaves it there, so the
// child keeps reading what it read before (instead of the zeros the storer
// would give a child when this disk has no old file to copy).
void CBrick::copyParentBrickIntoChild(const CURI& relativeURI)
{
    if (m_childFolder.isEmpty() || m_searchFolders.size() < 2)
        return;
    if (m_fs->pathExists(m_diskFolder << relativeURI) || m_fs->pathExists(m_childFolder << relativeURI))
        return;
    for (size_t depth = 1; depth < m_searchFolders.size(); ++depth) {
        const auto fail = [&](const CError& cause) {
            throw CError("Copying a parent disk's brick into the child disk failed.", String(), -1,
                         zo::CProps()
                             .add("brickIndex", m_brickIndex)
                             .add("parentFile", (m_searchFolders[depth] << relativeURI).toString(true))
                             .add("childFolder", m_childFolder.toString(true)),
                         &cause);
        };
        P<zo::CMemPoolBuffer> file;
        try {
            file = m_reader->readFile(static_cast<int>(depth), m_brickIndex);
        } catch (const CError& e) {
            fail(e);
        }
        if (!file)
            continue;
        const P<CBrickStorer> copier = CBrickStorer::start(m_fs.get(), m_childFolder, relativeURI, CURI(), CURI(),
                                                           file.get(), m_preparedZeroBrick.get(), nullptr);
        copier->waitFinished(-1);
        if (const PC<CError> error = copier->getError())
            fail(*error);
        return;
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
        writePreparedBrickImpl(prepared.get(), nullptr);
    } catch (const CError& e) {
        zo::logError(e, "Error initiating background brick storing operation.", String::getEmptyString());
        m_backgroundErrors.push_back(Error{m_brickIndex, e.clone()});
    }
    m_payloadDirty = false;
}

P<CBrickStorer> CBrick::writePreparedBrickImpl(const TBuffer<uint8>* prepared, IDoneListener* listener)
{
    const auto running = m_storers.find(m_brickIndex);
    if (running != m_storers.end()) {
        // Saves of one brick never overlap, so the later one always lands last.
        running->second->waitFinished(-1);
        handleFinishedStorers();
        if (m_storers.count(m_brickIndex) != 0)
            throw CError("INTERNAL ERROR: CBrick waited for storer to end, but the storer then was not removed.");
    }
    waitForFreeBackgroundOpSlot(-1);
    prepareZeroBrickForCurrentIndex();
    // Deleting the file of an all-zero brick would let a parent's brick show
    // through again: on a disk with parents such a brick is stored as a file.
    if (!prepared && m_searchFolders.size() > 1)
        prepared = m_preparedZeroBrick.get();
    const CURI relativeURI = getRelativeBrickURI();
    copyParentBrickIntoChild(relativeURI);
    const CURI childRelativeURI = m_childFolder.isEmpty() ? CURI() : relativeURI;
    P<CBrickStorer> storer = CBrickStorer::start(m_fs.get(), m_diskFolder, relativeURI, m_childFolder,
                                                 childRelativeURI, prepared, m_preparedZeroBrick.get(), listener);
    m_storers[m_brickIndex] = storer;
    return storer;
}

void CBrick::prepareZeroBrickForCurrentIndex()
{
    // Only disks with a parent or a child ever store the zero brick.
    if (!m_preparer->bindsBrickIndex() || m_zeroBrickIndex == m_brickIndex ||
        (m_childFolder.isEmpty() && m_searchFolders.size() < 2))
        return;
    // Storers still in flight keep their reference to the former buffer.
    const P<zo::CMemPoolBuffer> zeroBrick = m_bufferPool->checkOutItem();
    TBuffer<uint8> zeros(m_header.getBrickSize());
    if (zeros.getUsed() > 0)
        std::memset(zeros.getData(), 0, static_cast<size_t>(zeros.getUsed()));
    zeroBrick->setUsed(0);
    m_preparer->prepareData(zeros, *zeroBrick, m_brickIndex);
    m_preparedZeroBrick = zeroBrick;
    m_zeroBrickIndex = m_brickIndex;
}

void CBrick::handleFinishedStorers()
{
    for (auto it = m_storers.begin(); it != m_storers.end();) {
        if (!it->second->waitFinished(0)) {
            ++it;
            continue;
        }
        if (const PC<CError> error = it->second->getError()) {
            zo::logError(*error, "Error during background brick storing operation.", String::getEmptyString());
            m_backgroundErrors.push_back(Error{it->first, error->clone()});
        }
        it = m_storers.erase(it);
    }
}

bool CBrick::waitForFreeBackgroundOpSlot(int timeoutMillis)
{
    const bool limited = timeoutMillis != -1;
    const zo::CTime deadline = zo::CTime::now() + zo::CTimeSpan::fromMillis(limited ? timeoutMillis : 0);
    while (static_cast<int>(m_storers.size()) >= m_maxBackgroundOps) {
        m_storers.begin()->second->waitFinished(50);
        handleFinishedStorers();
        if (limited && zo::CTime::now() >= deadline)
            break;
    }
    return static_cast<int>(m_storers.size()) < m_maxBackgroundOps;
}

bool CBrick::waitUntilBackgroundSavesDone(int timeoutMillis)
{
    const bool limited = timeoutMillis != -1;
    const zo::CTime deadline = zo::CTime::now() + zo::CTimeSpan::fromMillis(limited ? timeoutMillis : 0);
    handleFinishedStorers();
    if (m_storers.empty())
        return true;
    for (;;) {
        int wait = -1;
        if (limited) {
            wait = static_cast<int>((deadline - zo::CTime::now()).toMicros() / 1000);
            if (wait < 0)
                return false;
        }
        if (!m_storers.begin()->second->waitFinished(wait))
            return false;
        handleFinishedStorers();
        if (m_storers.empty())
            return true;
    }
}

const zo::TList<CBrick::Error>& CBrick::getBackgroundErrorList()
{
    handleFinishedStorers();
    return m_backgroundErrors;
}

int CBrick::getBackgroundSavesInProgress()
{
    handleFinishedStorers();
    return static_cast<int>(m_storers.size());
}

bool CBrick::haveBackgroundErrors()
{
    handleFinishedStorers();
    return !m_backgroundErrors.empty();
}

} // namespace brick
