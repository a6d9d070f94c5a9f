// Runs the built brickdisk program the way a user would: with arguments,
// standard input, a controlled environment and no controlling terminal
// (unless a test gives it one), and collects its exit status and output.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace clitest {

struct RunResult {
    int exitStatus = -1; // -1 when the program did not exit normally
    std::string out;
    std::string err;
    // runOnTerminal only: whether the terminal still echoed typed characters
    // after the program ended.
    bool terminalEchoes = false;
};

struct RunOptions {
    // Bytes fed to standard input (then end of file); nothing: /dev/null.
    std::optional<std::string> input;
    // BRICKDISK_PASSWORD for the run; unset when empty.
    std::string passwordVariable;
    // The program's working folder; the test's own when empty.
    std::string workingFolder;
    // When not 0, the program is killed by SIGALRM after this many seconds,
    // so that a program that would hang ends (with exitStatus -1). Meant as
    // a generous bound, never as a measure of speed.
    unsigned timeoutSeconds = 0;
};

// The path of the program under test.
std::string programPath();

// Runs `brickdisk args...` and waits for it to end.
RunResult run(const std::vector<std::string>& args, const RunOptions& options = {});

// One exchange with a program on a terminal: wait until the terminal shows
// `prompt`, then type `answer`.
struct TerminalExchange {
    std::string prompt;
    std::string answer;
};

// Runs the program with a pseudo terminal as its controlling terminal and its
// standard error, and plays `dialogue` on it. Returns everything the terminal
// showed in `err`, standard output in `out`.
RunResult runOnTerminal(const std::vector<std::string>& args, const std::vector<TerminalExchange>& dialogue,
                        const RunOptions& options = {});

// A program running in the background whose standard input the test feeds.
class RunningProgram {
public:
    RunningProgram(const std::vector<std::string>& args, const RunOptions& options);
    ~RunningProgram();
    RunningProgram(const RunningProgram&) = delete;
    RunningProgram& operator=(const RunningProgram&) = delete;

    // Writes to the program's standard input; false once it is gone.
    bool feed(const std::string& bytes);
    void closeInput();
    // Kills the program with SIGKILL and waits for it.
    void kill();
    // Sends `signal` to the program (it goes on running until it ends).
    void signal(int signal);
    RunResult wait();

private:
    pid_t m_pid = -1;
    int m_input = -1;
    std::string m_outPath;
    std::string m_errPath;
};

} // namespace clitest
