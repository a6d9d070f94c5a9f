// brickdisk serve DISK, brickdisk mount DISK FOLDER, brickdisk unmount FOLDER:
// a disk as a live block device. serve runs nbdkit with the brickdisk plugin
// in the foreground and prints the NBD URI to connect to; mount also makes
// the served disk a file in FOLDER through nbdfuse, which can be
// loop-mounted. Both stop on Ctrl-C, after the server has flushed.
#include "ChildProcess.h"
#include "Commands.h"
#include "DiskAccess.h"
#include "Interrupt.h"
#include "MountState.h"
#include "Units.h"
#include "UsageError.h"

#include "brick/chain/BrickDisk.h"
#include "zo/Error.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>

#include <fcntl.h>
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
    std::string cacheDir;
    std::string cacheSize = "1G";
    int uploadJobs = 4;
    int maxDirty = 1024;
    bool flushToStore = false;
    std::string statsFile;
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
    bool answered =
        result == 0 && readExactly(fd, greeting, sizeof greeting) && std::memcmp(greeting, "NBDMAGICIHAVEOPT", 16) == 0;
    if (answered) {
        // Client flags (fixed newstyle, no zeroes), then IHAVEOPT, option 2
        // (abort) with no data; the server's reply is 20 bytes.
        const unsigned char abort[] = {0, 0, 0, 3, 'I', 'H', 'A', 'V', 'E', 'O', 'P', 'T', 0, 0, 0, 2, 0, 0, 0, 0};
        char reply[20];
        answered = ::send(fd, abort, sizeof abort, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof abort) &&
            readExactly(fd, reply, sizeof reply);
    }
    ::close(fd);
    return answered;
}

// The password in a pipe whose reading end the next program started inherits
// (nbdkit's plugin reads it with password-fd=N): it never lies in a file, so
// nothing is left behind whenever this program is killed.
class CPasswordPipe {
public:
    explicit CPasswordPipe(const zo::String& password)
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            throw zo::makeErrnoError(errno, "pipe", zo::String());
        m_readEnd = ends[0];
        std::string text = password.toUTF8();
        // A password is at most 64 KiB, which a pipe holds by default; make
        // sure all of it fits before anyone reads.
        ::fcntl(ends[1], F_SETPIPE_SZ, static_cast<int>(text.size()) + 1);
        const bool written = ::write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
        const int error = errno;
        explicit_bzero(text.data(), text.size());
        ::close(ends[1]);
        if (!written) {
            ::close(m_readEnd);
            throw zo::makeErrnoError(error, "write the password into a pipe", zo::String());
        }
        // Inherited by the program started next, and only by that one: the
        // reading end is closed once it has started.
        ::fcntl(m_readEnd, F_SETFD, 0);
    }
    ~CPasswordPipe() { ::close(m_readEnd); }
    CPasswordPipe(const CPasswordPipe&) = delete;
    CPasswordPipe& operator=(const CPasswordPipe&) = delete;

    int readEnd() const { return m_readEnd; }

private:
    int m_readEnd = -1;
};

// A Unix socket path claimed for a server: a stale socket (one nobody
// answers on, left by a server that was killed) is removed; a socket that
// answers and any other kind of file are refused. The claimed path is
// removed when it goes.
class CSocketPlace {
public:
    explicit CSocketPlace(const std::string& path) : m_path(path)
    {
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0) {
            if (errno != ENOENT)
                throw zo::makeErrnoError(errno, "look at the socket path", zo::String(path));
            return;
        }
        if (!S_ISSOCK(status.st_mode))
            throw zo::CError("The socket path names a file that is not a socket; it is left as it is.", zo::String(),
                             -1, zo::CProps().add("socket", path));
        if (someoneListens(path))
            throw zo::CError("Another server listens on the socket.", zo::String(), -1,
                             zo::CProps().add("socket", path));
        if (::unlink(path.c_str()) != 0 && errno != ENOENT)
            throw zo::makeErrnoError(errno, "remove the stale socket", zo::String(path));
    }
    ~CSocketPlace()
    {
        struct stat status {};
        if (::lstat(m_path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode))
            ::unlink(m_path.c_str());
    }
    CSocketPlace(const CSocketPlace&) = delete;
    CSocketPlace& operator=(const CSocketPlace&) = delete;

