// Ctrl-C and SIGTERM during long work: the program stops cleanly with status
// 130 and "brickdisk: interrupted", leaving no brick half written and no
// temporary file.
#include "CliTestFixture.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

namespace clitest {
namespace {

class InterruptCommandTest : public CliTest {
protected:
    // Files whose names show they are temporary, anywhere below `folder`.
    std::vector<std::string> temporaryFilesBelow(const std::string& folder) const
    {
        std::vector<std::string> found;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
            const std::string name = entry.path().filename().string();
            if (name.rfind(".tmp-", 0) == 0 || (name.size() > 5 && name.compare(name.size() - 5, 5, ".part") == 0))
                found.push_back(entry.path().string());
        }
        return found;
    }
};

TEST_F(InterruptCommandTest, InterruptedImportFlushesWhatItWroteAndExitsWith130)
{
    createDisk("disk", "4M");
    const std::string old = makeImage(4 * 1024 * 1024, 71);
    writeFile(path("old"), old);
    importImage("disk", "old");
    const std::string fresh = makeImage(4 * 1024 * 1024, 72);

    for (const int signal : {SIGINT, SIGTERM}) {
        RunningProgram import({"import", path("disk"), "-", "--password-file", path("pw")}, RunOptions{});
        // Half the image, then the program waits for more input.
        import.feed(fresh.substr(0, fresh.size() / 2));
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        import.signal(signal);
        const RunResult result = import.wait();
        EXPECT_EQ(result.exitStatus, 130) << result.err;
        EXPECT_NE(result.err.find("brickdisk: interrupted"), std::string::npos) << result.err;
    }
    EXPECT_TRUE(temporaryFilesBelow(path("disk")).empty());
    const RunResult check = runWithPassword({"check", path("disk"), "--read-data"});
    EXPECT_EQ(check.exitStatus, 0) << check.out << check.err;
    const std::string disk = exportImage("disk");
    for (size_t i = 0; i < disk.size() / kBrickSize; ++i) {
        const std::string brick = disk.substr(i * kBrickSize, kBrickSize);
        EXPECT_TRUE(brick == old.substr(i * kBrickSize, kBrickSize) ||
                    brick == fresh.substr(i * kBrickSize, kBrickSize))
            << "brick " << i;
    }
}

TEST_F(InterruptCommandTest, InterruptedExportLeavesTheOldFileAndNoTemporaryImage)
{
    createDisk("disk", "64M");
    writeFile(path("image"), makeImage(64 * 1024 * 1024, 73));
    importImage("disk", "image");
    writeFile(path("out"), "the old image");

    RunningProgram exporting({"export", path("disk"), path("out"), "--force", "--password-file", path("pw")},
                             RunOptions{});
    bool started = false;
    for (int i = 0; i < 400 && !started; ++i) {
        started = !temporaryFilesBelow(path("")).empty();
        if (!started)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    exporting.signal(SIGINT);
    const RunResult result = exporting.wait();
    if (result.exitStatus == 0)
        GTEST_SKIP() << "the export ended before the interrupt arrived";
    EXPECT_EQ(result.exitStatus, 130) << result.err;
    EXPECT_NE(result.err.find("brickdisk: interrupted"), std::string::npos) << result.err;
    EXPECT_EQ(readFile(path("out")), "the old image");
    EXPECT_TRUE(temporaryFilesBelow(path("")).empty());
}

TEST_F(InterruptCommandTest, CtrlCAtThePasswordPromptRestoresEchoAndCreatesNothing)
{
    // Ctrl-C typed on the terminal while the prompt waits with echo off.
    const RunResult result =
        runOnTerminal({"create", path("disk"), "--size", "1M"}, {{"New password", "sec"}, {"", "\x03"}});
    EXPECT_EQ(result.exitStatus, 130) << result.err;
    EXPECT_NE(result.err.find("brickdisk: interrupted"), std::string::npos) << result.err;
    EXPECT_TRUE(result.terminalEchoes);
    EXPECT_FALSE(std::filesystem::exists(path("disk/disk.brickdisk")));
}

TEST_F(InterruptCommandTest, TerminalEchoesAgainAfterAnAnsweredPrompt)
{
    createDisk("disk", "1M");
    writeFile(path("image"), makeImage(1024 * 1024, 74));
    const RunResult result =
        runOnTerminal({"import", path("disk"), path("image")}, {{"assword", std::string(kPassword) + "\n"}});
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_TRUE(result.terminalEchoes);
}

TEST_F(InterruptCommandTest, InterruptedCheckStopsWith130)
{
    createDisk("disk", "64M");
    writeFile(path("image"), makeImage(64 * 1024 * 1024, 75));
    importImage("disk", "image");
    for (const int signal : {SIGINT, SIGTERM}) {
        // A fast machine may check the whole disk before the signal comes:
        // then it comes sooner in the next try. A busy machine may not have
        // started the program far enough to catch it (the signal's default
        // action ends it): then it comes later.
        RunResult result;
        int delayMillis = 150;
        for (int attempt = 0; attempt < 8; ++attempt) {
            RunningProgram checking(
                {"check", path("disk"), "--read-data", "--jobs", "1", "--password-file", path("pw")}, RunOptions{});
            std::this_thread::sleep_for(std::chrono::milliseconds(delayMillis));
            checking.signal(signal);
            result = checking.wait();
            if (result.exitStatus == 0)
                delayMillis /= 4;
            else if (result.exitStatus == -1)
                delayMillis *= 3;
            else
                break;
        }
        EXPECT_EQ(result.exitStatus, 130) << "signal " << signal << ": " << result.err;
        EXPECT_NE(result.err.find("brickdisk: interrupted"), std::string::npos) << result.err;
    }
}

} // namespace
} // namespace clitest
