// brickdisk serve DISK, brickdisk mount DISK FOLDER, brickdisk unmount FOLDER:
// a disk as a live block device. serve runs nbdkit with the brickdisk plugin
// in the foreground and prints the NBD URI to connect to; mount also makes
// the served disk a file in FOLDER through nbdfuse, which can be
// loop-mounted. Both stop on Ctrl-C, after the server has flushed.
#include "ChildProcess.h"
#include "Commands.h"
#include "DiskAccess.h"
#include "Units.h"
#include "UsageError.h"

#include "brick/BrickDisk.h"
#include "zo/Error.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace cli {

namespace {

constexpr const char* kMountedFileName = "disk";

struct ServeOptions {
    std::string disk;
    std::string socket;
    int port = 0;
    bool readOnly = false;
    bool writable = false;
    std::string cache = "256M";
    std::string plugin;
    CPasswordSource passwords;
};

// The plugin built beside this program, else the installed one, else the
// name by which nbdkit finds it in its plugin folder.
std::string defaultPlugin()
{
    for (const char* candidate : {BRICKDISK_BUILT_NBDKIT_PLUGIN, BRICKDISK_INSTALLED_NBDKIT_PLUGIN}) {
        if (candidate[0] != '\0' && ::access(candidate, R_OK) == 0)
            return candidate;
    }
    return "brickdisk";
}

bool readExactly(int fd, void* buffer, size_t size)
{
    auto* bytes = static_cast<char*>(buffer);
    while (size > 0) {
        const ssize_t n = ::recv(fd, bytes, size, 0);
        if (n <= 0)
            return false;
        bytes += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// True when an NBD server answers on the socket (or port): it greets with
// its newstyle handshake, and the probe then ends the session politely with
// NBD_OPT_ABORT, so the server has nothing to complain about.
bool serverAnswers(const std::string& socketPath, int port)
{
    const int fd = ::socket(socketPath.empty() ? AF_INET : AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    int result = -1;
    if (socketPath.empty()) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } else {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
        result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    // NBDMAGIC, IHAVEOPT and the 16-bit handshake flags.
    char greeting[18];
    bool answered = result == 0 && readExactly(fd, greeting, sizeof greeting) &&
                    std::memcmp(greeting, "NBDMAGICIHAVEOPT", 16) == 0;
    if (answered) {
        // Client flags (fixed newstyle, no zeroes), then IHAVEOPT, option 2
        // (abort) with no data; the server's reply is 20 bytes.
        const unsigned char abort[] = {0, 0, 0, 3, 'I', 'H', 'A', 'V', 'E', 'O', 'P', 'T',
                                       0, 0, 0, 2, 0, 0, 0, 0};
        char reply[20];
        answered = ::send(fd, abort, sizeof abort, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof abort) &&
                   readExactly(fd, reply, sizeof reply);
    }
    ::close(fd);
    return answered;
}

// A file only the user can read, removed when it goes.
class CPasswordFile {
public:
    explicit CPasswordFile(const zo::String& password)
    {
        char pattern[] = "/tmp/brickdisk-password-XXXXXX";
        const int fd = ::mkstemp(pattern);
        if (fd < 0)
            throw zo::makeErrnoError(errno, "mkstemp", zo::String(pattern));
        m_path = pattern;
        const std::string text = password.toUTF8();
        const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        ::close(fd);
        if (!written)
            throw zo::makeErrnoError(errno, "write", zo::String(m_path));
    }
    ~CPasswordFile() { ::unlink(m_path.c_str()); }
    CPasswordFile(const CPasswordFile&) = delete;
    CPasswordFile& operator=(const CPasswordFile&) = delete;
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

// A running nbdkit serving one disk.
class CServer {
public:
    CServer(const ServeOptions& options, const std::string& socketPath)
        : m_socket(socketPath), m_port(options.port)
    {
        const zo::CURI folder = diskFolderURI(options.disk);
        const zo::P<zo::IFileSystem> fs = newFileSystem(folder, false, 1);
        const brick::CBrickDiskHeader header = loadDiskHeader(fs.get(), folder);
        // A disk with a parent is a snapshot: it keeps its view unless
        // writing it is asked for.
        const bool isSnapshot = fs->fileExists(folder << brick::CBrickDisk::getParentLinkFileName());
        m_readOnly = options.readOnly || (isSnapshot && !options.writable);
        parseByteSize(options.cache, "--cache");

        std::vector<std::string> argv{"nbdkit", "-f", "--exit-with-parent"};
        if (m_socket.empty()) {
            argv.insert(argv.end(), {"-p", std::to_string(m_port)});
        } else {
            ::unlink(m_socket.c_str());
            argv.insert(argv.end(), {"-U", m_socket});
        }
        argv.push_back(options.plugin.empty() ? defaultPlugin() : options.plugin);
        argv.push_back("disk=" + folder.toLocalPath());
        argv.push_back("cache=" + options.cache);
        if (m_readOnly)
            argv.push_back("readonly=true");
        if (header.getCipherID() != "null") {
            m_passwordFile = std::make_unique<CPasswordFile>(options.passwords.forExistingDisk(options.disk));
            argv.push_back("password-file=" + m_passwordFile->path());
        }
        m_process = std::make_unique<CChildProcess>(argv);
    }

    // Waits until the server accepts connections; false when it ended first
    // or Ctrl-C came.
    bool waitUntilReady()
    {
        while (m_process->isRunning()) {
            if (serverAnswers(m_socket, m_port)) {
                m_passwordFile.reset();
                return true;
            }
            if (waitForInterrupt(50))
                return false;
        }
        return false;
    }

    std::string uri() const
    {
        if (m_socket.empty())
            return "nbd://localhost:" + std::to_string(m_port);
        return "nbd+unix:///?socket=" + m_socket;
    }

    bool readOnly() const { return m_readOnly; }
    CChildProcess& process() { return *m_process; }

private:
    std::string m_socket;
    int m_port;
    bool m_readOnly = false;
    std::unique_ptr<CPasswordFile> m_passwordFile;
    std::unique_ptr<CChildProcess> m_process;
};

[[noreturn]] void serverEndedEarly(CChildProcess& process)
{
    const int status = process.terminate();
    throw zo::CError("The NBD server ended before it was ready (see its messages above).", zo::String(), -1,
                     zo::CProps().add("exitStatus", static_cast<zo::int64>(status)));
}

int runServe(const ServeOptions& options)
{
    if (!options.socket.empty() && options.port != 0)
        throw UsageError("Give either --socket or --port, not both.");
    std::string socketPath;
    if (options.port == 0)
        socketPath = options.socket.empty() ? "/tmp/brickdisk-" + std::to_string(::getpid()) + ".sock"
                                            : std::filesystem::absolute(options.socket).string();
    CServer server(options, socketPath);
    if (!server.waitUntilReady()) {
        if (!server.process().isRunning())
            serverEndedEarly(server.process());
        server.process().terminate();
        return 0;
    }
    std::printf("Serving %s%s at %s\nPress Ctrl-C to stop.\n", options.disk.c_str(),
                server.readOnly() ? " (read-only)" : "", server.uri().c_str());
    std::fflush(stdout);
    while (server.process().isRunning() && !waitForInterrupt(200)) {
    }
    // nbdkit flushes the disk before it ends.
    const int status = server.process().terminate();
    if (!socketPath.empty())
        ::unlink(socketPath.c_str());
    std::printf("Stopped serving %s.\n", options.disk.c_str());
    return status == 0 || status == 128 + SIGTERM ? 0 : 1;
}

int runMount(const ServeOptions& options, const std::string& mountFolder)
{
    char pattern[] = "/tmp/brickdisk-mount-XXXXXX";
    if (::mkdtemp(pattern) == nullptr)
        throw zo::makeErrnoError(errno, "mkdtemp", zo::String(pattern));
    const std::string privateFolder = pattern;
    const std::string socketPath = privateFolder + "/nbd.sock";
    const std::string folder = std::filesystem::absolute(mountFolder).lexically_normal().string();
    int status = 0;
    {
        CServer server(options, socketPath);
        if (!server.waitUntilReady()) {
            const bool ended = !server.process().isRunning();
            server.process().terminate();
            ::rmdir(privateFolder.c_str());
            if (ended)
                serverEndedEarly(server.process());
            return 0;
        }
        std::vector<std::string> fuse{"nbdfuse"};
        if (server.readOnly())
            fuse.push_back("-r");
        fuse.insert(fuse.end(), {folder + "/" + kMountedFileName, "--unix", socketPath});
        CChildProcess mount(fuse);
        std::printf("Mounted %s%s as the file %s/%s\n"
                    "Loop-mount it with: mount -o loop %s/%s MOUNTPOINT\n"
                    "Stop with Ctrl-C or: brickdisk unmount %s\n",
                    options.disk.c_str(), server.readOnly() ? " (read-only)" : "", folder.c_str(),
                    kMountedFileName, folder.c_str(), kMountedFileName, folder.c_str());
        std::fflush(stdout);
        while (mount.isRunning() && server.process().isRunning() && !waitForInterrupt(200)) {
        }
        if (mount.isRunning()) {
            CChildProcess unmount({"fusermount3", "-u", folder});
            if (unmount.wait() != 0)
                mount.terminate();
        }
        status = mount.wait();
        server.process().terminate();
    }
    ::unlink(socketPath.c_str());
    ::rmdir(privateFolder.c_str());
    std::printf("Unmounted %s.\n", folder.c_str());
    return status == 0 ? 0 : 1;
}

void addServeOptions(CLI::App& command, ServeOptions& options)
{
    command.add_option("DISK", options.disk, "Folder of the disk (any disk of a chain)")->required();
    command.add_flag("--read-only", options.readOnly, "Serve the disk read-only");
    command.add_flag("--writable", options.writable,
                     "Serve a snapshot (a disk with a parent) writable; snapshots are read-only otherwise");
    command.add_option("--cache", options.cache, "Memory for decoded bricks, e.g. 512M")->capture_default_str();
    command.add_option("--plugin", options.plugin, "The nbdkit plugin to use (found by default)");
    options.passwords.addOptionTo(command);
}

} // namespace

CommandAction addServeCommand(CLI::App& program)
{
    auto options = std::make_shared<ServeOptions>();
    CLI::App* command =
        program.add_subcommand("serve", "Serve a disk over NBD (nbdkit) until Ctrl-C; prints the URI to connect to");
    addServeOptions(*command, *options);
    CLI::Option* socket =
        command->add_option("--socket", options->socket, "Listen on this Unix socket (default: one in /tmp)");
    command->add_option("--port", options->port, "Listen on this TCP port instead")->excludes(socket);
    return [options] { return runServe(*options); };
}

CommandAction addMountCommand(CLI::App& program)
{
    auto options = std::make_shared<ServeOptions>();
    auto folder = std::make_shared<std::string>();
    CLI::App* command = program.add_subcommand(
        "mount", "Serve a disk and make it the file FOLDER/disk (nbdfuse) to loop-mount, until Ctrl-C or unmount");
    addServeOptions(*command, *options);
    command->add_option("FOLDER", *folder, "An empty folder that shows the disk as a file")->required();
    return [options, folder] { return runMount(*options, *folder); };
}

CommandAction addUnmountCommand(CLI::App& program)
{
    auto folder = std::make_shared<std::string>();
    CLI::App* command = program.add_subcommand("unmount", "End a brickdisk mount: the disk is flushed and released");
    command->add_option("FOLDER", *folder, "The folder given to brickdisk mount")->required();
    return [folder] {
        const std::string path = std::filesystem::absolute(*folder).lexically_normal().string();
        CChildProcess unmount({"fusermount3", "-u", path});
        if (unmount.wait() != 0) {
            // A mount point lies on another device than the folder above it.
            struct stat self {}, above {};
            const bool mounted = ::stat(path.c_str(), &self) == 0 && ::stat((path + "/..").c_str(), &above) == 0 &&
                                 self.st_dev != above.st_dev;
            throw zo::CError(mounted ? "Unmounting failed (is the disk file still loop-mounted?)."
                                     : "The folder is not mounted.",
                             zo::String(), -1, zo::CProps().add("folder", *folder));
        }
        return 0;
    };
}

} // namespace cli
