#include "zo/Log.h"
#include "zo/Error.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

using zo::LogLevel;
using zo::String;

namespace {

struct LoggedLine {
    LogLevel level;
    std::string text;
};

// Sends log lines to a list for the lifetime of the object, then puts the
// previous sink back.
class CapturedLog {
public:
    CapturedLog()
    {
        m_previous = zo::setLogSink([this](LogLevel level, const String& line) {
            lines.push_back({level, line.toUTF8()});
        });
    }
    ~CapturedLog() { zo::setLogSink(m_previous); }

    std::vector<LoggedLine> lines;

private:
    zo::LogSink m_previous;
};

} // namespace

TEST(Log, LogErrorWritesContextMessageAndErrorOnOneErrorLine)
{
    CapturedLog log;
    zo::logError(zo::CError("Store failed.", "", -1, zo::CProps().add("uri", "/d/b")), "Background save", "Giving up.");
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].level, LogLevel::Error);
    EXPECT_EQ(log.lines[0].text, "Background save Giving up. Store failed. (uri: /d/b)");
}

TEST(Log, LogErrorSkipsEmptyContextAndMessage)
{
    CapturedLog log;
    zo::logError(std::runtime_error("plain failure"), String(), String());
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].text, "plain failure");
}

TEST(Log, ExceptionIgnoredInDestructorNamesTheClass)
{
    CapturedLog log;
    zo::onExceptionInDestructorIgnored("brick::CBrickDisk", zo::CError("Flush failed."), true);
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].level, LogLevel::Error);
    EXPECT_NE(log.lines[0].text.find("brick::CBrickDisk"), std::string::npos);
    EXPECT_NE(log.lines[0].text.find("Flush failed."), std::string::npos);
}

TEST(Log, ExceptionIgnoredInDestructorWithoutLogFlagWritesNothing)
{
    CapturedLog log;
    zo::onExceptionInDestructorIgnored("brick::CBrickDiskStream", std::runtime_error("x"), false);
    EXPECT_TRUE(log.lines.empty());
}

TEST(Log, LogLinePassesLevelThrough)
{
    CapturedLog log;
    zo::logLine(LogLevel::Warning, "careful");
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].level, LogLevel::Warning);
    EXPECT_EQ(log.lines[0].text, "careful");
}

TEST(Log, SetLogSinkReturnsPreviousSink)
{
    std::vector<std::string> first;
    std::vector<std::string> second;
    zo::LogSink original = zo::setLogSink([&](LogLevel, const String& line) { first.push_back(line.toUTF8()); });
    zo::LogSink returned = zo::setLogSink([&](LogLevel, const String& line) { second.push_back(line.toUTF8()); });
    zo::logLine(LogLevel::Info, "to second");
    zo::setLogSink(returned);
    zo::logLine(LogLevel::Info, "to first");
    zo::setLogSink(original);
    EXPECT_EQ(first, std::vector<std::string>{"to first"});
    EXPECT_EQ(second, std::vector<std::string>{"to second"});
}

TEST(Log, EmptySinkRestoresWritingToStandardError)
{
    std::vector<std::string> captured;
    zo::LogSink original = zo::setLogSink([&](LogLevel, const String& line) { captured.push_back(line.toUTF8()); });
    zo::setLogSink(zo::LogSink());
    testing::internal::CaptureStderr();
    zo::logLine(LogLevel::Error, "to stderr");
    const std::string written = testing::internal::GetCapturedStderr();
    zo::setLogSink(original);
    EXPECT_TRUE(captured.empty());
    EXPECT_EQ(written, "error: to stderr\n");
}
