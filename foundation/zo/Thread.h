// CThread: a thread of its own that runs an IRunnable, or the class's own
// run() when derived from. Counted; the thread keeps its CThread alive while
// it runs.
#pragma once

#include "zo/Base.h"

#include <atomic>
#include <mutex>
#include <thread>

namespace zo {

class IRunnable : public virtual IBase {
public:
    virtual void run() = 0;
};

class CThread : public CBase {
public:
    // `runnable` (may be null when a derived class overrides run) is held by a
    // counted reference. With `joinOnStop` true, stop(false) and the destructor
    // wait for the thread to end.
    explicit CThread(IRunnable* runnable = nullptr, bool joinOnStop = true);
    ~CThread() override;
    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;

    // Starts the thread; a second call throws CError.
    void start();
    bool isRunning() const { return m_running.load(); }
    // Asks the thread to stop (checkContinue turns false) and, unless `async`
    // is true, waits until it has ended. A thread may not wait for itself.
    virtual void stop(bool async);
    // Asks the thread to stop without waiting.
    virtual void signalStop();
    // Waits until the thread has ended (no-op when never started).
    void join();

protected:
    // False once stop was asked for; run loops test it.
    virtual bool checkContinue();
    // The thread's work: calls the runnable's run().
    virtual void run();
    // Called on the thread after run() returned or threw.
    virtual void onRunFinished() {}
    // Releases the reference the thread held on its CThread.
    virtual void deleteThis();

private:
    void threadMain();

    P<IRunnable> m_runnable;
    bool m_joinOnStop;
    std::thread m_thread;
    std::mutex m_joinMutex;
    std::atomic<bool> m_stopRequested{false};
    std::atomic<bool> m_running{false};
};

} // namespace zo