private:
    static bool someoneListens(const std::string& path)
    {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0)
            throw zo::makeErrnoError(errno, "socket", zo::String(path));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        const bool connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        ::close(fd);
        return connected;
    }

    std::string m_path;
};

// The plugin's parameters for the store of the disk in `folder`: the
// program's --ceph-... or --s3-... settings, which the server needs to reach
// the disk as this program does.
std::vector<std::string> storeParameters(const zo::CURI& folder)
{
    const brick::StoreSettings& settings = getStoreSettings();
    switch (brick::getStoreKind(folder.toLocalPath())) {
    case brick::StoreKind::Ceph: {
        std::vector<std::string> parameters{"ceph-id=" + settings.ceph.clientId,
                                            "ceph-lock-lease=" + std::to_string(settings.ceph.lockLeaseSeconds),
                                            "ceph-timeout=" + std::to_string(settings.ceph.operationTimeoutSeconds)};
        if (!settings.ceph.configFile.empty())
            parameters.push_back("ceph-conf=" + settings.ceph.configFile);
        return parameters;
    }
    case brick::StoreKind::S3: {
        std::vector<std::string> parameters{"s3-lock-lease=" + std::to_string(settings.s3.lockLeaseSeconds),
                                            "s3-attempts=" + std::to_string(settings.s3.attempts)};
        if (!settings.s3.endpoint.empty())
            parameters.push_back("s3-endpoint=" + settings.s3.endpoint);
        if (settings.s3.virtualHost)
            parameters.push_back("s3-virtual-host=true");
        if (settings.s3.noConditionalPut)
            parameters.push_back("s3-no-conditional-put=true");
        return parameters;
    }
    case brick::StoreKind::LocalFolder:
        break;
    }
    return {};
}

// A running nbdkit serving one disk.
class CServer {
public:
    CServer(const ServeOptions& options, const std::string& socketPath) : m_socket(socketPath), m_port(options.port)
    {
        const zo::CURI folder = diskFolderURI(options.disk);
        const zo::P<zo::IFileSystem> fs = newFileSystem(folder, false, 1);
        const brick::CBrickDiskHeader header = loadDiskHeader(fs.get(), folder);
        // A disk with a parent is a snapshot: it keeps its view unless
        // writing it is asked for.
        const bool isSnapshot = fs->fileExists(folder << brick::CBrickDisk::getParentLinkFileName());
        m_readOnly = options.readOnly || (isSnapshot && !options.writable);
        parseByteSize(options.cache, "--cache");
        if (!options.cacheDir.empty()) {
            if (brick::getStoreKind(folder.toLocalPath()) == brick::StoreKind::LocalFolder)
                throw zo::CError("--cache-dir is for disks in a Ceph pool or an S3 bucket; a disk in a local folder "
                                 "is served from its folder without one.",
                                 zo::String(), -1, zo::CProps().add("diskFolder", folder.toString()));
            parseByteSize(options.cacheSize, "--cache-size");
        }
        // A disk in use is refused here, naming its holder as every command
        // does, before anything of a running server (its socket) is touched.
        // The server takes the lock itself once it runs.
        // The disk's write mark is left as it is: the server's cache checks
        // it for writers without the cache.
        checkDiskFree(fs.get(), folder,
                      m_readOnly ? brick::CBrickDiskLock::ForReading : brick::CBrickDiskLock::ForWriting);

        std::vector<std::string> argv{"nbdkit", "-f", "--exit-with-parent"};
        if (m_socket.empty()) {
            argv.insert(argv.end(), {"-p", std::to_string(m_port)});
        } else {
            m_socketPlace = std::make_unique<CSocketPlace>(m_socket);
            argv.insert(argv.end(), {"-U", m_socket});
        }
        argv.push_back(options.plugin.empty() ? defaultPlugin() : options.plugin);
        argv.push_back("disk=" + folder.toLocalPath());
        for (const std::string& parameter : storeParameters(folder))
            argv.push_back(parameter);
        argv.push_back("cache=" + options.cache);
        if (!options.cacheDir.empty()) {
            argv.push_back("cache-dir=" + std::filesystem::absolute(options.cacheDir).lexically_normal().string());
            argv.push_back("cache-size=" + options.cacheSize);
            argv.push_back("upload-jobs=" + std::to_string(options.uploadJobs));
            argv.push_back("max-dirty=" + std::to_string(options.maxDirty));
            if (options.flushToStore)
                argv.push_back("flush-to-store=true");
        }
        if (!options.statsFile.empty())
            argv.push_back("stats=" + std::filesystem::absolute(options.statsFile).lexically_normal().string());
        if (m_readOnly)
            argv.push_back("readonly=true");
        std::unique_ptr<CPasswordPipe> password;
        if (header.isEncrypted()) {
            password = std::make_unique<CPasswordPipe>(options.passwords.forExistingDisk(options.disk));
            argv.push_back("password-fd=" + std::to_string(password->readEnd()));
        }
        m_process = std::make_unique<CChildProcess>(argv);
    }

