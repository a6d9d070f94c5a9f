#include "objectstore/ObjectStoreFileSystem.h"

#include "objectstore/KnownFolders.h"
#include "objectstore/ObjectRangeStream.h"
#include "objectstore/ObjectStream.h"
#include "zo/CompletionPool.h"
#include "zo/FileSystemOp.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <map>
#include <set>
#include <thread>

namespace zo {

namespace {

const char* lockObjectName = ".lock";
// Keys of files and folders remembered before all are forgotten at once: a
// few MiB at most.
const size_t knownKeysLimit = 65536;

CFileSystemError pathError(CFileSystemError::Problem problem, const char* message, const CURI& path)
{
    return CFileSystemError(problem, CError(message, String(), -1, CProps().add("path", path.toString(true))));
}

bool hasProblem(const CError* error, CFileSystemError::Problem problem)
{
    return error && CFileSystemError::getProblem(error->getProps()) == problem;
}

std::string parentKey(const std::string& key)
{
    const size_t slash = key.rfind('/');
    return slash == std::string::npos ? std::string() : key.substr(0, slash);
}

ObjectName markerOf(const ObjectName& folder)
{
    return ObjectName{folder.container, folder.key + "/"};
}

void checkAccess(const CURI& file, IIOStream::Access access)
{
    if (access != IIOStream::AccessRead && access != IIOStream::AccessWrite && access != IIOStream::AccessReadWrite)
        throw CInvalidArgError("zo::CObjectStoreFileSystem::openStream", "Unknown access value.",
                               CProps().add("uri", file.toString(true)).add("access", static_cast<int>(access)));
}

} // namespace

// The operations under way: begun and not yet through their listener. The
// destructor waits for them, except those whose listener runs on its own
// thread (a listener that drops the last reference).
struct CObjectStoreFileSystem::Pending {
    std::mutex mutex;
    std::condition_variable changed;
    int count = 0;
    std::multiset<std::thread::id> completing;

    void enter()
    {
        std::lock_guard lock(mutex);
        ++count;
    }
    void complete(CFileSystemOp& op, const CError* error)
    {
        {
            std::lock_guard lock(mutex);
            completing.insert(std::this_thread::get_id());
        }
        op.complete(error);
        std::lock_guard lock(mutex);
        completing.erase(completing.find(std::this_thread::get_id()));
        --count;
        changed.notify_all();
    }
    void waitForOthers()
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return count == static_cast<int>(completing.count(std::this_thread::get_id())); });
    }
};

CObjectStoreFileSystem::CObjectStoreFileSystem(IObjectStore* store, const String& scheme, int threadCount)
    : m_store(store), m_scheme(scheme), m_pool(CCompletionPool::create(threadCount)),
      m_pending(std::make_shared<Pending>()), m_known(std::make_unique<CKnownFolders>(knownKeysLimit))
{}

CObjectStoreFileSystem::~CObjectStoreFileSystem()
{
    m_pool->shutdown();
    m_pending->waitForOthers();
}

void CObjectStoreFileSystem::waitUntilIdle()
{
    m_pending->waitForOthers();
}

namespace {

// True when the components after the container of `text` (a path that starts
// with `root`) climb above the container with "..": normalising would stop
// them at the container and so hand out a key the path never named.
bool climbsAboveContainer(const std::string& text, const std::string& root)
{
    const size_t slash = text.find('/', root.size());
    if (text.compare(0, root.size(), root) != 0 || slash == std::string::npos)
        return false;
    int depth = 0;
    for (size_t start = slash + 1; start <= text.size();) {
        const size_t end = std::min(text.find('/', start), text.size());
        const std::string component = text.substr(start, end - start);
        if (component == "..") {
            if (--depth < 0)
                return true;
        } else if (!component.empty() && component != ".") {
            ++depth;
        }
        start = end + 1;
    }
    return false;
}

} // namespace

