#include "BrickImporter.h"

#include "brick/chain/Brick.h"
#include "zo/Buffer.h"
#include "zo/Error.h"

#include <algorithm>
#include <cstring>

namespace cli {

CBrickImporter::CBrickImporter(brick::CBrickDisk& disk, int jobs)
    : m_brickSize(static_cast<int>(disk.getBrickSize())), m_diskSize(disk.getSize()),
      m_storeQueue(disk.getStoreQueue()), m_window(2 * std::max(1, jobs) + 2), m_workers(std::max(1, jobs)),
      m_pool(std::max(1, jobs))
{
    for (Worker& worker : m_workers) {
        worker.preparer = disk.createDataPreparer();
        worker.brick = disk.newStandAloneBrickObject();
        worker.current = zo::TBuffer<zo::uint8>(m_brickSize);
    }
}

void CBrickImporter::runTask(const std::shared_ptr<Task>& task, Worker& worker)
{
    // A brick that fails ends the import: the pool stops, so later bricks
    // are not started (on a cluster that stopped answering each would wait
    // out its time-out), while the bricks before it were started earlier
    // and still complete.
    decide(*task, worker);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_done[task->index] = task;
}

void CBrickImporter::decide(Task& task, Worker& worker) const
{
    brick::CBrick& brick = *worker.brick;
    zo::TBuffer<zo::uint8>& current = worker.current;
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
    worker.preparer->prepareData(task.plain, *task.prepared, task.index);
}

std::shared_ptr<CBrickImporter::Task> CBrickImporter::waitForResult(zo::int64 index)
{
    const auto takeDone = [&]() -> std::shared_ptr<Task> {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_done.find(index);
        if (found == m_done.end())
            return nullptr;
        std::shared_ptr<Task> task = std::move(found->second);
        m_done.erase(found);
        return task;
    };
    int ended = 0;
    for (;;) {
        if (std::shared_ptr<Task> task = takeDone())
            return task;
        if (m_pool.isStopped()) {
            // Every brick before the failed one was started before it:
            // once the running jobs end, they are all decided.
            m_pool.waitDone(-1);
            if (std::shared_ptr<Task> task = takeDone())
                return task;
            m_pool.wait();
        }
        ended = m_pool.waitForEndedJobs(ended, -1);
    }
}

void CBrickImporter::handOver(Task& task)
{
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
            m_pool.post([this, posted = std::shared_ptr<Task>(std::move(task))](int worker) {
                runTask(posted, m_workers[static_cast<size_t>(worker)]);
            });
            ++nextToRead;
        }
        if (nextToHandOver == nextToRead)
            break;
        const std::shared_ptr<Task> task = waitForResult(nextToHandOver);
        handOver(*task);
        bytesHandedOver += task->imageBytes;
        ++nextToHandOver;
        onProgress(bytesHandedOver);
    }
    if (sourceError)
        std::rethrow_exception(sourceError);
}

} // namespace cli
