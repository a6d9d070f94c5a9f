// The control socket of a running server: where it lies, and the client side
// of the exchange. The socket is a file in a folder that only the user who
// runs the server can write (see controlSocketFolder), named after the disk
// folder's absolute path, so a program of that user that knows the folder
// finds the server, and no other user can take its place. A server killed
// without warning leaves its socket file, which the next server of the disk
// replaces. The exchange is one line each way: "snapshot FOLDER\n", answered
// by "ok\n" or "error MESSAGE\n".
#pragma once

#include <optional>
#include <string>

#include <sys/un.h>
#include <unistd.h>

namespace nbdplugin {

constexpr const char* kControlSnapshotCommand = "snapshot ";

// The folder of the calling user's control sockets: $XDG_RUNTIME_DIR, else
// /run/user/UID, each only when it is the user's own folder that nobody else
// can write; else the folder "brickdisk-UID" in /tmp, made with mode 0700
// when missing. Throws zo::CError when that folder is not the user's own
// private folder (someone else made it), with "folder".
std::string controlSocketFolder();

// The control socket's path for `absoluteDiskFolder`, in controlSocketFolder().
// Throws as controlSocketFolder does, and when the path is too long for a
// Unix socket.
std::string controlSocketPath(const std::string& absoluteDiskFolder);

// The address of `path` in `address`.
void socketAddress(const std::string& path, sockaddr_un& address);

// Asks the server of `absoluteDiskFolder` to make `absoluteSnapshotFolder` a
// snapshot. nullopt when no server listens for that disk; otherwise the
// server's answer: empty on success, else its error message. Throws
// zo::CFileSystemError when no socket can be made, and zo::CError when the
// process that answers runs as another user (it is not a server this user
// started), with "socket" and "peerUser".
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
