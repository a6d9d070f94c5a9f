// The control socket of a server that serves a disk, through which snapshots
// of the disk are taken while it is served: where the socket lies, the
// server's side and the client's side of the exchange.
//
// The socket is a file in a local folder that only the user who runs the
// server can write (see getControlSocketFolder), named after the disk (a
// digest of its absolute folder, or of its address in a store), so a program
// of that user that knows the disk finds the server, and no other user can
// take its place. A server killed without warning leaves its socket file,
// which the next server of the disk replaces. The exchange is one line each
// way: "snapshot FOLDER\n", answered by "ok\n" or "error MESSAGE\n"; only
// processes of the server's own user (or root) are answered, and a client
// asks only a server of its own user (or root).
#pragma once

#include "zo/Export.h"
#include "zo/Thread.h"
#include "zo/URI.h"

#include <functional>
#include <optional>
#include <string>

namespace brick {

// The folder of the calling user's control sockets: $XDG_RUNTIME_DIR, else
// /run/user/UID, each only when it is the user's own folder that nobody else
// can write; else the folder "brickdisk-UID" in /tmp, made with mode 0700
// when missing. Throws zo::CError when that folder is not the user's own
// private folder (someone else made it), with "folder". Any thread may call
// it.
BRICKDISK_EXPORT std::string getControlSocketFolder();

// The control socket's path for the disk in `diskFolder` (an absolute local
// folder, "rados://POOL/path" or "s3://BUCKET/path", as the disk is named
// everywhere else; normalised, so that "s3://b/vm/" and "s3://b//vm" name
// the socket of "s3://b/vm"), in getControlSocketFolder(). Throws as that does, and
// when the path is too long for a Unix socket ("socket").
BRICKDISK_EXPORT std::string getControlSocketPath(const zo::CURI& diskFolder);

// Asks the server of the disk in `diskFolder` to make `snapshotFolder` a
// snapshot. nullopt when no server listens for that disk; otherwise the
// server's answer: empty on success, else its error message. Throws
// zo::CFileSystemError when no socket can be made, and zo::CError when the
// process that answers runs as another user (it is not a server this user
// started), with "socket" and "peerUser".
BRICKDISK_EXPORT std::optional<std::string> requestSnapshotFromServer(const zo::CURI& diskFolder,
                                                                      const zo::CURI& snapshotFolder);

// The server's side: listens on the control socket of one served disk and
// answers each snapshot request by calling `takeSnapshot` with the folder
// asked for (a thrown error is the answer's message).
class BRICKDISK_EXPORT CSnapshotControl {
public:
    using TakeSnapshot = std::function<void(const zo::CURI& snapshotFolder)>;

    // Listens for the disk in `diskFolder` on a thread of its own, on the
    // socket file that getControlSocketPath names (replacing one a killed
    // server left); `takeSnapshot` runs on that thread, one request at a
    // time. Throws zo::CError when the socket cannot be made.
    CSnapshotControl(const zo::CURI& diskFolder, TakeSnapshot takeSnapshot);
    // Stops listening and removes the socket file; a request being answered
    // is finished first. Never throws.
    ~CSnapshotControl();
    CSnapshotControl(const CSnapshotControl&) = delete;
    CSnapshotControl& operator=(const CSnapshotControl&) = delete;

private:
    void serve();
    void answer(int connection);

    TakeSnapshot m_takeSnapshot;
    std::string m_path;
    int m_listener = -1;
    int m_stopPipe[2] = {-1, -1};
    zo::P<zo::CThread> m_thread;
};

} // namespace brick
