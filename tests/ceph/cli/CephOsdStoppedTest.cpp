// The brickdisk program when the cluster's OSD stops answering in the middle
// of an import: the import ends with a clear error within its time-out, and
// once the OSD runs again the disk reads every brick old or new. The test
// stops the OSD of a cluster of its own (SIGSTOP: the OSD keeps its objects
// in memory and would lose them if killed), so other tests are not
// disturbed.
#include "CliTestFixture.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <unistd.h>

namespace {

using clitest::readFile;
using clitest::RunResult;
using clitest::writeFile;

// What the cluster of the test says of its health, for a failure message.
std::string clusterHealth()
{
    std::string text;
    if (FILE* pipe = ::popen("timeout 30 ceph --connect-timeout 20 health detail 2>&1; "
                             "timeout 30 ceph --connect-timeout 20 pg ls laggy 2>&1",
                             "r")) {
        char buffer[512];
        while (std::fgets(buffer, sizeof buffer, pipe))
            text += buffer;
        ::pclose(pipe);
    }
    return text;
}

// A one-node cluster of scripts/ceph-test-cluster.sh in a folder of its own.
// While it lives, CEPH_CONF and CEPH_KEYRING name it, so the programs that
// the test runs use it.
class COwnCephCluster {
public:
    COwnCephCluster() : m_dir("/tmp/brickdisk-ceph-osd-stop-" + std::to_string(::getpid()))
    {
        saveVariable("CEPH_CONF");
        saveVariable("CEPH_KEYRING");
        if (std::system(scriptCommand("start").c_str()) != 0) {
            stop(); // the daemons that did start
            throw std::runtime_error("the cluster of the test did not start (its logs are above)");
        }
        std::ifstream env(m_dir + "/env.sh");
        for (std::string line; std::getline(env, line);) {
            const size_t equals = line.find('=');
            if (line.rfind("export ", 0) == 0 && equals != std::string::npos)
                ::setenv(line.substr(7, equals - 7).c_str(), line.substr(equals + 1).c_str(), 1);
        }
        std::ifstream pids(m_dir + "/pids");
        for (std::string name, pid, program; pids >> name >> pid >> program;) {
            if (name == "osd.0")
                m_osd = static_cast<pid_t>(std::stol(pid));
        }
        if (m_osd <= 0) {
            stop();
            throw std::runtime_error("the cluster of the test has no OSD process");
        }
        // A paused OSD stays "up" in the cluster's map: the monitor would
        // otherwise mark it down, and the OSD, continued, would have to boot
        // into the cluster again before it serves, which on a busy machine
        // took longer than the test waits. Clients time out on it all the
        // same.
        if (std::system("timeout 90 ceph --connect-timeout 60 osd set nodown >/dev/null 2>&1") != 0) {
            stop();
            throw std::runtime_error("the cluster of the test did not take the nodown flag");
        }
    }
    ~COwnCephCluster()
    {
        if (m_osd > 0)
            ::kill(m_osd, SIGCONT);
        stop();
    }
    COwnCephCluster(const COwnCephCluster&) = delete;
    COwnCephCluster& operator=(const COwnCephCluster&) = delete;

    void stopOsd() const { ::kill(m_osd, SIGSTOP); }
    void continueOsd() const { ::kill(m_osd, SIGCONT); }

private:
    // Stops the daemons, removes the folder and gives the environment back.
    void stop()
    {
        if (std::system(scriptCommand("stop").c_str()) != 0)
            std::fprintf(stderr, "stopping the cluster in %s failed\n", m_dir.c_str());
        for (const auto& [name, value] : m_saved) {
            if (value.empty())
                ::unsetenv(name.c_str());
            else
                ::setenv(name.c_str(), value.c_str(), 1);
        }
    }
    std::string scriptCommand(const std::string& action) const
    {
        return "BRICKDISK_CEPH_DIR=" + m_dir + " BRICKDISK_CEPH_RGW=0 BRICKDISK_CEPH_STORE_BYTES=1073741824 " +
            BRICKDISK_CEPH_CLUSTER_SCRIPT + " " + action + " >/dev/null";
    }
    void saveVariable(const char* name)
    {
        const char* value = std::getenv(name);
        m_saved.emplace_back(name, value ? value : "");
    }

