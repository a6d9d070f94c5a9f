#include "brick/format/PasswordFile.h"

#include "zo/Error.h"

#include <cctype>
#include <cerrno>
#include <string.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace brick {

namespace {

// A password source longer than this is no password (/dev/zero, a disk image
// given by mistake): reading stops there instead of running on.
constexpr size_t kMaxPasswordBytes = 64 * 1024;

// Everything `fd` holds up to one byte more than the limit; false on a read
// error.
bool readAtMostTheLimit(int fd, std::string& content)
{
    content.assign(kMaxPasswordBytes + 1, '\0');
    size_t filled = 0;
    while (filled < content.size()) {
        const ssize_t n = ::read(fd, content.data() + filled, content.size() - filled);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            explicit_bzero(content.data(), content.size());
            return false;
        }
        if (n == 0)
            break;
        filled += static_cast<size_t>(n);
    }
    content.resize(filled);
    return true;
}

// `what` (a lower-case phrase naming the source) made the subject of a
// sentence that ends with `rest`.
[[noreturn]] void throwPasswordError(const std::string& what, const std::string& rest, const zo::CProps& props)
{
    std::string message = what + rest;
    message[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(message[0])));
    throw zo::CError(zo::String(message), zo::String(), -1, props);
}

std::string readPassword(int fd, const std::string& what, const zo::CProps& props)
{
    std::string content;
    if (!readAtMostTheLimit(fd, content))
        throwPasswordError("cannot read " + what, ".", props);
    if (content.size() > kMaxPasswordBytes) {
        explicit_bzero(content.data(), content.size());
        throwPasswordError(what, " is longer than 64 KiB; it cannot be a password.", props);
    }
    return content;
}

// Closes a descriptor when it goes.
class CClosedAtEnd {
public:
    explicit CClosedAtEnd(int fd) : m_fd(fd) {}
    ~CClosedAtEnd() { ::close(m_fd); }
    CClosedAtEnd(const CClosedAtEnd&) = delete;
    CClosedAtEnd& operator=(const CClosedAtEnd&) = delete;

private:
    int m_fd;
};

} // namespace

std::string readPasswordFile(const std::string& path)
{
    const std::string what = "the password file '" + path + "'";
    const zo::CProps props = zo::CProps().add("passwordFile", path);
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
        throwPasswordError(what, " is a folder, not a file.", props);
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        throwPasswordError("cannot read " + what, ".", props);
    const CClosedAtEnd closer(fd);
    std::string content = readPassword(fd, what, props);
    if (!content.empty() && content.back() == '\n')
        content.pop_back();
    if (!content.empty() && content.back() == '\r')
        content.pop_back();
    if (content.empty())
        throwPasswordError(what, " is empty.", props);
    return content;
}

std::string readPasswordFrom(int fd, const std::string& name)
{
    std::string content = readPassword(fd, name, zo::CProps());
    if (content.empty())
        throwPasswordError(name, " holds no password.", zo::CProps());
    return content;
}

} // namespace brick
