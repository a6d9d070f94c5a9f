// Logging of errors that are not thrown on. Every line goes to one sink, which
// a program may replace; the default sink writes the line to stderr.
#pragma once

#include "zo/Export.h"
#include "zo/String.h"

#include <exception>
#include <functional>

namespace zo {

enum class LogLevel { Error, Warning, Info };

using LogSink = std::function<void(LogLevel level, const String& line)>;

// Replaces the sink and returns the previous one. An empty function restores
// the default. May be called from any thread. The sink is called under a lock,
// one line at a time, so it must not log itself.
BRICKDISK_EXPORT LogSink setLogSink(LogSink sink);

BRICKDISK_EXPORT void logLine(LogLevel level, const String& line);

// Logs an error that is kept or dropped rather than rethrown: one line with
// `context`, `message` (either may be empty) and the error's description,
// properties and causes.
BRICKDISK_EXPORT void logError(const std::exception& error, const String& context, const String& message);

// Reports an exception swallowed by a destructor (destructors never throw).
// `where` names the class, e.g. "brick::CBrickDisk"; with `log` false nothing
// is written.
BRICKDISK_EXPORT void onExceptionInDestructorIgnored(const char* where, const std::exception& error, bool log);

} // namespace zo
