#include "ControlSocket.h"

#include "zo/Error.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstddef>
#include <cstring>

#include <sys/socket.h>
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

} // namespace

socklen_t abstractAddress(const std::string& diskFolder, sockaddr_un& address)
{
    const std::string name = controlSocketName(diskFolder);
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
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


std::string controlSocketName(const std::string& absoluteDiskFolder)
{
    char hex[17];
    std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(folderHash(absoluteDiskFolder)));
    return std::string("brickdisk-serve-") + hex;
}

std::optional<std::string> requestSnapshotFromServer(const std::string& absoluteDiskFolder,
                                                     const std::string& absoluteSnapshotFolder)
{
    const CFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0)
        throw zo::makeErrnoError(errno, "socket", zo::String());
    sockaddr_un address;
    const socklen_t length = abstractAddress(absoluteDiskFolder, address);
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), length) != 0)
        return std::nullopt;
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
