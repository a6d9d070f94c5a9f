#include "ProgramRunner.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace clitest {

namespace {

std::string readFileAndRemove(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::string content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    ::unlink(path.c_str());
    return content;
}

std::string makeTempFile(const char* tag)
{
    std::string pattern = std::string("/tmp/brickdisk-cli-") + tag + "-XXXXXX";
    const int fd = ::mkstemp(pattern.data());
    if (fd < 0)
        throw std::runtime_error("mkstemp failed");
    ::close(fd);
    return pattern;
}

// In the child: the environment of the run, then exec. Never returns.
[[noreturn]] void execProgram(const std::vector<std::string>& args, const RunOptions& options)
{
    ::unsetenv("BRICKDISK_PASSWORD");
    if (!options.passwordVariable.empty())
        ::setenv("BRICKDISK_PASSWORD", options.passwordVariable.c_str(), 1);
    if (!options.workingFolder.empty() && ::chdir(options.workingFolder.c_str()) != 0)
        ::_exit(125);
    std::vector<char*> argv;
    const std::string program = programPath();
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    if (options.timeoutSeconds != 0)
        ::alarm(options.timeoutSeconds);
    ::execv(program.c_str(), argv.data());
    ::_exit(127);
}

void redirect(int fd, const std::string& path, int flags)
{
    const int opened = ::open(path.c_str(), flags, 0600);
    if (opened < 0)
        ::_exit(126);
    ::dup2(opened, fd);
    ::close(opened);
}

int exitStatusOf(pid_t pid)
{
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool writeAll(int fd, const std::string& bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

} // namespace

std::string programPath()
{
    return BRICKDISK_PROGRAM;
}

RunningProgram::RunningProgram(const std::vector<std::string>& args, const RunOptions& options)
    : m_outPath(makeTempFile("out")), m_errPath(makeTempFile("err"))
{
    std::signal(SIGPIPE, SIG_IGN);
    int pipeFds[2];
    if (::pipe(pipeFds) != 0)
        throw std::runtime_error("pipe failed");
    m_pid = ::fork();
    if (m_pid < 0)
        throw std::runtime_error("fork failed");
    if (m_pid == 0) {
        ::setsid();
        ::dup2(pipeFds[0], STDIN_FILENO);
        ::close(pipeFds[0]);
        ::close(pipeFds[1]);
        redirect(STDOUT_FILENO, m_outPath, O_WRONLY | O_TRUNC);
        redirect(STDERR_FILENO, m_errPath, O_WRONLY | O_TRUNC);
        execProgram(args, options);
    }
    ::close(pipeFds[0]);
    m_input = pipeFds[1];
}

RunningProgram::~RunningProgram()
{
    closeInput();
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        exitStatusOf(m_pid);
    }
    ::unlink(m_outPath.c_str());
    ::unlink(m_errPath.c_str());
}

bool RunningProgram::feed(const std::string& bytes)
{
    return m_input >= 0 && writeAll(m_input, bytes);
}

void RunningProgram::closeInput()
{
    if (m_input >= 0)
        ::close(m_input);
    m_input = -1;
}

void RunningProgram::signal(int signal)
{
    if (m_pid > 0)
        ::kill(m_pid, signal);
}

void RunningProgram::kill()
{
    ::kill(m_pid, SIGKILL);
}

RunResult RunningProgram::wait()
{
    closeInput();
    RunResult result;
    result.exitStatus = exitStatusOf(m_pid);
    m_pid = -1;
    result.out = readFileAndRemove(m_outPath);
    result.err = readFileAndRemove(m_errPath);
    return result;
}

RunResult run(const std::vector<std::string>& args, const RunOptions& options)
{
    if (!options.input) {
        const std::string outPath = makeTempFile("out");
        const std::string errPath = makeTempFile("err");
        const pid_t pid = ::fork();
        if (pid < 0)
            throw std::runtime_error("fork failed");
        if (pid == 0) {
            ::setsid();
            redirect(STDIN_FILENO, "/dev/null", O_RDONLY);
            redirect(STDOUT_FILENO, outPath, O_WRONLY | O_TRUNC);
            redirect(STDERR_FILENO, errPath, O_WRONLY | O_TRUNC);
            execProgram(args, options);
        }
        RunResult result;
        result.exitStatus = exitStatusOf(pid);
        result.out = readFileAndRemove(outPath);
        result.err = readFileAndRemove(errPath);
        return result;
    }
    RunningProgram program(args, options);
    program.feed(*options.input);
    return program.wait();
}

RunResult runOnTerminal(const std::vector<std::string>& args, const std::vector<TerminalExchange>& dialogue,
                        const RunOptions& options)
{
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0)
        throw std::runtime_error("no pseudo terminal");
    const std::string terminalPath = ::ptsname(master);
    const std::string outPath = makeTempFile("out");
    const pid_t pid = ::fork();
    if (pid < 0)
        throw std::runtime_error("fork failed");
    if (pid == 0) {
        ::close(master);
        ::setsid();
        // The first terminal that a session leader opens becomes its controlling one.
        redirect(STDERR_FILENO, terminalPath, O_RDWR);
        redirect(STDIN_FILENO, "/dev/null", O_RDONLY);
        redirect(STDOUT_FILENO, outPath, O_WRONLY | O_TRUNC);
        execProgram(args, options);
    }
    RunResult result;
    size_t step = 0;
    size_t searchFrom = 0;
    // Reads what the terminal shows until the program's side of it is closed;
    // a program that never closes it is killed after 60 seconds.
    char buffer[4096];
    for (int idlePolls = 0; idlePolls < 300;) {
        if (step < dialogue.size()) {
            const size_t found = result.err.find(dialogue[step].prompt, searchFrom);
            if (found != std::string::npos) {
                writeAll(master, dialogue[step].answer);
                searchFrom = found + dialogue[step].prompt.size();
                ++step;
            }
        }
        pollfd readable{master, POLLIN, 0};
        if (::poll(&readable, 1, 200) <= 0) {
            ++idlePolls;
            continue;
        }
        const ssize_t n = ::read(master, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        result.err.append(buffer, static_cast<size_t>(n));
    }
    int status = 0;
    for (int waited = 0; ::waitpid(pid, &status, WNOHANG) == 0; ++waited) {
        if (waited == 100)
            ::kill(pid, SIGKILL);
        ::usleep(100000);
    }
    // The terminal's settings outlive the program while the master side is
    // open: reopening its side shows what the program left behind.
    const int terminal = ::open(terminalPath.c_str(), O_RDWR | O_NOCTTY);
    termios settings{};
    result.terminalEchoes = terminal >= 0 && ::tcgetattr(terminal, &settings) == 0 && (settings.c_lflag & ECHO) != 0;
    if (terminal >= 0)
        ::close(terminal);
    ::close(master);
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.out = readFileAndRemove(outPath);
    return result;
}

} // namespace clitest
