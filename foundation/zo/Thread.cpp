#include "zo/Thread.h"

#include "zo/Error.h"
#include "zo/Log.h"

namespace zo {

CThread::CThread(IRunnable* runnable, bool joinOnStop) : m_runnable(runnable), m_joinOnStop(joinOnStop) {}

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
    if (m_thread.joinable() || m_running)
        throw CError("Thread already started.");
    addRef(); // released by deleteThis when the thread ends
    m_running = true;
    try {
        m_thread = std::thread(&CThread::threadMain, this);
    } catch (...) {
        m_running = false;
        release();
        throw;
    }
}

void CThread::threadMain()
{
    try {
        run();
    } catch (const std::exception& e) {
        logError(e, "Thread ended by an exception.", String());
    } catch (...) {
        logLine(LogLevel::Error, "Thread ended by an unknown exception.");
    }
    onRunFinished();
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

} // namespace zo
