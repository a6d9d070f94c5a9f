// A file system in front of another that holds back the calls a test
// chooses until the test lets them go, and signals when a call it watches
// for is made; everything else passes through to the file system below it.
// The tests use it to stop a brick's load, a cache's fetch or an upload
// half-way and look at what the rest does meanwhile.
#pragma once

#include "zo/ForwardingFileSystem.h"
#include "zo/Signal.h"
#include "zo/URI.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>

namespace testsupport {

class HeldFileSystem : public zo::CForwardingFileSystem {
public:
    // What no step of a working test comes near, even on a busy machine.
    static constexpr int kGenerousMillis = 60000;

    // The calls that can be held or watched for.
    enum class Call {
        OpenForReading, // openStream with read access only
        OpenForWriting, // openStream with write access
        Store, // beginStoreFile (batched stores come through it too)
        Delete // beginDeleteFile
    };
    // Whether a call of a kind on a path is chosen. It runs on the thread of
    // the call, outside the file system's lock.
    using Choice = std::function<bool(Call call, const zo::CURI& path)>;

    explicit HeldFileSystem(zo::IFileSystem* inner) : CForwardingFileSystem(inner) {}

    // The calls of `call` on `file`.
    static Choice callsOn(Call call, const zo::CURI& file)
    {
        return [call, file](Call made, const zo::CURI& path) { return made == call && path == file; };
    }

    // The first write (an opening for writing, or a store) of each file whose
    // name is in `names`, wherever it lies; later writes of those files and
    // every other call are not chosen.
    static Choice firstWritesOf(std::set<std::string> names)
    {
        struct Pending {
            std::mutex mutex;
            std::set<std::string> names;
        };
        const auto pending = std::make_shared<Pending>();
        pending->names = std::move(names);
        return [pending](Call made, const zo::CURI& path) {
            if (made != Call::OpenForWriting && made != Call::Store)
                return false;
            std::lock_guard lock(pending->mutex);
            return pending->names.erase(path.getName().toUTF8()) > 0;
        };
    }

    // From now on, a call that `choice` picks waits, on the thread that made
    // it, until letGo; once let go, every later call goes through at once.
    void holdCallsThat(Choice choice)
    {
        std::lock_guard lock(m_mutex);
        m_held = std::move(choice);
    }
    // True once a call was held, within `millis` (-1: no limit).
    bool waitUntilHeld(int millis = kGenerousMillis) { return m_holding.wait(millis); }
    // True once `count` calls were picked for holding, within `millis`:
    // before letGo, that many wait at once.
    bool waitUntilHeldCalls(int count, int millis = kGenerousMillis)
    {
        std::unique_lock lock(m_mutex);
        return m_heldChanged.wait_for(lock, std::chrono::milliseconds(millis),
                                      [&] { return m_heldCalls.load() >= count; });
    }
    // Lets the held calls go, and every later one. Named apart from
    // IBase::release, which a method "release" here would hide from P<>.
    void letGo() { m_letGo.set(); }
    // The calls picked for holding so far, those made after letGo included.
    int heldCalls() const { return m_heldCalls.load(); }

    // From now on, a call that `choice` picks sets the signal that
    // waitUntilSignalled waits for; the call itself goes on.
    void signalCallsThat(Choice choice)
    {
        std::lock_guard lock(m_mutex);
        m_signalled = std::move(choice);
    }
    // True once such a call was made, within `millis` (-1: no limit).
    bool waitUntilSignalled(int millis = kGenerousMillis) { return m_signal.wait(millis); }

    // `action` runs once, in the next listing, after the file system below
    // was listed and before the listing is returned.
    void afterNextListing(std::function<void()> action)
    {
        std::lock_guard lock(m_mutex);
        m_afterListing = std::move(action);
    }

    zo::P<zo::IIOStream> openStream(const zo::CURI& file, zo::IIOStream::Access access, const int& options) override
    {
        holdIfChosen(access == zo::IIOStream::AccessRead ? Call::OpenForReading : Call::OpenForWriting, file);
        return CForwardingFileSystem::openStream(file, access, options);
    }
    zo::P<zo::IFileSystemOp> beginStoreFile(const zo::CURI& file, int size, zo::IInStream* source, bool overwrite,
                                            zo::IDoneListener* listener) override
    {
        holdIfChosen(Call::Store, file);
        return CForwardingFileSystem::beginStoreFile(file, size, source, overwrite, listener);
    }
    zo::P<zo::IFileSystemOp> beginDeleteFile(const zo::CURI& file, zo::IDoneListener* listener) override
    {
        holdIfChosen(Call::Delete, file);
        return CForwardingFileSystem::beginDeleteFile(file, listener);
    }
    zo::TList<zo::String> listFolder(const zo::CURI& folder) override
    {
        zo::TList<zo::String> names = CForwardingFileSystem::listFolder(folder);
        std::function<void()> action;
        {
            std::lock_guard lock(m_mutex);
            action.swap(m_afterListing);
        }
        if (action)
            action();
        return names;
    }

private:
    void holdIfChosen(Call call, const zo::CURI& path)
    {
        Choice held;
        Choice signalled;
        {
            std::lock_guard lock(m_mutex);
            held = m_held;
            signalled = m_signalled;
        }
        if (signalled && signalled(call, path))
            m_signal.set();
        if (!held || !held(call, path))
            return;
        {
            std::lock_guard lock(m_mutex);
            ++m_heldCalls;
        }
        m_heldChanged.notify_all();
        m_holding.set();
        m_letGo.wait(-1);
    }

    std::mutex m_mutex;
    // Guarded by m_mutex.
    Choice m_held;
    Choice m_signalled;
    std::function<void()> m_afterListing;

    std::condition_variable m_heldChanged;
    // Changed under m_mutex, so that waitUntilHeldCalls misses no change.
    std::atomic<int> m_heldCalls{0};
    zo::CSignal m_holding;
    zo::CSignal m_letGo;
    zo::CSignal m_signal;
};

} // namespace testsupport
