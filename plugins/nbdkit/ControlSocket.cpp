#include "ControlSocket.h"

#include "zo/Error.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nbdplugin {

namespace {

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

// The socket's file name for `absoluteDiskFolder`.
std::string controlSocketName(const std::string& absoluteDiskFolder)
{
    char hex[17];
    std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(folderHash(absoluteDiskFolder)));
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

} // namespace

std::string controlSocketFolder()
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

std::string controlSocketPath(const std::string& absoluteDiskFolder)
{
    const std::string path = controlSocketFolder() + "/" + controlSocketName(absoluteDiskFolder);
    if (path.size() >= sizeof(sockaddr_un::sun_path))
        throw zo::CError("The path of the control socket is too long for a Unix socket.", zo::String(), -1,
                         zo::CProps().add("socket", path));
    return path;
}

void socketAddress(const std::string& path, sockaddr_un& address)
{
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
}

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

std::optional<std::string> requestSnapshotFromServer(const std::string& absoluteDiskFolder,
                                                     const std::string& absoluteSnapshotFolder)
{
    const CFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0)
        throw zo::makeErrnoError(errno, "socket", zo::String());
    const std::string path = controlSocketPath(absoluteDiskFolder);
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
    if (!sendAll(fd.get(), kControlSnapshotCommand + absoluteSnapshotFolder + "\n"))
        return std::string("The server closed the control connection.");
    const std::optional<std::string> reply = receiveLine(fd.get());
    if (!reply)
        return std::string("The server closed the control connection without an answer.");
    if (*reply == "ok")
        return std::string();
    return reply->rfind("error ", 0) == 0 ? reply->substr(6) : *reply;
}

} // namespace nbdplugin