    std::string m_dir;
    pid_t m_osd = -1;
    std::vector<std::pair<std::string, std::string>> m_saved;
};

class CephOsdStoppedTest : public clitest::CliTest {
protected:
    RunResult runOk(const std::vector<std::string>& args, bool withPassword = true) const
    {
        std::vector<std::string> all = cephArgs;
        all.insert(all.end(), args.begin(), args.end());
        const RunResult result = withPassword ? runWithPassword(all) : clitest::run(all);
        EXPECT_EQ(result.exitStatus, 0) << result.err;
        return result;
    }

    // Runs `check` (no password, the disk's read lock, every object read)
    // until it works, for at most 30 attempts 3 seconds apart.
    void waitUntilUsable(const std::string& folder) const
    {
        std::vector<std::string> args = cephArgs;
        args.insert(args.end(), {"check", folder});
        RunResult last;
        for (int attempt = 0; attempt < 30; ++attempt) {
            last = clitest::run(args);
            if (last.exitStatus == 0)
                return;
            std::this_thread::sleep_for(std::chrono::seconds(3));
        }
        ADD_FAILURE() << "the disk did not become usable again: " << last.err << last.out << "the cluster:\n"
                      << clusterHealth();
    }

    static constexpr int timeoutSeconds = 5;
    const std::vector<std::string> cephArgs{"--ceph-timeout", std::to_string(timeoutSeconds), "--ceph-lock-lease", "2"};
    COwnCephCluster cluster;
    std::string disk = "rados://brickdisk-test/osd-stop/disk";
    std::string snapshot = "rados://brickdisk-test/osd-stop/snapshot";
};

TEST_F(CephOsdStoppedTest, ImportWithTheOsdStoppedEndsWithinTheTimeOutAndLeavesEveryBrickOldOrNew)
{
    const size_t size = 4 * 1024 * 1024;
    const std::string old = clitest::makeImage(size, 51);
    std::string fresh = clitest::makeImage(size, 52);
    for (size_t at = 0; at < size; at += 7 * kBrickSize)
        fresh.replace(at, kBrickSize, std::string(kBrickSize, '\0'));
    writeFile(path("old"), old);
    writeFile(path("fresh"), fresh);
    runOk({"create", disk, "--size", std::to_string(size), "--brick-size", "64K"});
    runOk({"import", disk, path("old")});
    runOk({"snapshot", disk, snapshot});

    std::vector<std::string> args = cephArgs;
    args.insert(args.end(), {"import", disk, "-", "--password-file", path("pw")});
    clitest::RunningProgram import(args, clitest::RunOptions{});
    import.feed(fresh.substr(0, size / 2));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    cluster.stopOsd();
    const auto stopped = std::chrono::steady_clock::now();
    import.feed(fresh.substr(size / 2));
    import.closeInput();
    const RunResult result = import.wait();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - stopped).count();
    cluster.continueOsd();

    EXPECT_EQ(result.exitStatus, 1) << result.err;
    EXPECT_NE(result.err.find("Connection timed out"), std::string::npos) << result.err;
    // Each operation gives up after the time-out: the look-up that ends the
    // import, the stores under way and those queued behind them, which first
    // try to create their folder, and the lock's renewal under way.
    EXPECT_LT(seconds, 5 * timeoutSeconds) << result.err;

    // The monitor may have marked the paused OSD down, and the import's lock
    // runs out with its lease: the disk is usable again once both are over.
    waitUntilUsable(disk);
    runOk({"check", disk, "--read-data"});
    runOk({"check", snapshot, "--read-data"});
    runOk({"export", snapshot, path("snapshot.img")});
    EXPECT_TRUE(readFile(path("snapshot.img")) == old);
    runOk({"export", disk, path("disk.img")});
    const std::string exported = readFile(path("disk.img"));
    ASSERT_EQ(exported.size(), size);
    size_t fresher = 0;
    for (size_t at = 0; at < size; at += kBrickSize) {
        const std::string brick = exported.substr(at, kBrickSize);
        fresher += brick == fresh.substr(at, kBrickSize) ? 1 : 0;
        EXPECT_TRUE(brick == old.substr(at, kBrickSize) || brick == fresh.substr(at, kBrickSize))
            << "the brick at " << at << " holds neither its old nor its new content";
    }
    EXPECT_LT(fresher, size / kBrickSize) << "the import ended before the OSD stopped";

    runOk({"import", disk, path("fresh")});
    runOk({"export", disk, path("disk.img"), "--force"});
    EXPECT_TRUE(readFile(path("disk.img")) == fresh);
}

} // namespace
