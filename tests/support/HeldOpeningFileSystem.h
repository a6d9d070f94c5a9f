// A file system that holds back the opening for reading of one chosen file
// until the test lets it go, and signals when any of a set of files is
// opened; everything else passes through to the file system below it. The
// block device's tests use it to hold a brick's load half-way.
#pragma once

#include "zo/ForwardingFileSystem.h"
#include "zo/Signal.h"

#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace testsupport {

class HeldOpeningFileSystem : public zo::CForwardingFileSystem {
public:
    // What no step of a working test comes near, even on a busy machine.
    static constexpr int kGenerousMillis = 60000;

    explicit HeldOpeningFileSystem(zo::IFileSystem* inner) : CForwardingFileSystem(inner) {}

    // From now on, opening `file` for reading waits until letGo.
    void holdOpeningOf(const zo::CURI& file)
    {
        std::lock_guard lock(m_mutex);
        m_held = file.toString(true).toUTF8();
    }
    // True once the opening is held, within a generous time.
    bool waitUntilHeld() { return m_holding.wait(kGenerousMillis); }
    void letGo() { m_letGo.set(); }

    // From now on, an opening of one of `files` sets the signal that
    // waitUntilOneIsOpened waits for.
    void signalOpeningOf(const std::vector<zo::CURI>& files)
    {
        std::lock_guard lock(m_mutex);
        for (const zo::CURI& file : files)
            m_signalled.insert(file.toString(true).toUTF8());
    }
    // True once one was opened, within a generous time.
    bool waitUntilOneIsOpened() { return m_opened.wait(kGenerousMillis); }

    zo::P<zo::IIOStream> openStream(const zo::CURI& file, zo::IIOStream::Access access, const int& options) override
    {
        bool hold = false;
        {
            std::lock_guard lock(m_mutex);
            const std::string path = file.toString(true).toUTF8();
            hold = access == zo::IIOStream::AccessRead && path == m_held;
            if (m_signalled.count(path) != 0)
                m_opened.set();
        }
        if (hold) {
            m_holding.set();
            m_letGo.wait(-1);
        }
        return CForwardingFileSystem::openStream(file, access, options);
    }

private:
    std::mutex m_mutex;
    std::string m_held;
    std::set<std::string> m_signalled;
    zo::CSignal m_holding;
    zo::CSignal m_letGo;
    zo::CSignal m_opened;
};

} // namespace testsupport
