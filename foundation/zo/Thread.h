// CThread: a thread of its own that runs an IRunnable, or the class's own
// run() when derived from, or a function (startThread). Counted; the thread
// keeps its CThread alive while it runs.
#pragma once

#include "zo/Base.h"
#include "zo/Export.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>

namespace zo {

class BRICKDISK_EXPORT IRunnable : public virtual IBase {
public:
    virtual void run() = 0;
};

// Every public call may be made from any thread. An exception that leaves
// run() is logged and ends the thread; it never reaches the caller.
class BRICKDISK_EXPORT CThread : public CBase {
public:
    // `runnable` (may be null when a derived class overrides run) is held by a
    // counted reference. With `joinOnStop` true, stop(false) waits for the
    // thread to end; with false it only asks. The destructor, which runs once
    // the thread has let go of the object, never waits for more than the
    // thread's last steps.
    explicit CThread(IRunnable* runnable = nullptr, bool joinOnStop = true);
    ~CThread() override;
    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;

    // Starts the thread, which holds a reference to this object until it
    // ends. A CThread runs once: a second call throws CError.
    void start();
    bool isRunning() const { return m_running.load(); }
    // Asks the thread to stop (checkContinue turns false) and, unless `async`
    // is true or the object was made without `joinOnStop`, waits until it has
    // ended. Called on the thread itself it does not wait.
    virtual void stop(bool async);
    // Asks the thread to stop without waiting.
    virtual void signalStop();
    // Waits until the thread has ended (no-op when never started, already
    // joined, or called on the thread itself).
    void join();

protected:
    // False once stop was asked for; run loops test it.
    virtual bool checkContinue();
    // The thread's work: calls the runnable's run().
    virtual void run();
    // Called on the thread after run() returned or threw; an exception from
    // it is logged.
    virtual void onRunFinished() {}
    // Releases the reference the thread held on its CThread.
    virtual void deleteThis();

private:
    void threadMain();

    P<IRunnable> m_runnable;
    bool m_joinOnStop;
    std::thread m_thread;
    // Held by start() until m_thread is set; the new thread waits for it
    // before it runs, so nothing on the thread sees m_thread half-assigned.
    std::mutex m_startMutex;
    bool m_started = false; // guarded by m_startMutex
    std::mutex m_joinMutex;
    std::atomic<bool> m_stopRequested{false};
    std::atomic<bool> m_running{false};
};

// Starts a CThread that runs `work` once and returns it. The caller keeps
// it and joins it (join, or stop(false)) before anything `work` uses goes;
// `work` learns of a stop only through means of its own. An exception that
// leaves `work` is logged and ends the thread. Throws what starting a
// thread throws (std::system_error). Any thread may call it.
BRICKDISK_EXPORT P<CThread> startThread(std::function<void()> work);

} // namespace zo
