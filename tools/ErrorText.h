// The text of an error as the program shows it to its user: the message and
// the context that means something to the user (the disk folder, the brick,
// the file), with the file system's classification in words ("no space left
// on device") instead of the library's internal property names and numbers.
#pragma once

#include "zo/Error.h"

#include <string>

namespace cli {

std::string describeForUser(const zo::CError& error);

} // namespace cli
