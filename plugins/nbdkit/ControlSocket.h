// The control socket of a running server: its name, and the client side of
// the exchange. The socket is a Unix socket in the abstract namespace whose
// name follows from the disk folder's absolute path, so a program that knows
// the folder finds the server, and a server killed without warning leaves
// nothing behind. The exchange is one line each way: "snapshot FOLDER\n",
// answered by "ok\n" or "error MESSAGE\n".
#pragma once

#include <optional>
#include <string>

#include <sys/un.h>
#include <unistd.h>

namespace nbdplugin {

constexpr const char* kControlSnapshotCommand = "snapshot ";

// The abstract socket name (without its leading NUL) for `absoluteDiskFolder`.
std::string controlSocketName(const std::string& absoluteDiskFolder);
// The address of that name in `address`; returns its length.
socklen_t abstractAddress(const std::string& absoluteDiskFolder, sockaddr_un& address);

// Asks the server of `absoluteDiskFolder` to make `absoluteSnapshotFolder` a
// snapshot. nullopt when no server listens for that disk; otherwise the
// server's answer: empty on success, else its error message. Throws
// zo::CFileSystemError when no socket can be made.
std::optional<std::string> requestSnapshotFromServer(const std::string& absoluteDiskFolder,
                                                     const std::string& absoluteSnapshotFolder);

// Sends all of `text`; false when the peer is gone.
bool sendAll(int fd, const std::string& text);
// One line without its newline; nullopt when the peer closed first.
std::optional<std::string> receiveLine(int fd);

// Closes a file descriptor when it goes.
class CFd {
public:
    explicit CFd(int fd) : m_fd(fd) {}
    ~CFd()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    CFd(const CFd&) = delete;
    CFd& operator=(const CFd&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

} // namespace nbdplugin
