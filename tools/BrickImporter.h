// CBrickImporter: writes an image into a disk from position 0, brick by
// brick. The workers of a zo::CWorkerPool compare each brick of the image
// with what the disk holds there and prepare the bricks that changed, each
// worker with a preparer and a brick object of its own; the calling thread
// reads the image and hands the prepared bricks to the disk's store queue in
// index order, which stores them in the background. Unchanged bricks are not
// written at all, so importing a changed image writes only the changed bricks
// (and a disk with a linked child moves only those old bricks into the
// child).
#pragma once

#include "ImageSource.h"

#include "brick/chain/BrickDisk.h"
#include "brick/format/BrickDataPreparer.h"
#include "zo/WorkerPool.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
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

    // Starts `jobs` workers over `disk`, which must be open for writing.
    // Throws zo::CError when a worker thread cannot be started.
    CBrickImporter(brick::CBrickDisk& disk, int jobs);
    // Drops the bricks not yet started and waits for the workers; never
    // throws.
    ~CBrickImporter() = default;
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
        enum Outcome { Pending, Store, Unchanged };
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
    };
    // What one worker works with, used by that worker only.
    struct Worker {
        zo::P<brick::CBrickDataPreparer> preparer;
        zo::P<brick::CBrick> brick;
        // What the disk holds at the brick being decided.
        zo::TBuffer<zo::uint8> current;
    };

    // The job of one brick: decides it on the worker and files the result.
    void runTask(const std::shared_ptr<Task>& task, Worker& worker);
    void decide(Task& task, Worker& worker) const;
    // The decided brick `index`; throws the error of the first brick that
    // failed once every brick started before it has been decided.
    std::shared_ptr<Task> waitForResult(zo::int64 index);
    void handOver(Task& task);

    const int m_brickSize;
    const zo::int64 m_diskSize;
    // The disk's store queue, which the bricks are handed to.
    const zo::P<brick::CBrickStoreQueue> m_storeQueue;
    const int m_window;
    Counts m_counts;
    std::vector<Worker> m_workers;

    // Guards m_done.
    std::mutex m_mutex;
    std::map<zo::int64, std::shared_ptr<Task>> m_done;
    // Last: its workers end before what their jobs use goes.
    zo::CWorkerPool m_pool;
};

} // namespace cli
