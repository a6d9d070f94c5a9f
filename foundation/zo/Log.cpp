#include "zo/Log.h"

#include "zo/Error.h"

#include <cstdio>
#include <mutex>

namespace zo {

namespace {

std::mutex& sinkMutex()
{
    static std::mutex mutex;
    return mutex;
}

LogSink& currentSink()
{
    static LogSink sink;
    return sink;
}

void writeToStderr(LogLevel level, const String& line)
{
    const char* prefix = level == LogLevel::Error ? "error: " : level == LogLevel::Warning ? "warning: " : "";
    std::fprintf(stderr, "%s%s\n", prefix, line.toUTF8().c_str());
}

String describe(const std::exception& error)
{
    if (const auto* e = dynamic_cast<const CError*>(&error))
        return e->toString();
    return String(error.what());
}

} // namespace

LogSink setLogSink(LogSink sink)
{
    std::lock_guard lock(sinkMutex());
    return std::exchange(currentSink(), std::move(sink));
}

void logLine(LogLevel level, const String& line)
{
    std::lock_guard lock(sinkMutex());
    if (currentSink())
        currentSink()(level, line);
    else
        writeToStderr(level, line);
}

void logError(const std::exception& error, const String& context, const String& message)
{
    String line;
    for (const String* part : {&context, &message}) {
        if (part->isEmpty())
            continue;
        line += *part;
        line += " ";
    }
    line += describe(error);
    logLine(LogLevel::Error, line);
}

void onExceptionInDestructorIgnored(const char* where, const std::exception& error, bool log)
{
    if (!log)
        return;
    try {
        logLine(LogLevel::Error,
                String("Exception ignored in destructor of ") + String(where) + ": " + describe(error));
    } catch (...) {
        // Nothing may leave a destructor, not even a failure to log.
    }
}

} // namespace zo
