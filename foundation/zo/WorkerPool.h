// CWorkerPool: a fixed number of worker threads that run queued jobs, for
// work that a command spreads over several threads and waits for. The first
// job that throws stops the pool: jobs not yet started are dropped, running
// ones end on their own, and the error goes back to the caller of wait().
#pragma once

#include "zo/Export.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace zo {

class BRICKDISK_EXPORT CWorkerPool {
public:
    // A job gets the number of the worker that runs it, from 0 to the
    // worker count - 1, so that it can use state of that worker's own.
    using Job = std::function<void(int worker)>;

    // Starts `workerCount` workers (at least one). Throws CError when a
    // thread cannot be started, after ending the ones already started.
    explicit CWorkerPool(int workerCount);
    // Stops the pool and joins every worker: a running job is waited for,
    // queued jobs are dropped. Never throws. Must not run on a worker.
    ~CWorkerPool();
    CWorkerPool(const CWorkerPool&) = delete;
    CWorkerPool& operator=(const CWorkerPool&) = delete;

    int getWorkerCount() const { return static_cast<int>(m_threads.size()); }

    // Queues `job`; jobs start in the order they were posted. A job posted
    // after the pool stopped is dropped. Any thread may call it, a job too.
    void post(Job job);
    // Stops the pool: no further job starts, queued jobs are dropped, running
    // ones end on their own. Any thread may call it; never throws.
    void stop() noexcept;
    // True once stop() was called or a job threw.
    bool isStopped() const;

    // Waits up to `timeoutMillis` (-1: no limit) until no job runs and none is
    // queued (or the pool stopped); true then. Never throws.
    bool waitDone(int timeoutMillis);
    // Waits up to `timeoutMillis` (-1: no limit) until more than `seen` jobs
    // have ended, or waitDone would return true; returns how many jobs have
    // ended (thrown or not). Never throws.
    int waitForEndedJobs(int seen, int timeoutMillis);
    // Waits without limit as waitDone does, then throws the exception of the
    // first job that threw, as it was thrown; later ones are dropped.
    void wait();

    // Neither waitDone, waitForEndedJobs nor wait may be called from a job:
    // the job would wait for itself.

private:
    void workerMain(int worker);
    bool isDoneLocked() const;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Job> m_queue;
    std::vector<std::thread> m_threads;
    int m_running = 0;
    int m_ended = 0;
    bool m_stopped = false;
    std::exception_ptr m_firstError;
};

} // namespace zo
