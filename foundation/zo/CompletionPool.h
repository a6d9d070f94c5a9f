// CCompletionPool: a few worker threads that run queued tasks, each no earlier
// than its due time. The file systems run their asynchronous operations and
// completions on it, and so may any other IFileSystem implementation.
#pragma once

#include "zo/Base.h"
#include "zo/Export.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace zo {

class BRICKDISK_EXPORT CCompletionPool : public CBase {
public:
    using Task = std::function<void()>;

    // A pool with `threadCount` workers (at least one). Each worker holds a
    // counted reference to the pool until it ends, so the pool may outlive its
    // owner. Throws CError when a thread cannot be started.
    static P<CCompletionPool> create(int threadCount);
    CCompletionPool(const CCompletionPool&) = delete;
    CCompletionPool& operator=(const CCompletionPool&) = delete;

    // Queues `task` to run on a worker after `delayMillis` (0: as soon as one is
    // free). Tasks with the same due time start in the order they were posted.
    // An exception that leaves a task is logged. Throws CError after shutdown.
    // Any thread may call it.
    void post(Task task, int delayMillis = 0);

    // Waits until no task is queued or running (a task that calls it does not
    // wait for itself).
    void waitUntilIdle();

    // Runs every queued task, then ends the workers. Called from a worker
    // thread (a task that drops the last reference to the pool's owner), that
    // worker helps to run the queue and ends once its own task returns.
    // Further calls do nothing. Never throws.
    void shutdown() noexcept;

    // True on one of this pool's worker threads.
    bool isWorkerThread() const;

private:
    using Clock = std::chrono::steady_clock;

    CCompletionPool() = default;
    void workerMain();
    // Runs the next due task, or waits for one to fall due or to be posted.
    // Returns false when the pool stops and nothing is left to run.
    bool runNextOrWait(std::unique_lock<std::mutex>& lock);
    int ownRunningTasks() const;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::multimap<Clock::time_point, Task> m_queue;
    std::vector<std::thread> m_threads;
    int m_running = 0;
    bool m_stopping = false;
};

} // namespace zo