    // Waits until the server accepts connections; false when it ended first
    // or Ctrl-C came.
    bool waitUntilReady()
    {
        while (m_process->isRunning()) {
            if (serverAnswers(m_socket, m_port))
                return true;
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
    // Removed after the server has ended.
    std::unique_ptr<CSocketPlace> m_socketPlace;
    std::unique_ptr<CChildProcess> m_process;
};

[[noreturn]] void serverEndedEarly(CChildProcess& process)
{
    const int status = process.terminate();
    throw zo::CError("The NBD server ended before it was ready (see its messages above).", zo::String(), -1,
                     zo::CProps().add("exitStatus", static_cast<zo::int64>(status)));
}

// The server ended while it served, on its own: its clients lost their disk.
// What it stored is safe (a flushed write is durable); the user learns why.
[[noreturn]] void serverDied(CChildProcess& process, const std::string& disk)
{
    process.wait();
    zo::CProps props;
    props.add("diskFolder", disk);
    if (process.signalNumber() != 0) {
        props.add("signal", zo::String(::strsignal(process.signalNumber())));
        throw zo::CError("The NBD server died by signal " + zo::String(std::to_string(process.signalNumber())) +
                             " while serving; writes it had not flushed may be lost.",
                         zo::String(), -1, props);
    }
    props.add("exitStatus", static_cast<zo::int64>(process.wait()));
    throw zo::CError("The NBD server ended while serving (see its messages above).", zo::String(), -1, props);
}

// Stops a server that still serves. nbdkit flushes the disk before it ends;
// a server that could not store every changed brick says which and ends
// with a failure, which is thrown here.
void stopServer(CChildProcess& process, const std::string& disk)
{
    const int status = process.terminate();
    if (status != 0 && status != 128 + SIGTERM)
        throw zo::CError("The NBD server failed as it stopped (see its messages above).", zo::String(), -1,
                         zo::CProps().add("diskFolder", disk).add("exitStatus", static_cast<zo::int64>(status)));
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
    if (!server.process().isRunning())
        serverDied(server.process(), options.disk);
    stopServer(server.process(), options.disk);
    std::printf("Stopped serving %s.\n", options.disk.c_str());
    return 0;
}

// The folder a disk is mounted on: it must exist and be empty, so that the
// disk file hides nothing of the user's.
std::string checkedMountFolder(const std::string& mountFolder)
{
    const std::string folder = std::filesystem::absolute(mountFolder).lexically_normal().string();
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(folder, error);
    if (!std::filesystem::exists(status))
        throw zo::CError("The folder to mount on does not exist.", zo::String(), -1,
                         zo::CProps().add("folder", folder));
    if (!std::filesystem::is_directory(status))
        throw zo::CError("The folder to mount on is a file, not a folder.", zo::String(), -1,
                         zo::CProps().add("folder", folder));
    if (!std::filesystem::is_empty(folder, error))
        throw zo::CError("The folder to mount on is not empty; give an empty folder.", zo::String(), -1,
                         zo::CProps().add("folder", folder));
    // The kernel names a loop device's file by its real path.
    return std::filesystem::canonical(folder).string();
}

// A folder of this program's own in the temporary folder ($TMPDIR, else
// /tmp), for the private socket of a mount; removed with what it holds when
// it goes.
class CPrivateFolder {
public:
    CPrivateFolder()
    {
        const char* temporary = std::getenv("TMPDIR");
        std::string pattern = std::string(temporary && *temporary ? temporary : "/tmp") + "/brickdisk-mount-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr)
            throw zo::makeErrnoError(errno, "mkdtemp", zo::String(pattern));
        m_path = pattern;
    }
    ~CPrivateFolder()
    {
        std::error_code error;
        std::filesystem::remove_all(m_path, error);
    }
    CPrivateFolder(const CPrivateFolder&) = delete;
    CPrivateFolder& operator=(const CPrivateFolder&) = delete;
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

// Sends what the kernel still holds of the disk file to the server, and the
// server's flush after it (nbdfuse turns an fsync into an NBD flush).
void flushDiskFile(const std::string& diskFile)
{
    const int fd = ::open(diskFile.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    ::fsync(fd);
    ::close(fd);
}

// Ends the FUSE mount of `folder` as brickdisk unmount does: refused while a
// loop device uses the disk file (taking the file away would give that
// device's users I/O errors), else the disk file is flushed and the folder
// unmounted, which ends nbdfuse. Returns why it was refused; empty once
// unmounted.
std::string unmountDiskFile(const std::string& folder)
{
    const std::string diskFile = folder + "/" + kMountedFileName;
    if (const std::optional<LoopUse> loop = findLoopDevice(diskFile)) {
        const std::string where = loop->mountPoint.empty()
            ? "attached to " + loop->device
            : "loop-mounted on " + loop->mountPoint + " (" + loop->device + ")";
        return "The disk file " + diskFile + " is still " + where + "; undo that first: " + releaseCommand(*loop) + ".";
    }
    flushDiskFile(diskFile);
    CChildProcess unmount({"fusermount3", "-u", folder});
    if (unmount.wait() != 0)
        return "Unmounting " + folder + " failed: a program still uses the disk file (see above).";
    return std::string();
}

// Waits until nbdfuse has mounted the disk file; false when Ctrl-C came first.
// Throws when nbdfuse ended without mounting.
bool waitUntilMounted(CChildProcess& fuse, const std::string& folder)
{
    while (fuse.isRunning()) {
        if (isMountPoint(folder))
            return true;
        if (waitForInterrupt(50))
            return false;
    }
    throw zo::CError("nbdfuse could not mount the disk file (see its messages above).", zo::String(), -1,
                     zo::CProps().add("folder", folder).add("exitStatus", static_cast<zo::int64>(fuse.wait())));
}

int runMount(const ServeOptions& options, const std::string& mountFolder)
{
    const std::string folder = checkedMountFolder(mountFolder);
    const CPrivateFolder privateFolder;
    const std::string socketPath = privateFolder.path() + "/nbd.sock";
    CServer server(options, socketPath);
    if (!server.waitUntilReady()) {
        if (!server.process().isRunning())
            serverEndedEarly(server.process());
        return 0;
    }
    std::vector<std::string> fuseArguments{"nbdfuse"};
    if (server.readOnly())
        fuseArguments.push_back("-r");
    fuseArguments.insert(fuseArguments.end(), {folder + "/" + kMountedFileName, "--unix", socketPath});
    CChildProcess fuse(fuseArguments);
    if (!waitUntilMounted(fuse, folder))
        return 0;
    std::printf("Mounted %s%s as the file %s/%s\n"
                "Loop-mount it with: mount -o %s %s/%s MOUNTPOINT\n"
                "Stop with Ctrl-C or: brickdisk unmount %s\n",
                options.disk.c_str(), server.readOnly() ? " (read-only)" : "", folder.c_str(), kMountedFileName,
                server.readOnly() ? "loop,ro" : "loop", folder.c_str(), kMountedFileName, folder.c_str());
    std::fflush(stdout);
    for (;;) {
        while (fuse.isRunning() && server.process().isRunning() && !waitForInterrupt(200)) {
        }
        if (!fuse.isRunning() || !server.process().isRunning())
            break;
        const std::string refusal = unmountDiskFile(folder);
        if (refusal.empty())
            break;
        std::fprintf(stderr, "brickdisk: %s The disk is still served; stop again once it is released.\n",
                     refusal.c_str());
        forgetInterrupt();
    }
    if (!server.process().isRunning()) {
        // Nothing serves the disk file any more: take it away.
        if (fuse.isRunning() && !unmountDiskFile(folder).empty())
            fuse.terminate();
        fuse.wait();
        serverDied(server.process(), options.disk);
    }
    const int status = fuse.wait();
    stopServer(server.process(), options.disk);
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
    CLI::Option* cacheDir = command.add_option(
        "--cache-dir", options.cacheDir,
        "Local folder that caches the brick files of a disk in Ceph or S3; writes are acknowledged once durable "
        "there and uploaded in the background");
    command.add_option("--cache-size", options.cacheSize, "Size the cache folder is kept within, e.g. 20G")
        ->capture_default_str()
        ->needs(cacheDir);
    command.add_option("--upload-jobs", options.uploadJobs, "Uploads from the cache folder to the store at once")
        ->capture_default_str()
        ->check(CLI::Range(1, 64))
        ->needs(cacheDir);
    command
        .add_option("--max-dirty", options.maxDirty,
                    "Changed bricks in the cache folder not yet uploaded, at most; a further write waits for an "
                    "upload")
        ->capture_default_str()
        ->check(CLI::Range(1, 1 << 20))
        ->needs(cacheDir);
    command
        .add_flag("--flush-to-store", options.flushToStore,
                  "A flush also waits until the store holds every write before it")
        ->needs(cacheDir);
    command.add_option("--stats", options.statsFile,
                       "Write the server's counters (requests to the store, cache hits, uploads) into this file "
                       "every 5 s and at the end, in the Prometheus text format");
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
    command->add_option("FOLDER", *folder, "An existing, empty folder that shows the disk as a file")->required();
    return [options, folder] { return runMount(*options, *folder); };
}

CommandAction addUnmountCommand(CLI::App& program)
{
    auto folder = std::make_shared<std::string>();
    CLI::App* command = program.add_subcommand("unmount", "End a brickdisk mount: the disk is flushed and released");
    command->add_option("FOLDER", *folder, "The folder given to brickdisk mount")->required();
    return [folder] {
        std::string path = std::filesystem::absolute(*folder).lexically_normal().string();
        std::error_code error;
        // The kernel names a loop device's file by its real path.
        const std::filesystem::path real = std::filesystem::canonical(path, error);
        if (!error)
            path = real.string();
        if (!isMountPoint(path))
            throw zo::CError("The folder is not mounted.", zo::String(), -1, zo::CProps().add("folder", path));
        const std::string refusal = unmountDiskFile(path);
        if (!refusal.empty())
            throw zo::CError(zo::String(refusal), zo::String(), -1, zo::CProps().add("folder", path));
        return 0;
    };
}

} // namespace cli
