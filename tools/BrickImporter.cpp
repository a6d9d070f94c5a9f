#include "BrickImporter.h"

#include "brick/chain/Brick.h"
#include "zo/Buffer.h"
#include "zo/Error.h"

#include <algorithm>
#include <cstring>

namespace cli {

CBrickImporter::CBrickImporter(brick::CBrickDisk& disk, int jobs)
    : m_brickSize(static_cast<int>(disk.getBrickSize())), m_diskSize(disk.getSize()),
      m_storeQueue(disk.getStoreQueue()), m_window(2 * std::max(1, jobs) + 2)
{
    for (int i = 0; i < std::max(1, jobs); ++i) {
        zo::P<brick::CBrickDataPreparer> preparer = disk.createDataPreparer();
        zo::P<brick::CBrick> brick = disk.newStandAloneBrickObject();
        m_workers.emplace_back([this, preparer, brick] { workerLoop(preparer, brick); });
    }
}

CBrickImporter::~CBrickImporter()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_taskQueued.notify_all();
    for (std::thread& worker : m_workers)
        worker.join();
}

void CBrickImporter::workerLoop(zo::P<brick::CBrickDataPreparer> preparer, zo::P<brick::CBrick> brick)
{
    zo::TBuffer<zo::uint8> current(m_brickSize);
    for (;;) {
        std::unique_ptr<Task> task;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_taskQueued.wait(lock, [this] { return m_stopping || !m_queue.empty(); });
            if (m_stopping)
                return;
            task = std::move(m_queue.front());
            m_queue.pop_front();
        }
        try {
            decide(*task, *preparer, *brick, current);
        } catch (...) {
            task->outcome = Task::Failed;
            task->error = std::current_exception();
        }
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            // The import ends at a failed brick: the bricks before it were
            // taken earlier and still complete, later ones are not started
            // (on a cluster that stopped answering each would wait out its
            // time-out).
            if (task->outcome == Task::Failed)
                m_stopping = true;
            m_done[task->index] = std::move(task);
        }
        m_taskQueued.notify_all();
        m_taskDone.notify_all();
    }
}

void CBrickImporter::decide(Task& task, brick::CBrickDataPreparer& preparer, brick::CBrick& brick,
                            zo::TBuffer<zo::uint8>& current) const
{
    // What the disk holds now. A brick that no disk of the chain has a file
    // for reads as zeros; a brick whose file cannot be decoded (a damaged
    // file) counts as different, so that the import replaces it, while a
    // file system that fails to answer ends the import. Loading the brick
    // tells all at once: one look per brick, which on an object store that
    // has listed the brick's folder costs nothing for a missing brick.
    enum { Absent, Read, Unreadable } state = Absent;
    current.setUsed(0);
    brick.seek(task.index, 0);
    try {
        if (brick.isStored()) {
            state = Read;
            current.setUsed(m_brickSize);
            current.setUsed(brick.readLaxInsideBrick(current.getData(), m_brickSize));
        }
    } catch (const zo::CFileSystemError&) {
        throw;
    } catch (const zo::CError&) {
        state = Unreadable;
        current.setUsed(0);
    }
    if (task.hole) {
        // A hole of the image where no disk of the chain holds the brick.
        if (state == Absent) {
            task.zero = true;
            task.outcome = Task::Unchanged;
            return;
        }
        task.plain.setUsed(m_brickSize);
        std::memset(task.plain.getData(), 0, static_cast<size_t>(m_brickSize));
    }

    // Bytes of the brick beyond the image's end keep what the disk holds.
    zo::uint8* plain = task.plain.getData();
    if (task.imageBytes < m_brickSize) {
        const int kept = std::max(0, current.getUsed() - task.imageBytes);
        if (kept > 0)
            std::memcpy(plain + task.imageBytes, current.getData() + task.imageBytes, static_cast<size_t>(kept));
        std::memset(plain + task.imageBytes + kept, 0, static_cast<size_t>(m_brickSize - task.imageBytes - kept));
    }

    task.zero = task.hole || zo::isAllZero(plain, static_cast<size_t>(m_brickSize));
    const bool unchanged = state == Absent ? task.zero
                                           : state == Read && current.getUsed() == m_brickSize &&
            std::memcmp(current.getData(), plain, static_cast<size_t>(m_brickSize)) == 0;
    if (unchanged) {
        task.outcome = Task::Unchanged;
        return;
    }
    task.outcome = Task::Store;
    // The store queue stores an all-zero brick as it must (CBrickStoreQueue).
    if (task.zero)
        return;
    task.prepared = zo::P<zo::TBuffer<zo::uint8>>(new zo::TBuffer<zo::uint8>());
    preparer.prepareData(task.plain, *task.prepared, task.index);
}

std::unique_ptr<CBrickImporter::Task> CBrickImporter::waitForResult(zo::int64 index)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_taskDone.wait(lock, [&] { return m_done.count(index) != 0; });
    std::unique_ptr<Task> task = std::move(m_done[index]);
    m_done.erase(index);
    return task;
}

void CBrickImporter::handOver(Task& task)
{
    if (task.outcome == Task::Failed)
        std::rethrow_exception(task.error);
    if (task.outcome == Task::Unchanged) {
        ++m_counts.skipped;
        return;
    }
    m_storeQueue->store(task.index, task.prepared.get(), nullptr);
    ++(task.zero ? m_counts.zero : m_counts.written);
    if (task.prepared)
        m_counts.storedBytes += task.prepared->getUsed();
}

void CBrickImporter::run(CImageSource& source, const std::function<void(zo::int64)>& onProgress)
{
    zo::int64 nextToRead = 0;
    zo::int64 nextToHandOver = 0;
    zo::int64 bytesHandedOver = 0;
    bool endOfImage = false;
    std::exception_ptr sourceError;
    for (;;) {
        while (!endOfImage && nextToRead - nextToHandOver < m_window) {
            const zo::int64 start = nextToRead * m_brickSize;
            const int wanted = static_cast<int>(std::min<zo::int64>(m_brickSize, m_diskSize - start));
            auto task = std::make_unique<Task>();
            task->index = nextToRead;
            if (wanted == m_brickSize && source.skipHole(wanted)) {
                task->hole = true;
                task->imageBytes = wanted;
            } else {
                task->plain.setUsed(m_brickSize);
                task->imageBytes = wanted > 0 ? source.read(task->plain.getData(), wanted) : 0;
            }
            if (task->imageBytes < wanted || start + wanted >= m_diskSize)
                endOfImage = true;
            if (task->imageBytes == wanted && start + wanted >= m_diskSize) {
                try {
                    source.refuseMoreThanDisk();
                } catch (const zo::CError&) {
                    sourceError = std::current_exception();
                }
            }
            if (task->imageBytes == 0)
                break;
            m_counts.imageBytes += task->imageBytes;
            {
                const std::lock_guard<std::mutex> lock(m_mutex);
                m_queue.push_back(std::move(task));
            }
            m_taskQueued.notify_one();
            ++nextToRead;
        }
        if (nextToHandOver == nextToRead)
            break;
        const std::unique_ptr<Task> task = waitForResult(nextToHandOver);
        handOver(*task);
        bytesHandedOver += task->imageBytes;
        ++nextToHandOver;
        onProgress(bytesHandedOver);
    }
    if (sourceError)
        std::rethrow_exception(sourceError);
}

} // namespace cli
