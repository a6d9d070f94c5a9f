// Ctrl-C (SIGINT) and SIGTERM stop the program cleanly. The signal handler
// only notes the signal; the commands look at the note at safe points (each
// brick imported, exported or checked, and a wait for input) and unwind from
// there with CInterrupted: background brick saves finish and the disk is
// flushed, so no brick is left half old, half new; temporary files are
// removed; the terminal gets its echo and a clean line back. main then prints
// "brickdisk: interrupted" and exits with status 130.
#pragma once

#include <exception>

namespace cli {

// Thrown where the program stops after an interrupt.
class CInterrupted : public std::exception {
public:
    const char* what() const noexcept override { return "interrupted"; }
};

// The exit status after an interrupt (128 + SIGINT, as shells report it).
constexpr int kExitInterrupted = 130;

// Installs the handlers of SIGINT and SIGTERM, without restarting system
// calls that they interrupt (so a read waiting for input returns). Call once,
// before any command runs.
void installInterruptHandlers();

// True once SIGINT or SIGTERM arrived. Any thread.
bool wasInterrupted();

// Forgets the signals that arrived, for a command that refused to stop on
// them and goes on (the next one is noted again). Main thread.
void forgetInterrupt();

// Throws CInterrupted when SIGINT or SIGTERM arrived.
void throwIfInterrupted();

} // namespace cli
