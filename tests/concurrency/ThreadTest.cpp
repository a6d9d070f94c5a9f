#include "zo/Thread.h"
#include "zo/Error.h"
#include "zo/Log.h"
#include "zo/Signal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

using zo::CSignal;
using zo::CThread;
using zo::P;

namespace {

class SettingRunnable : public zo::CBase, public zo::IRunnable {
public:
    P<CSignal> ran{new CSignal()};
    std::thread::id runThread;
    void run() override
    {
        runThread = std::this_thread::get_id();
        ran->set();
    }
};

// Loops until stopped, the way read threads do: constructed with no runnable
// and run() overridden.
class LoopingThread : public CThread {
public:
    LoopingThread() : CThread(nullptr, true) {}

    P<CSignal> started{new CSignal()};
    P<CSignal> loopedThrice{new CSignal()};
    std::atomic<int> rounds{0};
    std::atomic<bool> runEnded{false};
    std::atomic<bool> finishedCalled{false};

protected:
    void run() override
    {
        started->set();
        while (checkContinue()) {
            if (++rounds == 3)
                loopedThrice->set();
            std::this_thread::yield();
        }
        runEnded = true;
    }
    void onRunFinished() override { finishedCalled = true; }
};

// Waits on a gate, then reports its own destruction.
class GatedThread : public CThread {
public:
    GatedThread(P<CSignal> gate, P<CSignal> destroyed, bool joinOnStop)
        : CThread(nullptr, joinOnStop), m_gate(std::move(gate)), m_destroyed(std::move(destroyed))
    {}
    ~GatedThread() override { m_destroyed->set(); }

protected:
    void run() override { m_gate->wait(-1); }

private:
    P<CSignal> m_gate;
    P<CSignal> m_destroyed;
};

class ThrowingThread : public CThread {
public:
    ThrowingThread() : CThread(nullptr, true) {}

protected:
    void run() override { throw std::runtime_error("read failed"); }
};

} // namespace

TEST(CThread, RunsRunnableOnThreadOfItsOwn)
{
    P<SettingRunnable> runnable(new SettingRunnable());
    P<CThread> thread(new CThread(runnable.get(), true));
    thread->start();
    EXPECT_TRUE(runnable->ran->wait(-1));
    thread->stop(false);
    EXPECT_NE(runnable->runThread, std::this_thread::get_id());
}

TEST(CThread, HoldsReferenceToRunnable)
{
    auto* runnable = new SettingRunnable();
    P<CThread> thread(new CThread(runnable, true));
    EXPECT_EQ(runnable->getRefCount(), 1);
}

TEST(CThread, DerivedRunLoopsUntilStopped)
{
    P<LoopingThread> thread(new LoopingThread());
    thread->start();
    ASSERT_TRUE(thread->loopedThrice->wait(-1));
    EXPECT_TRUE(thread->isRunning());
    thread->stop(false);
    EXPECT_TRUE(thread->runEnded.load());
    EXPECT_TRUE(thread->finishedCalled.load());
    EXPECT_FALSE(thread->isRunning());
    const int rounds = thread->rounds.load();
    EXPECT_GE(rounds, 3);
    std::this_thread::yield();
    EXPECT_EQ(thread->rounds.load(), rounds) << "no round after stop(false) returned";
}

TEST(CThread, SignalStopEndsLoopWithoutWaiting)
{
    P<LoopingThread> thread(new LoopingThread());
    thread->start();
    ASSERT_TRUE(thread->started->wait(-1));
    thread->signalStop();
    thread->join();
    EXPECT_TRUE(thread->runEnded.load());
}

TEST(CThread, StopWithoutJoinOnStopDoesNotWait)
{
    P<CSignal> gate(new CSignal());
    P<CSignal> destroyed(new CSignal());
    P<GatedThread> thread(new GatedThread(gate, destroyed, false));
    thread->start();
    thread->stop(false);
    EXPECT_TRUE(thread->isRunning()) << "stop(false) returned while run() still waits";
    gate->set();
    thread->join();
    EXPECT_FALSE(thread->isRunning());
}

