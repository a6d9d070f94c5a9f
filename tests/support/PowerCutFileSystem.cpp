#include "support/PowerCutFileSystem.h"

#include "support/DiskTestHelpers.h"

#include <algorithm>

namespace testsupport {

namespace {

class CMarkingListener : public zo::CBase, public zo::IDoneListener {
public:
    CMarkingListener(std::shared_ptr<PowerCutFileSystem::Change> change, std::mutex& mutex, zo::IDoneListener* listener)
        : m_change(std::move(change)), m_mutex(mutex), m_listener(listener)
    {}
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

PowerCutFileSystem::PowerCutFileSystem(zo::IFileSystem* inner) : CForwardingFileSystem(inner)
{}

std::shared_ptr<PowerCutFileSystem::Change> PowerCutFileSystem::record(Change::Kind kind, const zo::CURI& path)
{
    const auto change = std::make_shared<Change>();
    change->kind = kind;
    change->path = path;
    if (kind != Change::CreateFolder && getInner()->fileExists(path)) {
        const zo::P<zo::IIOStream> stream = getInner()->openStream(path, zo::IIOStream::AccessRead, 0);
        change->existed = true;
        change->before = zo::TBuffer<zo::uint8>(static_cast<int>(stream->getLength()));
        stream->read(change->before.getData(), change->before.getUsed());
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_unsynced.push_back(change);
    return change;
}

zo::P<zo::IDoneListener> PowerCutFileSystem::marking(const std::shared_ptr<Change>& change, zo::IDoneListener* listener)
{
    return zo::P<zo::IDoneListener>(new CMarkingListener(change, m_mutex, listener));
}

void PowerCutFileSystem::syncBatch()
{
    getInner()->syncBatch();
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
        if (!getInner()->folderExists(change.path))
            return;
        for (const std::string& file : filesBelow(getInner(), change.path))
            getInner()->deleteFile(change.path << zo::CURI(zo::String(file)), true);
        return;
    }
    if (!change.existed) {
        getInner()->deleteFile(change.path, true);
        return;
    }
    const zo::P<zo::IIOStream> stream =
        getInner()->openStream(change.path, zo::IIOStream::AccessWrite, zo::IIOStream::OptionReplace);
    stream->write(change.before.getData(), change.before.getUsed());
    stream->flush();
    stream->close();
}

zo::P<zo::IFileSystemOp> PowerCutFileSystem::beginStoreFileBatched(const zo::CURI& file, int size,
                                                                   zo::IInStream* source, bool overwrite,
                                                                   zo::IDoneListener* listener)
{
    const zo::P<zo::IDoneListener> marked = marking(record(Change::Store, file), listener);
    return getInner()->beginStoreFileBatched(file, size, source, overwrite, marked.get());
}

zo::P<zo::IFileSystemOp> PowerCutFileSystem::beginCreateFolder(const zo::CURI& folder, int mode,
                                                               zo::IDoneListener* listener)
{
    const zo::P<zo::IDoneListener> marked = marking(record(Change::CreateFolder, folder), listener);
    return getInner()->beginCreateFolder(folder, mode, marked.get());
}

zo::P<zo::IFileSystemOp> PowerCutFileSystem::beginDeleteFile(const zo::CURI& file, zo::IDoneListener* listener)
{
    const zo::P<zo::IDoneListener> marked = marking(record(Change::Delete, file), listener);
    return getInner()->beginDeleteFile(file, marked.get());
}

} // namespace testsupport
