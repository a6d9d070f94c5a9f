// CBrickImporter: writes an image into a disk from position 0, brick by
// brick. Worker threads compare each brick of the image with what the disk
// holds there and prepare the bricks that changed, each thread with a
// preparer and a brick object of its own; the calling thread reads the image
// and hands the prepared bricks to the disk's store queue in index order,
// which stores them in the background. Unchanged bricks are not written at all, so importing a
// changed image writes only the changed bricks (and a disk with a linked child
// moves only those old bricks into the child).
#pragma once

#include "ImageSource.h"

#include "brick/chain/BrickDisk.h"
#include "brick/format/BrickDataPreparer.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace cli {

class CBrickImporter {
public:
    struct Counts {
        zo::int64 imageBytes = 0; // bytes read from the image
        zo::int64 written = 0; // changed bricks stored with data
        zo::int64 zero = 0; // changed bricks that became all zero
        zo::int64 skipped = 0; // bricks equal to what the disk held
        zo::int64 storedBytes = 0; // size of the brick files handed over
    };

    // Starts `jobs` worker threads over `disk`, which must be open for
    // writing.
    CBrickImporter(brick::CBrickDisk& disk, int jobs);
    // Stops and joins the workers; never throws.
    ~CBrickImporter();
    CBrickImporter(const CBrickImporter&) = delete;
    CBrickImporter& operator=(const CBrickImporter&) = delete;

    // Imports what `source` gives, from position 0 on. `onProgress` hears the
    // number of image bytes handed to the disk so far after every brick. Bytes
    // of the last brick beyond the image's end keep what the disk held. When
    // the image goes on past the end of the disk, every brick up to that end
    // is still handed over, then the source's error is thrown. A brick that
    // cannot be prepared throws its error once the bricks before it are
    // handed over, and no later brick is started; read errors of the source
    // are thrown too. Saves still running in the background are not waited
    // for: the caller flushes the disk.
    void run(CImageSource& source, const std::function<void(zo::int64)>& onProgress);

    const Counts& getCounts() const { return m_counts; }

private:
    // One brick of the image on its way into the disk.
    struct Task {
        enum Outcome { Pending, Store, Unchanged, Failed };
        zo::int64 index = 0;
        // The brick's bytes; left empty for a hole of the image, which reads
        // as zeros.
        zo::TBuffer<zo::uint8> plain;
        bool hole = false;
        int imageBytes = 0;
        Outcome outcome = Pending;
        bool zero = false;
        // The brick file's bytes; null for an all-zero brick.
        zo::P<zo::TBuffer<zo::uint8>> prepared;
        std::exception_ptr error;
    };

    void workerLoop(zo::P<brick::CBrickDataPreparer> preparer, zo::P<brick::CBrick> brick);
    void decide(Task& task, brick::CBrickDataPreparer& preparer, brick::CBrick& brick,
                zo::TBuffer<zo::uint8>& current) const;
    std::unique_ptr<Task> waitForResult(zo::int64 index);
    void handOver(Task& task);

    const int m_brickSize;
    const zo::int64 m_diskSize;
    // The disk's store queue, which the bricks are handed to.
    const zo::P<brick::CBrickStoreQueue> m_storeQueue;
    const int m_window;
    Counts m_counts;

    std::mutex m_mutex;
    std::condition_variable m_taskQueued;
    std::condition_variable m_taskDone;
    std::deque<std::unique_ptr<Task>> m_queue;
    std::map<zo::int64, std::unique_ptr<Task>> m_done;
    bool m_stopping = false;
    std::vector<std::thread> m_workers;
};

} // namespace cli
