// Reading a password from a file or an open descriptor: one reader for the
// brickdisk program, the nbdkit plugin and programs of their own, so that a
// password file opens a disk the same way everywhere.
#pragma once

#include "zo/Export.h"

#include <string>

namespace brick {

// The password in the file at `path`: its whole content without one trailing
// newline ("\n" or "\r\n"); every other byte, further lines included, belongs
// to the password. Throws zo::CError naming the file ("The password file 'pw'
// is empty.", with "passwordFile") when the path is a folder, the file cannot
// be read, is longer than 64 KiB or holds no password. Any thread may call it.
BRICKDISK_EXPORT std::string readPasswordFile(const std::string& path);

// The password that the descriptor `fd` holds from its position to its end,
// byte for byte (a pipe fed by another program, which writes it as it is).
// `name` names the source in errors ("the descriptor password-fd=3"). Throws
// zo::CError as above. The descriptor stays open; the caller owns it.
BRICKDISK_EXPORT std::string readPasswordFrom(int fd, const std::string& name);

} // namespace brick