TEST(CThread, AsyncStopDoesNotWait)
{
    P<CSignal> gate(new CSignal());
    P<CSignal> destroyed(new CSignal());
    P<GatedThread> thread(new GatedThread(gate, destroyed, true));
    thread->start();
    thread->stop(true);
    EXPECT_TRUE(thread->isRunning());
    gate->set();
    thread->stop(false);
    EXPECT_FALSE(thread->isRunning());
}

TEST(CThread, KeepsItselfAliveWhileRunning)
{
    P<CSignal> gate(new CSignal());
    P<CSignal> destroyed(new CSignal());
    {
        P<GatedThread> thread(new GatedThread(gate, destroyed, true));
        thread->start();
        EXPECT_EQ(thread->getRefCount(), 2);
    }
    EXPECT_FALSE(destroyed->isSet()) << "the running thread holds its object";
    gate->set();
    EXPECT_TRUE(destroyed->wait(-1)) << "the thread's end releases the last reference";
}

TEST(CThread, StartedWithoutOwnerStillEndsAndIsDestroyed)
{
    P<CSignal> gate(new CSignal(true));
    P<CSignal> destroyed(new CSignal());
    (new GatedThread(gate, destroyed, true))->start();
    EXPECT_TRUE(destroyed->wait(-1));
}

TEST(CThread, OwnerReleasingAfterEndDestroysIt)
{
    P<CSignal> gate(new CSignal(true));
    P<CSignal> destroyed(new CSignal());
    P<GatedThread> thread(new GatedThread(gate, destroyed, true));
    thread->start();
    thread->join();
    EXPECT_EQ(thread->getRefCount(), 1);
    EXPECT_FALSE(destroyed->isSet());
    thread.reset();
    EXPECT_TRUE(destroyed->isSet());
}

TEST(CThread, SecondStartThrows)
{
    P<LoopingThread> thread(new LoopingThread());
    thread->start();
    EXPECT_THROW(thread->start(), zo::CError);
    thread->stop(false);
    EXPECT_THROW(thread->start(), zo::CError);
}

TEST(CThread, StopOfUnstartedThreadReturns)
{
    P<LoopingThread> thread(new LoopingThread());
    thread->stop(false);
    EXPECT_FALSE(thread->isRunning());
}

TEST(CThread, ExceptionFromRunIsLoggedAndEndsThread)
{
    std::mutex linesMutex;
    std::vector<std::string> lines;
    zo::LogSink previous = zo::setLogSink([&](zo::LogLevel, const zo::String& line) {
        std::lock_guard lock(linesMutex);
        lines.push_back(line.toUTF8());
    });
    P<ThrowingThread> thread(new ThrowingThread());
    thread->start();
    thread->join();
    zo::setLogSink(previous);
    EXPECT_FALSE(thread->isRunning());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("read failed"), std::string::npos);
}

TEST(CThread, ManyThreadsRunAndStop)
{
    std::vector<P<LoopingThread>> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back(new LoopingThread());
        threads.back()->start();
    }
    for (auto& thread : threads)
        thread->started->wait(-1);
    for (auto& thread : threads)
        thread->stop(false);
    for (auto& thread : threads)
        EXPECT_TRUE(thread->runEnded.load());
}

TEST(CThread, StartThreadRunsTheFunctionOnAThreadOfItsOwnUntilJoined)
{
    CSignal gate;
    std::thread::id runThread;
    bool ended = false;
    const P<CThread> thread = zo::startThread([&] {
        runThread = std::this_thread::get_id();
        gate.wait(-1);
        ended = true;
    });
    EXPECT_TRUE(thread->isRunning());
    gate.set();
    thread->join();
    EXPECT_FALSE(thread->isRunning());
    EXPECT_TRUE(ended) << "join returned before the function ended";
    EXPECT_NE(runThread, std::this_thread::get_id());
}
