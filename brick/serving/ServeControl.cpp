#include "brick/serving/ServeControl.h"

#include "zo/Error.h"
#include "zo/Log.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace brick {

namespace {

constexpr const char* kSnapshotCommand = "snapshot ";

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

// FNV-1a: stable across builds, so the server and the tool agree.
std::uint64_t folderHash(const std::string& text)
{
    std::uint64_t hash = 14695981039346656037ull;
    for (const unsigned char c : text) {
        hash ^= c;
        hash *= 1099511628211ull;
    }
    return hash;
}

// The socket's file name for the disk named `diskName`.
std::string controlSocketName(const std::string& diskName)
{
    char hex[17];
    std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(folderHash(diskName)));
    return std::string("serve-") + hex + ".sock";
}

// A folder that `uid` owns and nobody else can write: no other user can put
// a socket there, nor replace one.
bool isPrivateFolderOf(const std::string& folder, uid_t uid)
{
    struct stat status {};
    return ::lstat(folder.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == uid &&
        (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// The address of `path` in `address`.
void socketAddress(const std::string& path, sockaddr_un& address)
{
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
}

// Sends all of `text`; false when the peer is gone.
bool sendAll(int fd, const std::string& text)
{
    size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t n = ::send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

// One line without its newline; nullopt when the peer closed first.
std::optional<std::string> receiveLine(int fd)
{
    std::string line;
    char c = 0;
    for (;;) {
        const ssize_t n = ::recv(fd, &c, 1, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return std::nullopt;
        if (c == '\n')
            return line;
        line += c;
    }
}

} // namespace

std::string getControlSocketFolder()
{
    const uid_t uid = ::getuid();
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime && *runtime == '/' && isPrivateFolderOf(runtime, uid))
        return runtime;
    const std::string userRuntime = "/run/user/" + std::to_string(uid);
    if (isPrivateFolderOf(userRuntime, uid))
        return userRuntime;
    const std::string folder = "/tmp/brickdisk-" + std::to_string(uid);
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST)
        throw zo::makeErrnoError(errno, "make the folder of the control sockets", zo::String(folder));
    if (!isPrivateFolderOf(folder, uid))
        throw zo::CError("The folder of the control sockets of served disks is not this user's own private folder.",
                         zo::String(), -1, zo::CProps().add("folder", folder));
    return folder;
}

std::string getControlSocketPath(const zo::CURI& diskFolder)
{
    // Normalised, so that every spelling of the disk's name ("s3://b/vm/",
    // "s3://b//vm") finds the one server of the disk.
    const std::string path =
        getControlSocketFolder() + "/" + controlSocketName(diskFolder.toNormalized().toLocalPath());
    if (path.size() >= sizeof(sockaddr_un::sun_path))
        throw zo::CError("The path of the control socket is too long for a Unix socket.", zo::String(), -1,
                         zo::CProps().add("socket", path));
    return path;
}

std::optional<std::string> requestSnapshotFromServer(const zo::CURI& diskFolder, const zo::CURI& snapshotFolder)
{
    const CFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0)
        throw zo::makeErrnoError(errno, "socket", zo::String());
    const std::string path = getControlSocketPath(diskFolder);
    sockaddr_un address;
    socketAddress(path, address);
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return std::nullopt;
    // Only this user (or root) can put a socket into the folder; a process
    // of another user that answers is no server of this user's.
    ucred peer{};
    socklen_t size = sizeof peer;
    if (::getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        throw zo::makeErrnoError(errno, "ask who answers on the control socket", zo::String(path));
    if (peer.uid != ::getuid() && peer.uid != 0)
        throw zo::CError("A process of another user answers on the control socket of the disk; it is not asked.",
                         zo::String(), -1,
                         zo::CProps().add("socket", path).add("peerUser", static_cast<zo::int64>(peer.uid)));
    if (!sendAll(fd.get(), kSnapshotCommand + snapshotFolder.toLocalPath() + "\n"))
        return std::string("The server closed the control connection.");
    const std::optional<std::string> reply = receiveLine(fd.get());
    if (!reply)
        return std::string("The server closed the control connection without an answer.");
    if (*reply == "ok")
        return std::string();
    return reply->rfind("error ", 0) == 0 ? reply->substr(6) : *reply;
}

CSnapshotControl::CSnapshotControl(const zo::CURI& diskFolder, TakeSnapshot takeSnapshot)
    : m_takeSnapshot(std::move(takeSnapshot)), m_path(getControlSocketPath(diskFolder))
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
    m_thread = zo::startThread([this] { serve(); });
}

CSnapshotControl::~CSnapshotControl()
{
    const char stop = 's';
    if (::write(m_stopPipe[1], &stop, 1) != 1)
        zo::logLine(zo::LogLevel::Warning, "Stopping the control socket failed.");
    m_thread->join();
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
    if (!line || line->rfind(kSnapshotCommand, 0) != 0) {
        sendAll(connection, "error Unknown request.\n");
        return;
    }
    const std::string folder = line->substr(std::strlen(kSnapshotCommand));
    try {
        m_takeSnapshot(zo::CURI(zo::String::fromUTF8(folder)));
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

} // namespace brick
