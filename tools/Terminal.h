// The controlling terminal: whether an output is one, and questions asked on
// it without echo.
#pragma once

#include <string>

namespace cli {

// True when the file descriptor `fd` is a terminal.
bool isTerminal(int fd);

// Writes `prompt` to the controlling terminal and reads one line from it with
// echo turned off (restored afterwards). Returns false, leaving `answer`
// untouched, when the process has no controlling terminal. The line ends at
// the newline, which is not kept.
bool askOnTerminalWithoutEcho(const std::string& prompt, std::string& answer);

} // namespace cli
