#include "support/BrickTestHelpers.h"

#include "brick/chain/BrickReader.h"
#include "brick/format/BrickDataPreparer.h"

#include <cstdio>
#include <cstring>
#include <random>

namespace testsupport {

brick::CBrickDiskHeader makeBrickHeader(int brickSize, int treeLevels, int objectsPerTreeLevel, const char* cipherID)
{
    brick::CBrickDiskHeader header;
    header.setBrickSize(brickSize);
    header.setTreeLevels(treeLevels);
    header.setObjectsPerTreeLevel(objectsPerTreeLevel);
    header.setCipherID(cipherID);
    header.setCompressID("lz4");
    return header;
}

Key makeBrickKey(const zo::String& cipherID)
{
    Key key;
    if (cipherID == "null")
        return key;
    key.setUsed(32);
    for (int i = 0; i < 32; ++i)
        key[i] = static_cast<zo::uint8>(0x5a ^ (i * 13));
    return key;
}

std::string brickFile(const char* folder, zo::int64 index)
{
    char name[64];
    std::snprintf(name, sizeof(name), "/bricks/b000/a000/%03x.brick", static_cast<unsigned>(index));
    return folder + std::string(name);
}

Bytes patternBytes(int size, unsigned seed)
{
    std::mt19937 random(seed);
    Bytes bytes(size);
    // Runs of repeated values keep the bytes compressible, as real data often is.
    for (int i = 0; i < size;) {
        const zo::uint8 value = static_cast<zo::uint8>(random() % 255 + 1);
        const int run = static_cast<int>(random() % 16 + 1);
        for (int j = 0; j < run && i < size; ++j, ++i)
            bytes[i] = value;
    }
    return bytes;
}

Bytes zeroBytes(int size)
{
    Bytes bytes(size);
    if (size > 0)
        std::memset(bytes.getData(), 0, static_cast<size_t>(size));
    return bytes;
}

Bytes prepareBrick(const brick::CBrickDiskHeader& header, const Key& key, const Bytes& plain)
{
    brick::CBrickDataPreparer preparer(header, key);
    Bytes prepared;
    preparer.prepareData(plain, prepared);
    return prepared;
}

Bytes unprepareBrick(const brick::CBrickDiskHeader& header, const Key& key, const Bytes& prepared)
{
    brick::CBrickDataPreparer preparer(header, key);
    Bytes plain;
    preparer.unprepareData(prepared, plain);
    return plain;
}

zo::P<Bytes> countedCopy(const Bytes& bytes)
{
    return zo::P<Bytes>(new Bytes(bytes));
}

zo::TList<zo::CURI> foldersOf(const std::vector<const char*>& paths)
{
    zo::TList<zo::CURI> folders;
    for (const char* path : paths)
        folders.push_back(zo::CURI(path));
    return folders;
}

zo::P<brick::CBrickStoreQueue> makeQueueOver(zo::IFileSystem* fs, const brick::CBrickDiskHeader& header, const Key& key,
                                             int maxStores, const char* disk, const char* child,
                                             const std::vector<const char*>& parents)
{
    const zo::P<brick::CBrickReader> reader(
        new brick::CBrickReader(fs, brick::CBrickReader::chainOf(zo::CURI(disk), foldersOf(parents)), header, key));
    return zo::P<brick::CBrickStoreQueue>(new brick::CBrickStoreQueue(reader.get(), zo::CURI(child), maxStores));
}

zo::P<brick::CBrick> makeBrickOver(zo::IFileSystem* fs, const brick::CBrickDiskHeader& header, const Key& key,
                                   int maxBackgroundOps, const char* disk, const char* child,
                                   const std::vector<const char*>& parents)
{
    return zo::P<brick::CBrick>(
        new brick::CBrick(fs, zo::CURI(disk), zo::CURI(child), foldersOf(parents), header, key, maxBackgroundOps));
}

bool sameBytes(const Bytes& a, const Bytes& b)
{
    return a.getUsed() == b.getUsed() &&
        (a.getUsed() == 0 || std::memcmp(a.getData(), b.getData(), static_cast<size_t>(a.getUsed())) == 0);
}

std::vector<std::string> toStrings(const zo::TList<zo::String>& list)
{
    std::vector<std::string> result;
    for (const zo::String& text : list)
        result.push_back(text.toUTF8());
    return result;
}

void CountingListener::onDone(const zo::CError* error)
{
    {
        std::lock_guard lock(m_mutex);
        m_lastError = error ? error->clone() : zo::P<zo::CError>();
    }
    m_calls.fetch_add(1);
    m_called.set();
}

bool CountingListener::waitCalled(int timeoutMillis)
{
    return m_called.wait(timeoutMillis);
}

zo::P<zo::CError> CountingListener::getLastError() const
{
    std::lock_guard lock(m_mutex);
    return m_lastError;
}

LogCapture::LogCapture()
{
    m_previous = zo::setLogSink([this](zo::LogLevel, const zo::String& line) {
        std::lock_guard lock(m_mutex);
        m_lines.push_back(line.toUTF8());
    });
}

LogCapture::~LogCapture()
{
    zo::setLogSink(m_previous);
}

std::vector<std::string> LogCapture::lines() const
{
    std::lock_guard lock(m_mutex);
    return m_lines;
}

int LogCapture::countContaining(const std::string& text) const
{
    std::lock_guard lock(m_mutex);
    int count = 0;
    for (const std::string& line : m_lines) {
        if (line.find(text) != std::string::npos)
            ++count;
    }
    return count;
}

// Takes the completion of one operation from the inner file system and keeps
// it in the wrapper's queue.
class SteppedFileSystem::Holder : public zo::CBase, public zo::IDoneListener {
public:
    Holder(SteppedFileSystem* owner, zo::IDoneListener* target) : m_owner(owner), m_target(target) {}
    void onDone(const zo::CError* error) override { m_owner->hold(m_target, error); }

private:
    zo::P<SteppedFileSystem> m_owner;
    zo::P<zo::IDoneListener> m_target;
};

SteppedFileSystem::SteppedFileSystem(zo::IFileSystem* inner, bool holdCompletions)
    : CForwardingFileSystem(inner), m_holdCompletions(holdCompletions)
{}

bool SteppedFileSystem::waitForHeld(int timeoutMillis)
{
    std::unique_lock lock(m_mutex);
    return m_heldChanged.wait_for(lock, std::chrono::milliseconds(timeoutMillis), [this] { return !m_held.empty(); });
}

bool SteppedFileSystem::deliverNext()
{
    HeldCompletion next;
    {
        std::lock_guard lock(m_mutex);
        if (m_held.empty())
            return false;
        next = std::move(m_held.front());
        m_held.pop_front();
    }
    next.listener->onDone(next.error.get());
    return true;
}

int SteppedFileSystem::getHeldCount() const
{
    std::lock_guard lock(m_mutex);
    return static_cast<int>(m_held.size());
}

void SteppedFileSystem::throwOnStart(Operation kind, int nth, zo::CFileSystemError::Problem problem)
{
    std::lock_guard lock(m_mutex);
    m_throwKind = kind;
    m_throwNth = nth;
    m_throwProblem = problem;
}

std::vector<SteppedFileSystem::FlaggedCall> SteppedFileSystem::getStores() const
{
    std::lock_guard lock(m_mutex);
    return m_stores;
}

std::vector<SteppedFileSystem::FlaggedCall> SteppedFileSystem::getCopies() const
{
    std::lock_guard lock(m_mutex);
    return m_copies;
}

void SteppedFileSystem::checkStart(Operation kind, const zo::CURI& path)
{
    std::lock_guard lock(m_mutex);
    const int count = ++m_startCounts[static_cast<int>(kind)];
    if (m_throwNth > 0 && kind == m_throwKind && count == m_throwNth) {
        const zo::CError cause("Refused to start the operation.", zo::String(), -1,
                               zo::CProps().add("path", path.toString(true)));
        throw zo::CFileSystemError(m_throwProblem, cause);
    }
}

zo::P<zo::IDoneListener> SteppedFileSystem::wrap(zo::IDoneListener* listener)
{
    if (!m_holdCompletions)
        return zo::P<zo::IDoneListener>(listener);
    return zo::P<zo::IDoneListener>(new Holder(this, listener));
}

void SteppedFileSystem::hold(const zo::P<zo::IDoneListener>& listener, const zo::CError* error)
{
    {
        std::lock_guard lock(m_mutex);
        m_held.push_back(HeldCompletion{listener, error ? error->clone() : zo::P<zo::CError>()});
    }
    m_heldChanged.notify_all();
}

zo::P<zo::IFileSystemOp> SteppedFileSystem::beginStoreFile(const zo::CURI& file, int size, zo::IInStream* source,
                                                           bool overwrite, zo::IDoneListener* listener)
{
    checkStart(Operation::StoreFile, file);
    {
        std::lock_guard lock(m_mutex);
        m_stores.push_back(FlaggedCall{file.toString(true).toUTF8(), overwrite});
    }
    return getInner()->beginStoreFile(file, size, source, overwrite, wrap(listener).get());
}

zo::P<zo::IFileSystemOp> SteppedFileSystem::beginCreateFolder(const zo::CURI& folder, int mode,
                                                              zo::IDoneListener* listener)
{
    checkStart(Operation::CreateFolder, folder);
    return getInner()->beginCreateFolder(folder, mode, wrap(listener).get());
}

zo::P<zo::IFileSystemOp> SteppedFileSystem::beginMoveFile(const zo::CURI& from, const zo::CURI& to, bool overwrite,
                                                          zo::IDoneListener* listener)
{
    checkStart(Operation::MoveFile, from);
    return getInner()->beginMoveFile(from, to, overwrite, wrap(listener).get());
}

zo::P<zo::IFileSystemOp> SteppedFileSystem::beginCopyFile(const zo::CURI& from, const zo::CURI& to, bool overwrite,
                                                          zo::IDoneListener* listener)
{
    checkStart(Operation::CopyFile, from);
    {
        std::lock_guard lock(m_mutex);
        m_copies.push_back(FlaggedCall{from.toString(true).toUTF8(), overwrite});
    }
    return getInner()->beginCopyFile(from, to, overwrite, wrap(listener).get());
}

zo::P<zo::IFileSystemOp> SteppedFileSystem::beginDeleteFile(const zo::CURI& file, zo::IDoneListener* listener)
{
    checkStart(Operation::DeleteFile, file);
    return getInner()->beginDeleteFile(file, wrap(listener).get());
}

} // namespace testsupport
