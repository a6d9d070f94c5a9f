#include "Interrupt.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace cli {

namespace {

std::atomic<bool> g_interrupted{false};
// The thread that waits for input (a terminal or standard input); set before
// any other thread starts.
pid_t g_mainThread = 0;

extern "C" void noteInterrupt(int signal)
{
    const int savedErrno = errno;
    g_interrupted.store(true);
    // The kernel may hand the signal to any thread; the main thread must see
    // it too, so that a read it waits in returns.
    if (::syscall(SYS_gettid) != g_mainThread)
        ::syscall(SYS_tgkill, ::getpid(), g_mainThread, signal);
    errno = savedErrno;
}

} // namespace

void installInterruptHandlers()
{
    g_mainThread = static_cast<pid_t>(::syscall(SYS_gettid));
    struct sigaction action {};
    action.sa_handler = noteInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    // A program may be started with the signals blocked (a parent's mask is
    // inherited); Ctrl-C must reach this one all the same.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

bool wasInterrupted()
{
    return g_interrupted.load();
}

void forgetInterrupt()
{
    g_interrupted.store(false);
}

void throwIfInterrupted()
{
    if (wasInterrupted())
        throw CInterrupted();
}

} // namespace cli
