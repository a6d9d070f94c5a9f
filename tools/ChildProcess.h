// Programs that the serving commands run beside themselves (nbdkit, nbdfuse),
// and waiting for the user to stop them (Ctrl-C, kill).
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace cli {

// One running program. Not copyable; the destructor terminates the program
// if it still runs and waits for it. Used by one thread.
class CChildProcess {
public:
    // Starts `argv` (argv[0] looked up in PATH) with the default signal
    // handling. Throws zo::CError "Cannot run PROGRAM." when it cannot start.
    explicit CChildProcess(const std::vector<std::string>& argv);
    ~CChildProcess();
    CChildProcess(const CChildProcess&) = delete;
    CChildProcess& operator=(const CChildProcess&) = delete;

    pid_t pid() const { return m_pid; }
    // False once the program has ended (its status is then kept).
    bool isRunning();
    // Sends SIGTERM and waits for the end; returns the exit status (128 + the
    // signal number when a signal ended it).
    int terminate();
    // Waits for the end; returns the exit status as terminate does.
    int wait();
    // The signal that ended the program; 0 while it runs or when it exited.
    int signalNumber() const { return m_signal; }

private:
    void noteStatus(int status);

    pid_t m_pid = -1;
    bool m_ended = false;
    int m_exitStatus = 0;
    int m_signal = 0;
};

// Waits up to `millis` for Ctrl-C or SIGTERM (see Interrupt.h); true when
// one came, now or before.
bool waitForInterrupt(int millis);

} // namespace cli