ObjectName CObjectStoreFileSystem::toObjectName(const CURI& path) const
{
    const std::string root = m_scheme.toUTF8() + "://";
    if (climbsAboveContainer(path.toString(true).toUTF8(), root))
        throw CInvalidArgError("zo::CObjectStoreFileSystem", "The path climbs above its container with \"..\".",
                               CProps().add("path", path.toString(true)).add("scheme", m_scheme));
    const std::string text = path.toNormalized().toString(true).toUTF8();
    const size_t slash = text.find('/', root.size());
    const std::string container =
        text.substr(root.size(), slash == std::string::npos ? std::string::npos : slash - root.size());
    if (text.compare(0, root.size(), root) != 0 || container.empty())
        throw CInvalidArgError("zo::CObjectStoreFileSystem", "The path does not name a place in this object store.",
                               CProps().add("path", path.toString(true)).add("scheme", m_scheme));
    return ObjectName{container, slash == std::string::npos ? std::string() : text.substr(slash + 1)};
}

P<IFileSystemOp> CObjectStoreFileSystem::startOperation(IDoneListener* listener, Work work)
{
    P<CFileSystemOp> op(new CFileSystemOp(listener));
    auto completed = std::make_shared<std::atomic<bool>>(false);
    std::function<void(const CError*)> finish = [op, completed, pool = m_pool,
                                                 pending = m_pending](const CError* error) {
        if (completed->exchange(true))
            return;
        if (pool->isWorkerThread()) {
            pending->complete(*op, error);
            return;
        }
        const P<CError> outcome = error ? error->clone() : P<CError>();
        try {
            pool->post([op, outcome, pending] { pending->complete(*op, outcome.get()); });
        } catch (const CError&) {
            pending->complete(*op, outcome.get()); // the pool is shutting down
        }
    };
    m_pending->enter();
    try {
        m_pool->post([work = std::move(work), finish]() mutable {
            P<CError> failure;
            try {
                work(finish);
            } catch (...) {
                failure = currentExceptionToError();
            }
            // What the work holds (a store's source) goes before a failed
            // operation is seen to end.
            work = nullptr;
            if (failure)
                finish(failure.get());
        });
    } catch (...) {
        finish(currentExceptionToError().get());
        throw;
    }
    return P<IFileSystemOp>(op.get());
}

bool CObjectStoreFileSystem::isFolder(const ObjectName& name, bool lookUnder)
{
    if (m_known->isFolder(name))
        return true;
    if (m_known->isKnownMissingFolder(name))
        return false;
    if (!m_store->stat(markerOf(name)) && (!lookUnder || m_store->list(name.container, name.key + "/", 1).empty()))
        return false;
    m_known->addFolder(name, false);
    return true;
}

bool CObjectStoreFileSystem::isInMissingFolder(const ObjectName& name) const
{
    return m_known->isKnownMissingFolder(ObjectName{name.container, parentKey(name.key)});
}

void CObjectStoreFileSystem::checkParentFolder(const ObjectName& name, const CURI& path)
{
    if (!isFolder(ObjectName{name.container, parentKey(name.key)}, true))
        throw pathError(CFileSystemError::NotFound, "The folder of the path does not exist.", path);
}

void CObjectStoreFileSystem::checkNotAFolder(const ObjectName& name, const CURI& path, bool overwrite)
{
    if (m_known->isKnownNonFolder(name))
        return;
    if (name.key.empty() || isFolder(name, false))
        throw pathError(overwrite ? CFileSystemError::IsAFolder : CFileSystemError::AlreadyExists,
                        "A folder is in the way of the file.", path);
}

bool CObjectStoreFileSystem::putFolderMarker(const ObjectName& name, const CURI& folder)
{
    // What this process made or listed of the folder around it may already
    // tell that no file is in the way: a folder made level by level then
    // costs one write per level.
    const bool fileMayBeInTheWay = !isInMissingFolder(name) && !m_known->isListedAsMissing(name);
    if (fileMayBeInTheWay && m_store->stat(name))
        throw pathError(CFileSystemError::AlreadyExists, "A file is in the way of the folder.", folder);
    try {
        runSync(
            [&](IObjectStore::Done done) { m_store->beginPut(markerOf(name), std::string(), true, std::move(done)); });
    } catch (const CFileSystemError& e) {
        if (e.getProblem() != CFileSystemError::AlreadyExists)
            throw;
        m_known->addFolder(name, false);
        return false;
    }
    m_known->addFolder(name, true);
    return true;
}

IObjectStore::Done CObjectStoreFileSystem::finishWritingFile(const ObjectName& name, IObjectStore::Done finish)
{
    return [this, name, finish = std::move(finish)](const CError* error) {
        if (error)
            m_known->forgetListingOf(name); // the object may have been written all the same
        else
            m_known->addFile(name);
        finish(error);
    };
}

