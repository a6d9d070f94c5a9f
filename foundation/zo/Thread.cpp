#include "zo/Thread.h"

#include "zo/Error.h"
#include "zo/Log.h"

#include <exception>
#include <utility>

namespace zo {

namespace {

// The runnable of startThread: a function, run once.
class CFunctionRunnable : public CBase, public IRunnable {
public:
    explicit CFunctionRunnable(std::function<void()> work) : m_work(std::move(work)) {}
    void run() override { m_work(); }

private:
    std::function<void()> m_work;
};

} // namespace

CThread::CThread(IRunnable* runnable, bool joinOnStop) : m_runnable(runnable), m_joinOnStop(joinOnStop)
{}

CThread::~CThread()
{
    m_stopRequested = true;
    // The last reference may go on the thread itself (deleteThis at its end);
    // a thread cannot join itself, so it is detached then.
    if (m_thread.joinable()) {
        if (m_thread.get_id() == std::this_thread::get_id())
            m_thread.detach();
        else
            m_thread.join();
    }
}

void CThread::start()
{
    std::exception_ptr failure;
    {
        std::lock_guard startLock(m_startMutex);
        if (m_started)
            throw CError("Thread already started.");
        addRef(); // released by deleteThis when the thread ends
        m_running = true;
        try {
            m_thread = std::thread(&CThread::threadMain, this);
            m_started = true;
        } catch (...) {
            m_running = false;
            failure = std::current_exception();
        }
    }
    // Outside the lock: this release may destroy the object with its mutex.
    if (failure) {
        release();
        std::rethrow_exception(failure);
    }
}

void CThread::threadMain()
{
    {
        std::lock_guard waitForStart(m_startMutex);
    }
    try {
        run();
    } catch (const std::exception& e) {
        logError(e, "Thread ended by an exception.", String());
    } catch (...) {
        logLine(LogLevel::Error, "Thread ended by an unknown exception.");
    }
    try {
        onRunFinished();
    } catch (const std::exception& e) {
        logError(e, "Thread end handler failed.", String());
    } catch (...) {
        logLine(LogLevel::Error, "Thread end handler failed with an unknown exception.");
    }
    m_running = false;
    deleteThis();
}

void CThread::deleteThis()
{
    release();
}

void CThread::stop(bool async)
{
    signalStop();
    if (!async && m_joinOnStop)
        join();
}

void CThread::signalStop()
{
    m_stopRequested = true;
}

void CThread::join()
{
    std::lock_guard lock(m_joinMutex);
    if (m_thread.joinable() && m_thread.get_id() != std::this_thread::get_id())
        m_thread.join();
}

bool CThread::checkContinue()
{
    return !m_stopRequested.load();
}

void CThread::run()
{
    if (m_runnable)
        m_runnable->run();
}

P<CThread> startThread(std::function<void()> work)
{
    const P<CThread> thread(new CThread(new CFunctionRunnable(std::move(work)), true));
    thread->start();
    return thread;
}

} // namespace zo
