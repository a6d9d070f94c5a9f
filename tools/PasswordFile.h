// Reading a password from a file or an open descriptor. One reader for the
// brickdisk program and the nbdkit plugin (which compiles this source too),
// so that a password file opens a disk the same way everywhere.
#pragma once

#include <stdexcept>
#include <string>

namespace cli {

// A password that cannot be read; the message is a short lower-case clause
// naming the file ("cannot read the password file 'pw'").
class CPasswordFileError : public std::runtime_error {
public:
    explicit CPasswordFileError(const std::string& message) : std::runtime_error(message) {}
};

// The password in the file at `path`: its whole content without one trailing
// newline ("\n" or "\r\n"); every other byte, further lines included, belongs
// to the password. Throws CPasswordFileError when the path is a folder, the
// file cannot be read, is longer than 64 KiB or holds no password.
std::string readPasswordFile(const std::string& path);

// The password that the descriptor `fd` holds from its position to its end,
// byte for byte (a pipe fed by another program, which writes it as it is).
// `name` names the source in errors. Throws CPasswordFileError as above. The
// descriptor stays open.
std::string readPasswordFrom(int fd, const std::string& name);

} // namespace cli