void CObjectStoreFileSystem::removeSync(const ObjectName& name)
{
    m_known->forgetFile(name);
    runSync([&](IObjectStore::Done done) { m_store->beginRemove(name, std::move(done)); });
}

bool CObjectStoreFileSystem::isFolderWhereAFileIsMissing(const ObjectName& name)
{
    const ObjectName folder{name.container, parentKey(name.key)};
    if (!m_listingRefused && !m_known->isListed(folder)) {
        try {
            if (const auto level =
                    m_store->listLevelInOneRequest(folder.container, folder.key.empty() ? "" : folder.key + "/"))
                m_known->addListing(folder, level->files, level->folders, level->hasMarker);
        } catch (const CFileSystemError&) {
            // Not allowed to list, say: the folder marker answers below, and
            // from now on without trying to list first.
            m_listingRefused = true;
        }
    }
    if (m_known->isListed(folder))
        return m_known->isFolder(name);
    return isFolder(name, false);
}

P<IFileSystemOp> CObjectStoreFileSystem::beginStoreFile(const CURI& file, int size, IInStream* source, bool overwrite,
                                                        IDoneListener* listener)
{
    checkStoreFileArguments("zo::CObjectStoreFileSystem::beginStoreFile", file, size, source);
    const ObjectName name = toObjectName(file);
    return startOperation(
        listener, [this, file, name, size, source = P<IInStream>(source), overwrite](const auto& finish) mutable {
            checkParentFolder(name, file);
            checkNotAFolder(name, file, overwrite);
            std::string bytes(static_cast<size_t>(size), '\0');
            const int got = size > 0 ? source->readLax(bytes.data(), size) : 0;
            // The store may end before this function returns: the source is let
            // go first, so that it is gone once the operation is seen to end.
            source = nullptr;
            if (got < size)
                throw CIOError(CIOError::EndOfData, "The source delivered fewer bytes than the store expected.",
                               CProps().add("path", file.toString(true)).add("size", size).add("got", got));
            m_store->beginPut(name, std::move(bytes), !overwrite, finishWritingFile(name, finish));
        });
}

P<IFileSystemOp> CObjectStoreFileSystem::beginCreateFolder(const CURI& folder, int, IDoneListener* listener)
{
    const ObjectName name = toObjectName(folder);
    return startOperation(listener, [this, folder, name](const auto& finish) {
        checkParentFolder(name, folder);
        if (m_known->isFolder(name) || !putFolderMarker(name, folder))
            throw pathError(CFileSystemError::AlreadyExists, "The folder already exists.", folder);
        finish(nullptr);
    });
}

P<IFileSystemOp> CObjectStoreFileSystem::beginMoveFile(const CURI& from, const CURI& to, bool overwrite,
                                                       IDoneListener* listener)
{
    const ObjectName source = toObjectName(from);
    const ObjectName target = toObjectName(to);
    return startOperation(listener, [this, from, to, source, target, overwrite](const auto& finish) {
        if (!m_store->stat(source))
            throw pathError(CFileSystemError::NotFound, "The file to move does not exist.", from);
        checkParentFolder(target, to);
        checkNotAFolder(target, to, overwrite);
        runSync([&](IObjectStore::Done done) {
            m_store->beginCopy(source, target, !overwrite, finishWritingFile(target, std::move(done)));
        });
        m_store->beginRemove(source, [this, source, finish](const CError* error) {
            m_known->forgetFile(source);
            finish(error);
        });
    });
}

P<IFileSystemOp> CObjectStoreFileSystem::beginCopyFile(const CURI& from, const CURI& to, bool overwrite,
                                                       IDoneListener* listener)
{
    const ObjectName source = toObjectName(from);
    const ObjectName target = toObjectName(to);
    return startOperation(listener, [this, to, source, target, overwrite](const auto& finish) {
        checkParentFolder(target, to);
        checkNotAFolder(target, to, overwrite);
        m_store->beginCopy(source, target, !overwrite, finishWritingFile(target, finish));
    });
}

