#include "SnapshotControl.h"

#include "ControlSocket.h"

#include "ServedDisk.h"

#include "zo/Error.h"
#include "zo/Log.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace nbdplugin {

CSnapshotControl::CSnapshotControl(CServedDisk& served)
    : m_served(served), m_path(controlSocketPath(served.options().diskFolder))
{
    m_listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_listener < 0)
        throw zo::makeErrnoError(errno, "socket", zo::String());
    sockaddr_un address;
    socketAddress(m_path, address);
    // The socket file of a server of this disk that was killed: nobody
    // answers on it any more (a second server of the disk would not have
    // got its lock).
    ::unlink(m_path.c_str());
    if (::bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(m_listener, 4) != 0 || ::pipe2(m_stopPipe, O_CLOEXEC) != 0) {
        const int error = errno;
        ::close(m_listener);
        throw zo::makeErrnoError(error, "listen on the control socket", zo::String(m_path));
    }
    m_thread = std::thread([this] { serve(); });
}

CSnapshotControl::~CSnapshotControl()
{
    const char stop = 's';
    if (::write(m_stopPipe[1], &stop, 1) != 1)
        zo::logLine(zo::LogLevel::Warning, "Stopping the control socket failed.");
    m_thread.join();
    ::close(m_listener);
    ::unlink(m_path.c_str());
    ::close(m_stopPipe[0]);
    ::close(m_stopPipe[1]);
}

void CSnapshotControl::serve()
{
    for (;;) {
        pollfd fds[2] = {{m_listener, POLLIN, 0}, {m_stopPipe[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        if (fds[1].revents != 0)
            return;
        const CFd connection(::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC));
        if (connection.get() >= 0)
            answer(connection.get());
    }
}

void CSnapshotControl::answer(int connection)
{
    ucred peer{};
    socklen_t size = sizeof peer;
    if (::getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
        (peer.uid != ::getuid() && peer.uid != 0)) {
        sendAll(connection, "error Only the user who runs the server may take snapshots through it.\n");
        return;
    }
    const std::optional<std::string> line = receiveLine(connection);
    if (!line || line->rfind(kControlSnapshotCommand, 0) != 0) {
        sendAll(connection, "error Unknown request.\n");
        return;
    }
    const std::string folder = line->substr(std::strlen(kControlSnapshotCommand));
    try {
        m_served.takeSnapshot(zo::CURI(zo::String(folder)));
        zo::logLine(zo::LogLevel::Info, zo::String("Snapshot taken: " + folder));
        sendAll(connection, "ok\n");
    } catch (const std::exception& e) {
        zo::logError(e, "Taking a snapshot of the served disk failed.", zo::String());
        std::string message = e.what();
        for (char& c : message) {
            if (c == '\n')
                c = ' ';
        }
        sendAll(connection, "error " + message + "\n");
    }
}

} // namespace nbdplugin
