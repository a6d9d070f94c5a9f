#include "Terminal.h"

#include "Interrupt.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace cli {

namespace {

// The terminal's file descriptor, closed when the object goes.
class CTerminalHandle {
public:
    CTerminalHandle() : m_fd(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC)) {}
    ~CTerminalHandle()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    CTerminalHandle(const CTerminalHandle&) = delete;
    CTerminalHandle& operator=(const CTerminalHandle&) = delete;

    int get() const { return m_fd; }

private:
    int m_fd;
};

// Turns echo off on a terminal for as long as the object lives.
class CEchoOff {
public:
    explicit CEchoOff(int fd) : m_fd(fd)
    {
        m_active = ::tcgetattr(fd, &m_saved) == 0;
        if (m_active) {
            termios quiet = m_saved;
            quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
            quiet.c_lflag |= ECHONL;
            ::tcsetattr(fd, TCSAFLUSH, &quiet);
        }
    }
    ~CEchoOff()
    {
        if (m_active)
            ::tcsetattr(m_fd, TCSAFLUSH, &m_saved);
    }
    CEchoOff(const CEchoOff&) = delete;
    CEchoOff& operator=(const CEchoOff&) = delete;

private:
    int m_fd;
    termios m_saved{};
    bool m_active = false;
};

void writeAll(int fd, const std::string& text)
{
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        done += static_cast<size_t>(n);
    }
}

} // namespace

bool isTerminal(int fd)
{
    return ::isatty(fd) == 1;
}

bool askOnTerminalWithoutEcho(const std::string& prompt, std::string& answer)
{
    const CTerminalHandle terminal;
    if (terminal.get() < 0)
        return false;
    std::string line;
    {
        // Echo goes off before the prompt shows, so nothing typed after the
        // prompt is ever echoed.
        const CEchoOff echoOff(terminal.get());
        writeAll(terminal.get(), prompt);
        char c;
        for (;;) {
            // An interrupt that arrives just before the read would not end
            // it: the wait for input looks at the note between short polls.
            // Echo comes back as the guard goes.
            throwIfInterrupted();
            // A poll cut short by the signal itself (EINTR) must not fall
            // through to a read, which would then wait for a key.
            pollfd readable{terminal.get(), POLLIN, 0};
            const int ready = ::poll(&readable, 1, 100);
            if (ready == 0 || (ready < 0 && errno == EINTR))
                continue;
            if (ready < 0)
                break;
            const ssize_t n = ::read(terminal.get(), &c, 1);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0 || c == '\n')
                break;
            line += c;
        }
    }
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    answer.swap(line);
    return true;
}

} // namespace cli
