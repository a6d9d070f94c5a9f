#include "support/PowerCutFileSystem.h"

#include "support/DiskTestHelpers.h"

#include <algorithm>

namespace testsupport {

namespace {

class CMarkingListener : public zo::CBase, public zo::IDoneListener {
public:
    CMarkingListener(std::shared_ptr<PowerCutFileSystem::Change> change, std::mutex& mutex,
                     zo::IDoneListener* listener)
        : m_change(std::move(change)), m_mutex(mutex), m_listener(listener)
    {
    }
    void onDone(const zo::CError* error) override
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_change->ended = true;
            m_change->succeeded = !error;
        }
        if (m_listener)
            m_listener->onDone(error);
    }

private:
    std::shared_ptr<PowerCutFileSystem::Change> m_change;
    std::mutex& m_mutex;
    zo::P<zo::IDoneListener> m_listener;
};

} // namespace

PowerCutFileSystem::PowerCutFileSystem(zo::IFileSystem* inner) : m_inner(inner) {}

std::shared_ptr<PowerCutFileSystem::Change> PowerCutFileSystem::record(Change::Kind kind, const zo::CURI& path)
{
    const auto change = std::make_shared<Change>();
    change->kind = kind;
    change->path = path;
    if (kind != Change::CreateFolder && m_inner->fileExists(path)) {
        const zo::P<zo::IIOStream> stream = m_inner->openStream(path, zo::IIOStream::AccessRead, 0);
        change->existed = true;
        change->before = zo::TBuffer<zo::uint8>(static_cast<int>(stream->getLength()));
        stream->read(change->before.getData(), change->before.getUsed());
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_unsynced.push_back(change);
    return change;
}

zo::P<zo::IDoneListener> PowerCutFileSystem::marking(const std::shared_ptr<Change>& change,
                                                     zo::IDoneListener* listener)
{
    return zo::P<zo::IDoneListener>(new CMarkingListener(change, m_mutex, listener));
}

void PowerCutFileSystem::syncBatch()
{
    m_inner->syncBatch();
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::erase_if(m_unsynced, [](const std::shared_ptr<Change>& change) { return change->ended; });
}

int PowerCutFileSystem::getUnsyncedChangeCount() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<int>(std::count_if(m_unsynced.begin(), m_unsynced.end(),
                                          [](const std::shared_ptr<Change>& change) { return change->succeeded; }));
}

void PowerCutFileSystem::cutPower(Loss loss)
{
    std::vector<std::shared_ptr<Change>> changes;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        changes.swap(m_unsynced);
    }
    for (auto it = changes.rbegin(); it != changes.rend(); ++it) {
        if ((*it)->succeeded && (loss == Loss::Everything || (*it)->kind == Change::CreateFolder))
            undo(**it);
    }
}

void PowerCutFileSystem::undo(const Change& change)
{
    if (change.kind == Change::CreateFolder) {
        if (!m_inner->folderExists(change.path))
            return;
        for (const std::string& file : filesBelow(m_inner.get(), change.path))
            m_inner->deleteFile(change.path << zo::CURI(zo::String(file)), true);
        return;
    }
    if (!change.existed) {
        m_inner->deleteFile(change.path, true);
        return;
    }
    const zo::P<zo::IIOStream> stream =
        m_inner->openStream(change.path, zo::IIOStream::AccessWrite, zo::IIOStream::OptionReplace);
    stream->write(change.before.getData(), change.before.getUsed());
    stream->flush();
    stream->close();
}

zo::P<zo::IFileSystemOp> PowerCutFileSystem::beginStoreFileBatched(const zo::CURI& file, int size,
                                                                   zo::IInStream* source, bool overwrite,
                                                                   zo::IDoneListener* listener)
{
    const zo::P<zo::IDoneListener> marked = marking(record(Change::Store, file), listener);
    return m_inner->beginStoreFileBatched(file, size, source, overwrite, marked.get());
}

zo::P<zo::IFileSystemOp> PowerCutFileSystem::beginCreateFolder(const zo::CURI& folder, int mode,
                                                               zo::IDoneListener* listener)
{
    const zo::P<zo::IDoneListener> marked = marking(record(Change::CreateFolder, folder), listener);
    return m_inner->beginCreateFolder(folder, mode, marked.get());
}

zo::P<zo::IFileSystemOp> PowerCutFileSystem::beginDeleteFile(const zo::CURI& file, zo::IDoneListener* listener)
{
    const zo::P<zo::IDoneListener> marked = marking(record(Change::Delete, file), listener);
    return m_inner->beginDeleteFile(file, marked.get());
}

zo::P<zo::IFileSystemOp> PowerCutFileSystem::beginStoreFile(const zo::CURI& file, int size, zo::IInStream* source,
                                                            bool overwrite, zo::IDoneListener* listener)
{
    return m_inner->beginStoreFile(file, size, source, overwrite, listener);
}

zo::P<zo::IFileSystemOp> PowerCutFileSystem::beginMoveFile(const zo::CURI& from, const zo::CURI& to, bool overwrite,
                                                           zo::IDoneListener* listener)
{
    return m_inner->beginMoveFile(from, to, overwrite, listener);
}

zo::P<zo::IFileSystemOp> PowerCutFileSystem::beginCopyFile(const zo::CURI& from, const zo::CURI& to, bool overwrite,
                                                           zo::IDoneListener* listener)
{
    return m_inner->beginCopyFile(from, to, overwrite, listener);
}

zo::P<zo::IFileInfo> PowerCutFileSystem::getFileInfo(const zo::CURI& path, bool throwIfMissing)
{
    return m_inner->getFileInfo(path, throwIfMissing);
}

zo::P<zo::IIOStream> PowerCutFileSystem::openStream(const zo::CURI& file, zo::IIOStream::Access access,
                                                    const int& options)
{
    return m_inner->openStream(file, access, options);
}

void PowerCutFileSystem::createFolder(const zo::CURI& folder, int mode)
{
    m_inner->createFolder(folder, mode);
}

bool PowerCutFileSystem::fileExists(const zo::CURI& file)
{
    return m_inner->fileExists(file);
}

bool PowerCutFileSystem::folderExists(const zo::CURI& folder)
{
    return m_inner->folderExists(folder);
}

bool PowerCutFileSystem::pathExists(const zo::CURI& path)
{
    return m_inner->pathExists(path);
}

void PowerCutFileSystem::deleteFile(const zo::CURI& file, bool ignoreMissing)
{
    m_inner->deleteFile(file, ignoreMissing);
}

zo::TList<zo::String> PowerCutFileSystem::listFolder(const zo::CURI& folder)
{
    return m_inner->listFolder(folder);
}

zo::P<zo::IFileSystemLock> PowerCutFileSystem::lockFolder(const zo::CURI& folder, bool exclusive)
{
    return m_inner->lockFolder(folder, exclusive);
}

int PowerCutFileSystem::removeTemporaryFiles(const zo::CURI& folder)
{
    return m_inner->removeTemporaryFiles(folder);
}

} // namespace testsupport
