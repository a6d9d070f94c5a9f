#include "brick/chain/BrickStorer.h"

#include "brick/detail/FolderMode.h"

#include <algorithm>

namespace brick {

using zo::CFileSystemError;
using zo::CMutexLock;
using zo::String;

namespace {

// One operation weighs as much as this many bytes of upload in the progress figure.
constexpr double kProgressBytesUnit = 51200.0;
constexpr double kProgressOpWeight = 0.15;

CFileSystemError::Problem problemOf(const CError& error)
{
    return CFileSystemError::getProblem(error.getProps());
}

} // namespace

CBrickStorer::CUploadBufferStream::CUploadBufferStream(CBrickStorer* storer, const TBuffer<uint8>* data)
    : zo::CBufferStream(data), m_storer(storer)
{}

void CBrickStorer::CUploadBufferStream::read(void* dst, int size)
{
    zo::CBufferStream::read(dst, size);
    m_storer->onUploadProgress(getPosition());
}

int CBrickStorer::CUploadBufferStream::readLax(void* dst, int size)
{
    const int n = zo::CBufferStream::readLax(dst, size);
    m_storer->onUploadProgress(getPosition());
    return n;
}

int CBrickStorer::CUploadBufferStream::readAvailable(void* dst, int size)
{
    const int n = zo::CBufferStream::readAvailable(dst, size);
    m_storer->onUploadProgress(getPosition());
    return n;
}

CBrickStorer::CBrickStorer(IFileSystem* fs, const CURI& diskFolder, const CURI& relativeURI, const CURI& childFolder,
                           const CURI& childRelativeURI, const TBuffer<uint8>* preparedData,
                           const TBuffer<uint8>* preparedZeroBrick, IDoneListener* listener)
    : m_fs(fs), m_diskFolder(diskFolder), m_relativeURI(relativeURI), m_childFolder(childFolder),
      m_childRelativeURI(childRelativeURI), m_preparedData(preparedData), m_preparedZeroBrick(preparedZeroBrick),
      m_listener(listener), m_finishedSignal(new zo::CSignal())
{
    m_expectedBytes = preparedData ? preparedData->getUsed() : 0;
}

P<CBrickStorer> CBrickStorer::start(IFileSystem* fs, const CURI& diskFolder, const CURI& relativeURI,
                                    const CURI& childFolder, const CURI& childRelativeURI,
                                    const TBuffer<uint8>* preparedData, const TBuffer<uint8>* preparedZeroBrick,
                                    IDoneListener* listener)
{
    P<CBrickStorer> storer(new CBrickStorer(fs, diskFolder, relativeURI, childFolder, childRelativeURI, preparedData,
                                            preparedZeroBrick, listener));
    storer->begin();
    return storer;
}

void CBrickStorer::begin()
{
    if (m_childRelativeURI.isEmpty()) {
        m_expectedOps = 1;
        m_overwrite = true;
        doStoreBrick();
    } else {
        m_expectedOps = 2;
        m_overwrite = false;
        doCopyToChild();
    }
}

CBrickStorer::~CBrickStorer() = default;

bool CBrickStorer::waitFinished(int timeoutMillis)
{
    return m_finishedSignal->wait(timeoutMillis);
}

PC<CError> CBrickStorer::getError() const
{
    // Written once before the finished signal is set; readers look after it.
    if (!m_finishedSignal->isSet())
        return PC<CError>();
    return m_error;
}

double CBrickStorer::getProgress()
{
    if (m_state.load() == end)
        return 1.0;
    const double total =
        static_cast<double>(m_expectedBytes.load()) / kProgressBytesUnit + m_expectedOps.load() * kProgressOpWeight;
    if (total == 0.0)
        return 0.0;
    const double done = static_cast<double>(m_uploadedBytes.load() + m_finishedBytes.load()) / kProgressBytesUnit +
        m_finishedOps.load() * kProgressOpWeight;
    return std::clamp(done / total, 0.0, 0.99);
}

void CBrickStorer::onDone(const CError* error)
{
    const P<CBrickStorer> keepAlive(this);
    const int state = m_state.load();
    if (state < copyToChild || state >= end)
        throw CError("INTERNAL ERROR: Unknown state in CBrickStorer::onDone: " + zo::toDecimalString(state));
    try {
        switch (state) {
        case copyToChild:
            onDone_copyToChild(error);
            break;
        case storeBrick:
            onDone_storeBrick(error);
            break;
        case storeZeroBrickInChild:
            onDone_storeZeroBrickInChild(error);
            break;
        default:
            onCreateFolderStepDone(error);
            break;
        }
    } catch (const std::exception& e) {
        // A step whose operation could not start, or whose synchronous check
        // failed, would otherwise leave the storer running for ever.
        if (m_state.load() == end)
            throw;
        endWithError(*zo::CStdExceptionError::exceptionToError(&e));
    }
}

void CBrickStorer::doCopyToChild()
{
    m_state = copyToChild;
    m_fs->beginCopyFile(m_diskFolder << m_relativeURI, m_childFolder << m_childRelativeURI, false, this);
}

void CBrickStorer::countFinishedStep()
{
    CMutexLock lock(m_mutex);
    m_finishedOps += 1;
    m_uploadedBytes = 0;
}

void CBrickStorer::onDone_copyToChild(const CError* error)
{
    countFinishedStep();
    if (!error) {
        // The old file is still here: the new one replaces it.
        m_overwrite = true;
        syncChildFoldersCreated();
        doStoreBrick();
        return;
    }
    const auto problem = problemOf(*error);
    if (problem == CFileSystemError::AlreadyExists) {
        m_overwrite = true;
        doStoreBrick();
    } else if (!m_childParentFolderCreated) {
        addExpectedWork(2, 0);
        doCreateChildParentFolder();
    } else if (problem == CFileSystemError::NotFound) {
        m_overwrite = false;
        addExpectedWork(1, zeroBrickSize());
        doStoreZeroBrickInChild();
    } else if (m_fs->pathExists(m_childFolder << m_childRelativeURI)) {
        m_overwrite = true;
        doStoreBrick();
    } else if (m_fs->pathExists(m_diskFolder << m_relativeURI)) {
        endWithError(*error);
    } else {
        m_overwrite = false;
        addExpectedWork(1, zeroBrickSize());
        doStoreZeroBrickInChild();
    }
}

void CBrickStorer::syncChildFoldersCreated()
{
    // The copy or zero brick is durable in its folder, but the folders made
    // for it only once their parents are synced; the child's brick must not
    // be lost while this disk's replacement survives.
    if (m_childParentFolderCreated)
        m_fs->syncBatch();
}

void CBrickStorer::doStoreZeroBrickInChild()
{
    if (!m_preparedData) {
        // The new content is all zero too: the child's view needs no file.
        onWorkFinished(1, zeroBrickSize());
        doStoreBrick();
        return;
    }
    m_state = storeZeroBrickInChild;
    m_uploadedBytes = 0;
    P<CUploadBufferStream> source(new CUploadBufferStream(this, m_preparedZeroBrick.get()));
    m_fs->beginStoreFile(m_childFolder << m_childRelativeURI, m_preparedZeroBrick->getUsed(), source.get(), false,
                         this);
}

void CBrickStorer::onDone_storeZeroBrickInChild(const CError* error)
{
    if (!error) {
        onWorkFinished(1, zeroBrickSize());
        m_zeroBrickStoredInChild = true;
        syncChildFoldersCreated();
        doStoreBrick();
        return;
    }
    onWorkFinished(1, 0);
    auto problem = problemOf(*error);
    if (problem == CFileSystemError::Unclassified && m_fs->fileExists(m_childFolder << m_childRelativeURI))
        problem = CFileSystemError::AlreadyExists;
    if (problem == CFileSystemError::AlreadyExists) {
        addExpectedWork(0, -zeroBrickSize());
        doStoreBrick();
    } else {
        endWithError(*error);
    }
}

void CBrickStorer::doStoreBrick()
{
    m_state = storeBrick;
    const CURI file = m_diskFolder << m_relativeURI;
    if (!m_preparedData) {
        m_fs->beginDeleteFile(file, this);
        return;
    }
    m_uploadedBytes = 0;
    P<CUploadBufferStream> source(new CUploadBufferStream(this, m_preparedData.get()));
    m_fs->beginStoreFileBatched(file, m_preparedData->getUsed(), source.get(), m_overwrite, this);
}

void CBrickStorer::onDone_storeBrick(const CError* error)
{
    if (!error) {
        onWorkFinished(1, m_preparedData ? m_preparedData->getUsed() : 0);
        endWithSuccess();
        return;
    }
    onWorkFinished(1, 0);
    const auto problem = problemOf(*error);
    if ((problem == CFileSystemError::Unclassified || problem == CFileSystemError::NotFound) &&
        !m_parentFolderCreated) {
        addExpectedWork(2, 0);
        doCreateParentFolder();
        return;
    }
    if (m_zeroBrickStoredInChild) {
        m_zeroBrickStoredInChild = false;
        try {
            m_fs->deleteFile(m_childFolder << m_childRelativeURI, true);
        } catch (const std::exception&) {
            // The store's failure is the one to report. A zero brick left in
            // the child reads as this disk's brick does, which has no file.
        }
    }
    endWithError(*error);
}

void CBrickStorer::doCreateParentFolder()
{
    m_state = createParentFolder;
    initCreateFolderURIs(m_diskFolder, m_relativeURI.getParent());
    beginCreateFolderOp();
}

void CBrickStorer::doCreateChildParentFolder()
{
    m_state = createChildParentFolder;
    initCreateFolderURIs(m_childFolder, m_childRelativeURI.getParent());
    beginCreateFolderOp();
}

void CBrickStorer::initCreateFolderURIs(const CURI& base, const CURI& relativeFolder)
{
    m_createFolderURIs.clear();
    for (CURI p = relativeFolder; !p.isEmpty(); p = p.getParent())
        m_createFolderURIs.push_back(base << p);
    m_createFolderCursor = m_createFolderURIs.begin();
    m_someFolderCreated = false;
}

void CBrickStorer::beginCreateFolderOp()
{
    if (m_createFolderURIs.empty()) {
        // The brick file lies directly in the disk folder: no folder to make.
        onCreateFolderTreeComplete();
        return;
    }
    m_fs->beginCreateFolder(*m_createFolderCursor, kFolderMode, this);
}

void CBrickStorer::onCreateFolderTreeComplete()
{
    if (m_state == createChildParentFolder)
        onDone_createChildParentFolder();
    else if (m_state == createParentFolder)
        onDone_createParentFolder();
    else
        throw CError("INTERNAL ERROR: CBrickStorer onCreateFolderStepDone called with unknown state: " +
                     zo::toDecimalString(m_state.load()));
}

void CBrickStorer::onCreateFolderStepDone(const CError* error)
{
    countFinishedStep();
    const auto problem = error ? problemOf(*error) : CFileSystemError::Unclassified;
    if (!error || problem == CFileSystemError::AlreadyExists) {
        m_someFolderCreated = true;
        if (m_createFolderCursor == m_createFolderURIs.begin()) {
            onCreateFolderTreeComplete();
        } else {
            --m_createFolderCursor;
            beginCreateFolderOp();
        }
        return;
    }
    if (problem == CFileSystemError::NotFound && !m_someFolderCreated &&
        std::next(m_createFolderCursor) != m_createFolderURIs.end()) {
        ++m_createFolderCursor;
        addExpectedWork(2, 0);
        beginCreateFolderOp();
        return;
    }
    endWithError(*error);
}

void CBrickStorer::onDone_createChildParentFolder()
{
    countFinishedStep();
    m_childParentFolderCreated = true;
    doCopyToChild();
}

void CBrickStorer::onDone_createParentFolder()
{
    m_parentFolderCreated = true;
    doStoreBrick();
}

void CBrickStorer::endWithError(const CError& error)
{
    m_error = error.clone();
    doEnd();
}

void CBrickStorer::endWithSuccess()
{
    doEnd();
}

void CBrickStorer::doEnd()
{
    m_state = end;
    m_fs.reset();
    m_finishedSignal->set();
    if (m_listener) {
        const P<IDoneListener> listener = std::move(m_listener);
        m_listener.reset();
        listener->onDone(m_error.get());
    }
}

void CBrickStorer::addExpectedWork(int ops, int bytes)
{
    CMutexLock lock(m_mutex);
    m_expectedOps += ops;
    m_expectedBytes += bytes;
}

void CBrickStorer::onWorkFinished(int ops, int bytes)
{
    CMutexLock lock(m_mutex);
    m_finishedOps += ops;
    m_finishedBytes += bytes;
    m_uploadedBytes = 0;
}

void CBrickStorer::onUploadProgress(int64 bytes)
{
    CMutexLock lock(m_mutex);
    m_uploadedBytes = bytes;
}

} // namespace brick