P<IFileSystemOp> CObjectStoreFileSystem::beginDeleteFile(const CURI& file, IDoneListener* listener)
{
    const ObjectName name = toObjectName(file);
    return startOperation(listener, [this, name](const auto& finish) {
        m_store->beginRemove(name, [this, name, finish](const CError* error) {
            m_known->forgetFile(name);
            finish(hasProblem(error, CFileSystemError::NotFound) ? nullptr : error);
        });
    });
}

P<IFileInfo> CObjectStoreFileSystem::getFileInfo(const CURI& path, bool throwIfMissing)
{
    const ObjectName name = toObjectName(path);
    if (!name.key.empty() && !isInMissingFolder(name)) {
        if (const std::optional<int64> size = m_store->stat(name)) {
            m_known->addFile(name);
            return P<IFileInfo>(new CFileInfo(true, false, *size));
        }
    }
    if (isFolder(name, false))
        return P<IFileInfo>(new CFileInfo(true, true, 0));
    if (throwIfMissing)
        throw pathError(CFileSystemError::NotFound, "The path does not exist.", path);
    return P<IFileInfo>(new CFileInfo(false, false, 0));
}

P<IIOStream> CObjectStoreFileSystem::openStream(const CURI& file, IIOStream::Access access, const int& options)
{
    checkAccess(file, access);
    const ObjectName name = toObjectName(file);
    const auto folderError = [&] {
        return pathError(CFileSystemError::IsAFolder, "A folder cannot be opened as a file.", file);
    };
    if (name.key.empty())
        throw folderError();
    std::string bytes;
    if (access != IIOStream::AccessRead && (options & IIOStream::OptionReplace)) {
        checkParentFolder(name, file);
        if (!m_known->isKnownNonFolder(name) && isFolder(name, false))
            throw folderError();
        runSync([&](IObjectStore::Done done) { m_store->beginPut(name, std::string(), false, std::move(done)); });
    } else {
        // A file missing from its folder's listing costs nothing. Otherwise
        // the object itself first: a file, the usual case, costs one read;
        // only a missing one is looked at as a folder, by listing its folder
        // (once) where the store can.
        if (isInMissingFolder(name) || m_known->isListedAsMissing(name))
            throw pathError(CFileSystemError::NotFound, "The file does not exist.", file);
        if (access == IIOStream::AccessRead && (options & IIOStream::OptionRanges))
            return openRanges(file, name);
        try {
            bytes = m_store->read(name);
        } catch (const CFileSystemError& e) {
            if (e.getProblem() == CFileSystemError::NotFound && isFolderWhereAFileIsMissing(name))
                throw folderError();
            throw;
        }
    }
    m_known->addFile(name);
    return P<IIOStream>(new CObjectStream(m_store.get(), file, name, bytes, access));
}

P<IIOStream> CObjectStoreFileSystem::openRanges(const CURI& file, const ObjectName& name)
{
    const std::optional<int64> length = m_store->stat(name);
    if (!length) {
        if (isFolderWhereAFileIsMissing(name))
            throw pathError(CFileSystemError::IsAFolder, "A folder cannot be opened as a file.", file);
        throw pathError(CFileSystemError::NotFound, "The file does not exist.", file);
    }
    m_known->addFile(name);
    return P<IIOStream>(new CObjectRangeStream(m_store.get(), file, name, *length));
}

void CObjectStoreFileSystem::createFolder(const CURI& folder, int)
{
    const ObjectName name = toObjectName(folder);
    ObjectName level{name.container, std::string()};
    size_t start = 0;
    while (start < name.key.size()) {
        const size_t slash = name.key.find('/', start);
        level.key = name.key.substr(0, slash);
        start = slash == std::string::npos ? name.key.size() : slash + 1;
        if (!m_known->isFolder(level))
            putFolderMarker(level, folder);
    }
}

bool CObjectStoreFileSystem::fileExists(const CURI& file)
{
    const ObjectName name = toObjectName(file);
    if (name.key.empty() || isInMissingFolder(name) || !m_store->stat(name))
        return false;
    m_known->addFile(name);
    return true;
}

bool CObjectStoreFileSystem::folderExists(const CURI& folder)
{
    return isFolder(toObjectName(folder), true);
}

bool CObjectStoreFileSystem::pathExists(const CURI& path)
{
    return fileExists(path) || isFolder(toObjectName(path), false);
}

