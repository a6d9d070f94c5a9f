#include "zo/WorkerPool.h"

#include "zo/Error.h"

#include <chrono>
#include <system_error>

namespace zo {

CWorkerPool::CWorkerPool(int workerCount)
{
    const int count = workerCount < 1 ? 1 : workerCount;
    try {
        m_threads.reserve(static_cast<size_t>(count));
        for (int worker = 0; worker < count; ++worker)
            m_threads.emplace_back(&CWorkerPool::workerMain, this, worker);
    } catch (const std::system_error& e) {
        stop();
        for (std::thread& thread : m_threads)
            thread.join();
        throw CError("A worker thread could not be started.", String(), -1,
                     CProps().add("workers", count).add("systemMessage", String(e.what())));
    }
}

CWorkerPool::~CWorkerPool()
{
    stop();
    for (std::thread& thread : m_threads) {
        if (thread.joinable())
            thread.join();
    }
}

void CWorkerPool::post(Job job)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopped)
            return;
        m_queue.push_back(std::move(job));
    }
    m_changed.notify_all();
}

void CWorkerPool::stop() noexcept
{
    std::deque<Job> dropped;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopped = true;
        dropped.swap(m_queue);
    }
    m_changed.notify_all();
    // What the dropped jobs hold goes here, outside the lock.
}

bool CWorkerPool::isStopped() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_stopped;
}

bool CWorkerPool::isDoneLocked() const
{
    return m_running == 0 && m_queue.empty();
}

bool CWorkerPool::waitDone(int timeoutMillis)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto done = [this] { return isDoneLocked(); };
    if (timeoutMillis < 0) {
        m_changed.wait(lock, done);
        return true;
    }
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMillis), done);
}

int CWorkerPool::waitForEndedJobs(int seen, int timeoutMillis)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto changed = [&] { return m_ended > seen || isDoneLocked(); };
    if (timeoutMillis < 0)
        m_changed.wait(lock, changed);
    else
        m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMillis), changed);
    return m_ended;
}

void CWorkerPool::wait()
{
    waitDone(-1);
    std::exception_ptr error;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        error = m_firstError;
    }
    if (error)
        std::rethrow_exception(error);
}

void CWorkerPool::workerMain(int worker)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [this] { return m_stopped || !m_queue.empty(); });
        if (m_stopped)
            return;
        Job job = std::move(m_queue.front());
        m_queue.pop_front();
        ++m_running;
        lock.unlock();
        std::exception_ptr error;
        try {
            job(worker);
        } catch (...) {
            error = std::current_exception();
        }
        // What the job holds goes before its end is seen.
        job = nullptr;
        std::deque<Job> dropped;
        lock.lock();
        if (error && !m_firstError) {
            m_firstError = error;
            m_stopped = true;
            dropped.swap(m_queue);
        }
        --m_running;
        ++m_ended;
        m_changed.notify_all();
        if (!dropped.empty()) {
            lock.unlock();
            dropped.clear();
            lock.lock();
        }
    }
}

} // namespace zo
