#include "PasswordFile.h"

#include <cerrno>
#include <string.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cli {

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

std::string readPassword(int fd, const std::string& what)
{
    std::string content;
    if (!readAtMostTheLimit(fd, content))
        throw CPasswordFileError("cannot read " + what);
    if (content.size() > kMaxPasswordBytes) {
        explicit_bzero(content.data(), content.size());
        throw CPasswordFileError(what + " is longer than 64 KiB; it cannot be a password");
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
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
        throw CPasswordFileError(what + " is a folder, not a file");
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        throw CPasswordFileError("cannot read " + what);
    const CClosedAtEnd closer(fd);
    std::string content = readPassword(fd, what);
    if (!content.empty() && content.back() == '\n')
        content.pop_back();
    if (!content.empty() && content.back() == '\r')
        content.pop_back();
    if (content.empty())
        throw CPasswordFileError(what + " is empty");
    return content;
}

std::string readPasswordFrom(int fd, const std::string& name)
{
    std::string content = readPassword(fd, name);
    if (content.empty())
        throw CPasswordFileError(name + " holds no password");
    return content;
}

} // namespace cli
