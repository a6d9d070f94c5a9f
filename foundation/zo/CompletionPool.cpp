#include "zo/CompletionPool.h"

#include "zo/Error.h"
#include "zo/Log.h"

#include <system_error>

namespace zo {

namespace {

// The pool whose worker this thread is, and how many of its tasks this thread
// is running at the moment (more than one when shutdown runs tasks inline).
thread_local const CCompletionPool* t_currentPool = nullptr;
thread_local int t_runningDepth = 0;

void runTask(const CCompletionPool::Task& task)
{
    ++t_runningDepth;
    try {
        task();
    } catch (const std::exception& e) {
        logError(e, "A queued file-system task failed.", String());
    } catch (...) {
        logLine(LogLevel::Error, "A queued file-system task failed with an unknown exception.");
    }
    --t_runningDepth;
}

} // namespace

P<CCompletionPool> CCompletionPool::create(int threadCount)
{
    P<CCompletionPool> pool(new CCompletionPool());
    const int count = threadCount < 1 ? 1 : threadCount;
    try {
        for (int i = 0; i < count; ++i) {
            std::lock_guard lock(pool->m_mutex);
            pool->m_threads.emplace_back([self = pool] { self->workerMain(); });
        }
    } catch (const std::system_error& e) {
        pool->shutdown();
        throw CError("Could not start a file-system worker thread.", String(), -1,
                     CProps().add("systemMessage", String(e.what())));
    }
    return pool;
}

void CCompletionPool::post(Task task, int delayMillis)
{
    std::lock_guard lock(m_mutex);
    if (m_stopping)
        throw CError("The file system's worker threads have been shut down.");
    const auto due = Clock::now() + std::chrono::milliseconds(delayMillis > 0 ? delayMillis : 0);
    m_queue.emplace(due, std::move(task));
    m_changed.notify_all();
}

void CCompletionPool::waitUntilIdle()
{
    std::unique_lock lock(m_mutex);
    const int own = ownRunningTasks();
    m_changed.wait(lock, [&] { return m_queue.empty() && m_running == own; });
}

void CCompletionPool::shutdown() noexcept
{
    std::unique_lock lock(m_mutex);
    if (m_stopping)
        return;
    m_stopping = true;
    m_changed.notify_all();
    if (isWorkerThread()) {
        while (runNextOrWait(lock)) {
        }
    } else {
        m_changed.wait(lock, [&] { return m_queue.empty(); });
    }
    std::vector<std::thread> threads = std::move(m_threads);
    m_threads.clear();
    lock.unlock();
    for (std::thread& thread : threads) {
        if (thread.get_id() == std::this_thread::get_id())
            thread.detach();
        else
            thread.join();
    }
}

bool CCompletionPool::isWorkerThread() const
{
    return t_currentPool == this;
}

void CCompletionPool::workerMain()
{
    t_currentPool = this;
    std::unique_lock lock(m_mutex);
    while (runNextOrWait(lock)) {
    }
}

bool CCompletionPool::runNextOrWait(std::unique_lock<std::mutex>& lock)
{
    if (m_queue.empty()) {
        if (m_stopping)
            return false;
        m_changed.wait(lock);
        return true;
    }
    const auto first = m_queue.begin();
    // A copy: another worker may take the task while this one waits.
    const Clock::time_point due = first->first;
    if (due > Clock::now()) {
        m_changed.wait_until(lock, due);
        return true;
    }
    Task task = std::move(first->second);
    m_queue.erase(first);
    ++m_running;
    lock.unlock();
    runTask(task);
    // The task's captures (listeners, sources) go before the task counts as
    // finished, so an idle pool holds none of them.
    task = nullptr;
    lock.lock();
    --m_running;
    m_changed.notify_all();
    return true;
}

int CCompletionPool::ownRunningTasks() const
{
    return isWorkerThread() ? t_runningDepth : 0;
}

} // namespace zo
