#include "ChildProcess.h"

#include "zo/Error.h"

#include <cerrno>
#include <csignal>
#include <ctime>

#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

namespace cli {

namespace {

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

CStopSignals::CStopSignals()
{
    // A program started in the background of a script inherits SIGINT
    // ignored; Ctrl-C and kill -INT are meant to stop it all the same.
    std::signal(SIGINT, SIG_DFL);
    const sigset_t stops = stopSignalSet();
    sigprocmask(SIG_BLOCK, &stops, &m_savedMask);
}

CStopSignals::~CStopSignals()
{
    // Signals that came while blocked are taken here rather than ending the
    // program once the mask is restored.
    const sigset_t stops = stopSignalSet();
    const timespec now{0, 0};
    while (sigtimedwait(&stops, nullptr, &now) > 0) {
    }
    sigprocmask(SIG_SETMASK, &m_savedMask, nullptr);
}

bool CStopSignals::waitForStop(int millis)
{
    const sigset_t stops = stopSignalSet();
    const timespec timeout{millis / 1000, static_cast<long>(millis % 1000) * 1000000L};
    return sigtimedwait(&stops, nullptr, &timeout) > 0;
}

} // namespace cli
