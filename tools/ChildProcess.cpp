#include "ChildProcess.h"
#include "Interrupt.h"

#include "zo/Error.h"

#include <cerrno>
#include <csignal>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace cli {

namespace {

// The signals that stop a program, at their default action in the programs
// started (whatever this program does with them).
sigset_t stopSignalSet()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    return set;
}

} // namespace

CChildProcess::CChildProcess(const std::vector<std::string>& argv)
{
    std::vector<char*> args;
    for (const std::string& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);

    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    const sigset_t stops = stopSignalSet();
    posix_spawnattr_setsigdefault(&attributes, &stops);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const int error = posix_spawnp(&m_pid, args[0], nullptr, &attributes, args.data(), environ);
    posix_spawnattr_destroy(&attributes);
    if (error != 0)
        throw zo::CError("Cannot run " + zo::String(argv[0]) + ".", zo::String(), -1,
                         zo::CProps().add("errno", static_cast<zo::int64>(error)));
}

CChildProcess::~CChildProcess()
{
    if (!m_ended)
        terminate();
}

void CChildProcess::noteStatus(int status)
{
    m_ended = true;
    m_signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    m_exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool CChildProcess::isRunning()
{
    if (m_ended)
        return false;
    int status = 0;
    if (::waitpid(m_pid, &status, WNOHANG) == m_pid)
        noteStatus(status);
    return !m_ended;
}

int CChildProcess::terminate()
{
    if (isRunning())
        ::kill(m_pid, SIGTERM);
    return wait();
}

int CChildProcess::wait()
{
    while (!m_ended) {
        int status = 0;
        const pid_t got = ::waitpid(m_pid, &status, 0);
        if (got == m_pid)
            noteStatus(status);
        else if (got < 0 && errno != EINTR)
            m_ended = true;
    }
    return m_exitStatus;
}

bool waitForInterrupt(int millis)
{
    constexpr int kStepMillis = 20;
    for (int waited = 0; !wasInterrupted(); waited += kStepMillis) {
        if (waited >= millis)
            return false;
        ::usleep(kStepMillis * 1000);
    }
    return true;
}

} // namespace cli