void CObjectStoreFileSystem::deleteFile(const CURI& file, bool ignoreMissing)
{
    try {
        removeSync(toObjectName(file));
    } catch (const CFileSystemError& e) {
        if (!ignoreMissing || e.getProblem() != CFileSystemError::NotFound)
            throw;
    }
}

TList<String> CObjectStoreFileSystem::listFolder(const CURI& folder)
{
    const ObjectName name = toObjectName(folder);
    if (!isFolder(name, true)) {
        if (m_store->stat(name))
            throw pathError(CFileSystemError::NotAFolder, "The path names a file, not a folder.", folder);
        throw pathError(CFileSystemError::NotFound, "The folder does not exist.", folder);
    }
    const std::string prefix = name.key.empty() ? std::string() : name.key + "/";
    std::set<std::string> entries;
    for (const std::string& entry : m_store->listChildren(name.container, prefix))
        entries.insert(entry);
    TList<String> names;
    for (const std::string& entry : entries)
        names.push_back(String::fromUTF8(entry));
    return names;
}

std::vector<FolderEntry> CObjectStoreFileSystem::listFolderWithInfo(const CURI& folder)
{
    const ObjectName name = toObjectName(folder);
    const std::string prefix = name.key.empty() ? std::string() : name.key + "/";
    const std::optional<IObjectStore::SizedLevel> level = m_store->listLevelWithSizes(name.container, prefix);
    // A level with nothing in it may be a missing folder or a file:
    // listFolder tells them apart.
    if (!level || (!name.key.empty() && !level->hasMarker && level->files.empty() && level->folders.empty()))
        return listFolderEntryByEntry(this, folder);
    std::set<std::string> files;
    for (const auto& [file, size] : level->files)
        files.insert(file);
    m_known->addListing(name, files, level->folders, true);
    std::map<std::string, FolderEntry> entries;
    for (const std::string& subfolder : level->folders)
        entries.emplace(subfolder, FolderEntry{String::fromUTF8(subfolder), true, 0, String()});
    for (const auto& [file, size] : level->files) {
        const auto tag = level->tags.find(file);
        entries.emplace(file,
                        FolderEntry{String::fromUTF8(file), false, size,
                                    tag == level->tags.end() ? String() : String::fromUTF8(tag->second)});
    }
    std::vector<FolderEntry> sorted;
    for (auto& [entryName, entry] : entries)
        sorted.push_back(std::move(entry));
    return sorted;
}

void CObjectStoreFileSystem::readRange(const CURI& file, int64 offset, void* bytes, int size)
{
    const ObjectName name = toObjectName(file);
    if (name.key.empty())
        throw pathError(CFileSystemError::IsAFolder, "A folder cannot be opened as a file.", file);
    if (isInMissingFolder(name) || m_known->isListedAsMissing(name))
        throw pathError(CFileSystemError::NotFound, "The file does not exist.", file);
    if (size <= 0) {
        if (!m_store->stat(name))
            throw pathError(CFileSystemError::NotFound, "The file does not exist.", file);
        return;
    }
    std::string got;
    try {
        got = m_store->readRange(name, offset, size);
    } catch (const CFileSystemError& e) {
        if (e.getProblem() == CFileSystemError::NotFound && isFolderWhereAFileIsMissing(name))
            throw pathError(CFileSystemError::IsAFolder, "A folder cannot be opened as a file.", file);
        throw;
    }
    m_known->addFile(name);
    if (got.size() < static_cast<size_t>(size))
        throw CIOError(CIOError::EndOfData, "The file ends before the range to read does.",
                       CProps().add("path", file.toString(true)).add("offset", offset).add("size", size));
    std::memcpy(bytes, got.data(), static_cast<size_t>(size));
}

P<IFileSystemLock> CObjectStoreFileSystem::lockFolder(const CURI& folder, bool exclusive)
{
    const ObjectName name = toObjectName(folder);
    if (!isFolder(name, true))
        throw pathError(CFileSystemError::NotFound, "The folder to lock does not exist.", folder);
    // A store's lock may keep objects of its own under the lock's name, beside
    // what this file system writes into the folder.
    m_known->forgetMadeHere(name);
    return m_store->lock(
        ObjectName{name.container, name.key.empty() ? lockObjectName : name.key + "/" + lockObjectName}, exclusive);
}

int CObjectStoreFileSystem::removeTemporaryFiles(const CURI&)
{
    return 0;
}

} // namespace zo
