// The server side of the control socket (see ControlSocket.h), through which
// snapshots of the served disk are taken while it is served. Only processes
// of the server's own user (or root) are answered.
#pragma once

#include <string>
#include <thread>

namespace nbdplugin {

class CServedDisk;

class CSnapshotControl {
public:
    // Listens for the served disk on a thread of its own, on the socket file
    // that ControlSocket.h names (replacing one a killed server left).
    // Throws zo::CError when the socket cannot be made.
    explicit CSnapshotControl(CServedDisk& served);
    // Stops listening and removes the socket file; a request being answered
    // is finished first.
    ~CSnapshotControl();
    CSnapshotControl(const CSnapshotControl&) = delete;
    CSnapshotControl& operator=(const CSnapshotControl&) = delete;

private:
    void serve();
    void answer(int connection);

    CServedDisk& m_served;
    std::string m_path;
    int m_listener = -1;
    int m_stopPipe[2] = {-1, -1};
    std::thread m_thread;
};

} // namespace nbdplugin
