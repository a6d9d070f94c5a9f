#include "brick/backup/ChainCopier.h"

#include "brick/backup/CopyRecord.h"
#include "brick/backup/RetentionPlan.h"
#include "brick/backup/detail/RecordReadCache.h"
#include "brick/chain/BrickDisk.h"
#include "brick/chain/BrickDiskChain.h"
#include "brick/chain/DiskStore.h"
#include "brick/detail/BrickFileLayout.h"
#include "brick/detail/FolderMode.h"
#include "brick/format/BrickDiskAuxFileBase.h"
#include "brick/format/BrickDiskCreationTime.h"
#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickDiskLink.h"
#include "brick/format/BrickTree.h"

#include "seal/Digest.h"
#include "zo/Buffer.h"
#include "zo/BufferStream.h"
#include "zo/Error.h"
#include "zo/FileSystemQueries.h"
#include "zo/Log.h"
#include "zo/StagedStore.h"
#include "zo/WorkerPool.h"

#include <algorithm>
#include <exception>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>

namespace brick {

using zo::CError;
using zo::CURI;
using zo::String;

namespace {

// The outer digest (or tag) of a brick file ends it and is at most as long as
// a SHA-256 or HMAC-SHA256 digest (an MD5 digest and a cipher's tag are
// shorter): comparing this many last bytes compares the digests.
constexpr int kBrickFileTailSize = layout::kIndexBoundDigestSize;

// Comparisons of brick files with the destination's run this many times as
// many at once as files are sent: each costs a small read of the last bytes
// of a file, mostly waiting for the store's answer.
constexpr int kComparisonsPerJob = 4;

// Disks whose brick trees are listed at once ahead of their copy.
constexpr std::size_t kDisksListedAhead = 4;

// A brick file of the source and the destination's file of that brick.
struct Candidate {
    CBrickTree::BrickFile brick;
    std::optional<CBrickTree::BrickFile> held;
};

// One disk of the copy: its folder in the source and in the destination.
struct DiskPlan {
    CURI source;
    CURI destination;
    CBrickDiskHeader header;
    // The destination holds it as a member of its chain already.
    bool existing = false;
    // How the destination's folder was found before the copy: Finished for
    // a folder without marks (or none).
    CBrickDisk::Completion completion = CBrickDisk::Finished;
};

// The first `size` bytes of `file`, read whole.
zo::TBuffer<zo::uint8> readFile(zo::IFileSystem* fs, const CURI& file, zo::int64 size)
{
    const zo::P<zo::IIOStream> stream = fs->openStream(file, zo::IIOStream::AccessRead, zo::IIOStream::OptionNone);
    zo::TBuffer<zo::uint8> bytes(static_cast<int>(size));
    stream->read(bytes.getData(), static_cast<int>(size));
    return bytes;
}

// The last bytes of a brick file of `size` bytes, which hold its outer
// digest; a file system over an object store fetches only those, in one
// request.
std::string readTail(zo::IFileSystem* fs, const CURI& file, zo::int64 size)
{
    const int tail = static_cast<int>(std::min<zo::int64>(size, kBrickFileTailSize));
    std::string bytes(static_cast<std::size_t>(tail), '\0');
    zo::readFileRange(fs, file, size - tail, bytes.data(), tail);
    return bytes;
}

// The last bytes of a brick file read whole, as readTail reads them.
std::string tailOf(const zo::TBuffer<zo::uint8>& bytes)
{
    const int tail = std::min(bytes.getUsed(), kBrickFileTailSize);
    return std::string(reinterpret_cast<const char*>(bytes.getData()) + bytes.getUsed() - tail,
                       static_cast<std::size_t>(tail));
}

// Runs `work` for each of `count` items on `threads` workers (at least one);
// the caller's thread runs `between` as items end. The first item that
// fails stops the workers, and so does what `between` throws; either is
// thrown once the items under way have ended.
void runOnWorkers(std::size_t count, int threads, const std::function<void(std::size_t)>& work,
                  const std::function<void()>& between)
{
    if (count == 0)
        return;
    zo::CWorkerPool pool(static_cast<int>(std::min<std::size_t>(std::max(1, threads), count)));
    for (std::size_t item = 0; item < count; ++item)
        pool.post([&work, item](int) { work(item); });
    std::exception_ptr stopped;
    int ended = 0;
    while (!pool.isStopped() && !pool.waitDone(0)) {
        ended = pool.waitForEndedJobs(ended, -1);
        try {
            between();
        } catch (...) {
            stopped = std::current_exception();
            pool.stop();
        }
    }
    pool.wait();
    if (stopped)
        std::rethrow_exception(stopped);
}

// The digest type of the brick files of a disk whose header names a plain
// checksum ("md5", "sha256"), which checks their outer digest without the
// key; null for a keyed one.
zo::P<seal::IDigestType> plainDigestOf(const CBrickDiskHeader& header)
{
    const String id = header.getCheckSumHashID();
    if (id != String("md5") && id != String("sha256"))
        return nullptr;
    return seal::CDigestManager().getType(id);
}

// True when the last bytes of a brick file are the digest of all the bytes
// before them (a file too short to hold one does not match).
bool matchesOuterDigest(const zo::TBuffer<zo::uint8>& bytes, const seal::IDigestType& type)
{
    const int size = type.getSize();
    if (bytes.getUsed() < size)
        return false;
    const zo::P<seal::IDigestContext> context = type.createContext();
    context->update(bytes.getData(), bytes.getUsed() - size);
    context->finish();
    return std::equal(context->getDigest(), context->getDigest() + size, bytes.getData() + bytes.getUsed() - size);
}

// The header's record name, "disk.brickdisk".
String headerRecordName()
{
    return CBrickDiskHeader::getHeaderURI(CURI("."), 0).getName();
}

bool recordExists(zo::IFileSystem* fs, const CURI& folder, const String& name)
{
    return fs->fileExists(CBrickDiskAuxFileBase::getAuxFileURI(folder, name, 0)) ||
        fs->fileExists(CBrickDiskAuxFileBase::getAuxFileURI(folder, name, 1));
}

void deleteRecord(zo::IFileSystem* fs, const CURI& folder, const String& name)
{
    for (int copy = 0; copy < 2; ++copy)
        fs->deleteFile(CBrickDiskAuxFileBase::getAuxFileURI(folder, name, copy), true);
}

// True when `folder` holds anything but the lock file of the folder lock
// (which the caller may take on a new destination before it copies).
bool holdsFiles(zo::IFileSystem* fs, const CURI& folder)
{
    for (const String& name : fs->listFolder(folder))
        if (name != String(".lock"))
            return true;
    return false;
}

// Leading ".." components of a normalized relative path.
int countUpSteps(const CURI& relative)
{
    const std::string text = relative.toString(true).toUTF8();
    int steps = 0;
    for (std::size_t at = 0; text.compare(at, 2, "..") == 0 && (at + 2 == text.size() || text[at + 2] == '/'); at += 3)
        ++steps;
    return steps;
}

// True when a folder at `relative` (normalized) from a folder `depth` levels
// below its store's root lies above that root or is the root itself: a
// snapshot needs a folder inside the store, at any level of it.
bool landsAboveRoot(const CURI& relative, int depth)
{
    const int steps = countUpSteps(relative);
    const bool onlyUpSteps = relative.toString(true).toUTF8().size() == static_cast<std::size_t>(3 * steps - 1);
    return steps > depth || (steps == depth && onlyUpSteps);
}

// How many folders below its store's root `folder` lies: below "/" for a
// local folder, below the pool or bucket for "rados://" and "s3://".
int depthInStore(const CURI& folder)
{
    std::string text = folder.toNormalized().toString(true).toUTF8();
    const std::size_t scheme = text.find("://");
    int skipped = 0;
    if (scheme != std::string::npos) {
        text = text.substr(scheme + 3);
        skipped = 1;
    }
    int depth = 0;
    std::size_t at = 0;
    while (at < text.size()) {
        const std::size_t end = std::min(text.find('/', at), text.size());
        depth += end > at ? 1 : 0;
        at = end + 1;
    }
    return depth - skipped;
}

bool isSameOrBelow(const CURI& path, const CURI& folder)
{
    const std::string a = path.toNormalized().toString(true).toUTF8();
    const std::string b = folder.toNormalized().toString(true).toUTF8();
    return a == b || (a.size() > b.size() && a.compare(0, b.size(), b) == 0 && (b.back() == '/' || a[b.size()] == '/'));
}

// Removes the temporary files that a store or copy into `folder` left
// behind when an earlier copy was killed (a snapshot's creating mark cut
// short leaves one): they are no part of any disk, and would otherwise make
// the folder look as if it held other files. The caller holds the
// destination's exclusive lock; a dry run changes nothing.
void removeLeftovers(zo::IFileSystem* fs, const CURI& folder, const CChainCopier::Options& options)
{
    if (!options.dryRun && fs->folderExists(folder))
        fs->removeTemporaryFiles(folder);
}

CError copyError(const String& message, const CURI& source, const CURI& destination)
{
    return CError(
        message, String(), -1,
        zo::CProps().add("diskFolder", source.toString(true)).add("destinationFolder", destination.toString(true)));
}

class CCopyRun {
public:
    // `records` reads the destination's records (over `destinationFs`) for
    // their comparisons; the copy changes them through `destinationFs`.
    CCopyRun(zo::IFileSystem* sourceFs, zo::IFileSystem* destinationFs, detail::CRecordReadCache* records,
             const CURI& destination, const CChainCopier::Options& options)
        : m_sourceFs(sourceFs), m_destinationFs(destinationFs), m_records(records), m_options(options)
    {
        if (!options.recordFolder.isEmpty())
            m_record = CCopyRecord::load(options.recordFolder, destination);
    }

    CChainCopier::Summary& summary() { return m_summary; }
    const std::vector<std::string>& problems() const { return m_problems; }

    // Brings the brick files of `disk` in the destination to those of its
    // source; with `deleteOthers`, removes the files that the source lacks
    // after every file has been sent.
    void syncBricks(const DiskPlan& disk, bool deleteOthers)
    {
        CBrickTree::Listing sourceListing;
        CBrickTree::Listing destinationListing;
        const auto ahead = m_listingsAhead.find(disk.destination);
        if (ahead != m_listingsAhead.end()) {
            sourceListing = ahead->second.source.get();
            destinationListing = ahead->second.destination.get();
            m_listingsAhead.erase(ahead);
            startListings();
        } else {
            sourceListing = listSource(disk);
            destinationListing = listDestination(disk);
        }
        const std::vector<CBrickTree::BrickFile>& sourceBricks = sourceListing.bricks;
        noteWhetherTagsAreGiven(destinationListing);
        std::map<zo::int64, CBrickTree::BrickFile> held;
        for (const CBrickTree::BrickFile& brick : destinationListing.bricks)
            held.emplace(brick.index, brick);

        std::vector<Candidate> candidates;
        for (const CBrickTree::BrickFile& brick : sourceBricks) {
            Candidate candidate{brick, std::nullopt};
            const auto found = held.find(brick.index);
            if (found != held.end()) {
                candidate.held = found->second;
                held.erase(found);
            }
            candidates.push_back(candidate);
        }
        sendFiles(disk, candidates);
        // The files sent are in place, bytes and names durable, only once the
        // destination's batch is synced: before anything that makes them
        // reachable (a record) or takes their place (a deletion).
        if (!m_options.dryRun) {
            m_destinationFs->syncBatch();
            learnTagsOfSent();
        }
        if (m_options.verify && !m_options.dryRun)
            verifySent();
        if (!deleteOthers)
            return;
        for (const auto& [index, brick] : held) {
            if (m_options.checkpoint)
                m_options.checkpoint();
            if (!m_options.dryRun)
                m_destinationFs->deleteFile(brick.path, true);
            ++m_summary.filesDeleted;
        }
    }

    // Makes the destination's record `name` of `disk` hold the source's
    // bytes; a record the source lacks is deleted when `deleteMissing`.
    void syncRecord(const DiskPlan& disk, const String& name, bool deleteMissing)
    {
        if (!recordExists(m_sourceFs, disk.source, name)) {
            if (deleteMissing && heldRecord(disk.destination, name).exists) {
                if (!m_options.dryRun)
                    deleteHeldRecord(disk.destination, name);
                ++m_summary.recordsWritten;
            }
            return;
        }
        const std::optional<CBrickDiskLink> link = isLinkRecord(name) ? rewrittenLink(disk, name) : std::nullopt;
        if (link) {
            syncLink(disk, name, *link);
            return;
        }
        const zo::P<zo::TBuffer<zo::uint8>> payload = CBrickDiskAuxFileBase::loadAuxFile(m_sourceFs, disk.source, name);
        // A record that does not load (no payload) is written again.
        const HeldRecord held = heldRecord(disk.destination, name);
        if (held.payload && *held.payload == *payload)
            return;
        if (!m_options.dryRun) {
            forgetHeldRecord(disk.destination, name);
            CBrickDiskAuxFileBase::storeAuxFile(m_destinationFs, disk.destination, name, *payload);
        }
        ++m_summary.recordsWritten;
    }

    // Makes `disk` in the destination as its source is, under the creating
    // mark, which stays until the copy ends (finishDisk): a disk cut short
    // in the making is refused by every opening.
    void makeDisk(const DiskPlan& disk, const std::set<CURI>& destinationDisks)
    {
        if (m_options.checkpoint)
            m_options.checkpoint();
        m_summary.disksMade.push_back(disk.destination);
        const String mark = CBrickDisk::getCreatingMarkFileName();
        if (!m_options.dryRun) {
            m_destinationFs->createFolder(disk.destination, kFolderMode);
            forgetHeldRecord(disk.destination, mark);
            if (!recordExists(m_destinationFs, disk.destination, mark)) {
                // The mark names the disk's parent, as createChild's does;
                // the top names itself.
                const String parentLink = CBrickDisk::getParentLinkFileName();
                const bool hasParent = recordExists(m_sourceFs, disk.source, parentLink);
                const std::optional<CBrickDiskLink> link =
                    hasParent ? rewrittenLink(disk, parentLink) : std::optional<CBrickDiskLink>();
                if (link) {
                    link->store(m_destinationFs, disk.destination, mark);
                } else if (hasParent) {
                    CBrickDiskAuxFileBase::storeAuxFile(
                        m_destinationFs, disk.destination, mark,
                        *CBrickDiskAuxFileBase::loadAuxFile(m_sourceFs, disk.source, parentLink));
                } else {
                    CBrickDiskLink self;
                    self.setTargetURI(CURI("."));
                    self.store(m_destinationFs, disk.destination, mark);
                }
            }
        }
        syncBricks(disk, true);
        syncRecord(disk, CBrickDiskCreationTime::getFileName(), true);
        syncRecord(disk, headerRecordName(), false);
        syncRecord(disk, CBrickDisk::getParentLinkFileName(), true);
        syncChildLink(disk, destinationDisks);
    }

    // Removes the creating mark of `disk`, once it and every newer disk of
    // the destination are whole.
    void finishDisk(const DiskPlan& disk)
    {
        // The copy marks only the disks it makes: a disk that the
        // destination held whole before keeps no mark to look for.
        if (disk.existing && disk.completion == CBrickDisk::Finished)
            return;
        if (!m_options.dryRun &&
            CBrickDisk::getCompletion(m_destinationFs, disk.destination) == CBrickDisk::CreationUnfinished)
            deleteHeldRecord(disk.destination, CBrickDisk::getCreatingMarkFileName());
    }

    // The child link is copied when the disk it names is copied too; a disk
    // whose older snapshots stay behind has none.
    void syncChildLink(const DiskPlan& disk, const std::set<CURI>& destinationDisks)
    {
        const String child = CBrickDisk::getChildLinkFileName();
        const CURI sourceChild = CBrickDiskChain::loadLinkedFolder(m_sourceFs, disk.source, child);
        const bool copied = !sourceChild.isEmpty() &&
            destinationDisks.count((disk.destination << sourceChild.toRelative(disk.source)).toNormalized()) > 0;
        if (copied) {
            syncRecord(disk, child, true);
        } else if (heldRecord(disk.destination, child).exists) {
            if (!m_options.dryRun)
                deleteHeldRecord(disk.destination, child);
            ++m_summary.recordsWritten;
        }
    }

    // Lists the brick trees of `disks`, in the source and in the
    // destination, ahead of syncBricks, which takes them in the same order:
    // several disks at once, as over an object store each listing mostly
    // waits on the store's answers. A disk's tree in the destination changes
    // only in its own syncBricks, so a listing made before still tells what
    // the tree holds then.
    void listAhead(const std::vector<DiskPlan>& disks)
    {
        m_toListAhead = disks;
        m_nextToList = 0;
        startListings();
    }

    // The folder that the destination's link record `name` of `disk` names,
    // or empty when it has none; throws as CBrickDiskLink::load does for a
    // record that does not load.
    CURI heldLinkTarget(const DiskPlan& disk, const String& name)
    {
        const HeldRecord held = heldRecord(disk.destination, name);
        if (!held.exists)
            return CURI();
        if (!held.payload)
            return CBrickDiskChain::loadLinkedFolder(m_records, disk.destination, name);
        CBrickDiskLink link;
        link.loadPayload(*held.payload);
        return (disk.destination << link.getTargetURI()).toNormalized();
    }

    // Tells the copy where each disk of the source chain lands, so that the
    // links between them can be made to name those places.
    void setDestinations(std::map<CURI, CURI> destinationOf) { m_destinationOf = std::move(destinationOf); }

    // Writes what the copy learned of the destination's brick files into
    // the record, unless in a dry run. After a whole copy (`whole`) the
    // record keeps only the tags of the files that the destination holds as
    // the copy leaves them, so that it does not grow with every change. A
    // record that cannot be written is logged: it only makes the next copy
    // ask the destination more.
    void keepRecord(bool whole)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_record || m_options.dryRun)
            return;
        if (whole)
            m_record->keepOnly(m_heldTags);
        if (!m_record->isChanged())
            return;
        try {
            m_record->store(m_options.recordFolder);
        } catch (const std::exception& e) {
            zo::logError(e,
                         "Keeping the record of this copy failed; the next copy reads the digest of each brick file "
                         "in the destination.",
                         String());
        }
    }

    // Reads back every record of `disk` in the destination.
    void verifyRecords(const DiskPlan& disk)
    {
        for (const String& name : {headerRecordName(), CBrickDisk::getParentLinkFileName(),
                                   CBrickDisk::getChildLinkFileName(), CBrickDiskCreationTime::getFileName()}) {
            if (!recordExists(m_sourceFs, disk.source, name) && !recordExists(m_destinationFs, disk.destination, name))
                continue;
            try {
                CBrickDiskAuxFileBase::loadAuxFile(m_destinationFs, disk.destination, name);
            } catch (const CError& e) {
                addProblem((disk.destination << name).toString(true).toUTF8() + ": " + e.getMessage().toUTF8());
            }
        }
    }

private:
    // A brick file sent: where it went, its size and its last bytes.
    struct SentFile {
        CURI target;
        zo::int64 size;
        std::string tail;
    };

    // Whether the destination's listings tell content tags.
    enum class Tags { Unknown, Given, NotGiven };

    // A record of a disk in the destination.
    struct HeldRecord {
        bool exists = false;
        // Its payload; null for one missing or that does not load.
        zo::P<zo::TBuffer<zo::uint8>> payload;
    };

    // The listings of one disk's brick trees under way (listAhead).
    struct ListingsAhead {
        std::future<CBrickTree::Listing> source;
        std::future<CBrickTree::Listing> destination;
    };

    // Starts listing the next disks of listAhead's, up to kDisksListedAhead
    // under way.
    void startListings()
    {
        while (m_listingsAhead.size() < kDisksListedAhead && m_nextToList < m_toListAhead.size()) {
            const DiskPlan& disk = m_toListAhead[m_nextToList++];
            m_listingsAhead.emplace(
                disk.destination,
                ListingsAhead{std::async(std::launch::async, [this, disk] { return listSource(disk); }),
                              std::async(std::launch::async, [this, disk] { return listDestination(disk); })});
        }
    }

    // Folders of one disk's brick tree listed at once: as many as files are
    // sent at once.
    int treeFoldersListedAtOnce() const { return std::max(1, m_options.jobs); }

    CBrickTree::Listing listSource(const DiskPlan& disk) const
    {
        return CBrickTree::list(m_sourceFs, disk.source, disk.header, treeFoldersListedAtOnce());
    }

    // Empty for a disk whose folder the destination lacks.
    CBrickTree::Listing listDestination(const DiskPlan& disk) const
    {
        if (!m_destinationFs->folderExists(disk.destination))
            return CBrickTree::Listing();
        return CBrickTree::list(m_destinationFs, disk.destination, disk.header, treeFoldersListedAtOnce());
    }

    static bool isLinkRecord(const String& name)
    {
        return name == CBrickDisk::getParentLinkFileName() || name == CBrickDisk::getChildLinkFileName();
    }

    // The source's link record `name` of `disk` with its target rewritten,
    // when the disk it names lands elsewhere relative to `disk` than in the
    // source: the snapshots beside a top copied under another name link to
    // that name. Nothing when the source's bytes name the right folder. The
    // target is no part of an authenticated link's tag, so the rewritten link
    // stays authentic, as a chain moved or renamed as a whole does.
    std::optional<CBrickDiskLink> rewrittenLink(const DiskPlan& disk, const String& name) const
    {
        CBrickDiskLink link;
        link.load(m_sourceFs, disk.source, name);
        const CURI target = link.getTargetURI();
        if (target.isAbsolute())
            return std::nullopt;
        const auto found = m_destinationOf.find((disk.source << target).toNormalized());
        if (found == m_destinationOf.end())
            return std::nullopt;
        const CURI rewritten = found->second.toRelative(disk.destination).toNormalized();
        if (rewritten == target.toNormalized())
            return std::nullopt;
        link.setTargetURI(rewritten);
        return link;
    }

    // Makes the destination's link record `name` of `disk` hold `link`,
    // leaving one that names the same folder and disks as it is.
    void syncLink(const DiskPlan& disk, const String& name, const CBrickDiskLink& link)
    {
        // A record that does not load (no payload) is written again.
        const HeldRecord record = heldRecord(disk.destination, name);
        if (record.payload) {
            CBrickDiskLink held;
            bool same = false;
            try {
                held.loadPayload(*record.payload);
                same = held.getTargetURI().toNormalized() == link.getTargetURI() &&
                    held.getHolderID() == link.getHolderID() && held.getLinkedID() == link.getLinkedID() &&
                    held.getTag() == link.getTag();
            } catch (const CError&) {
                // Nor does one that is no link.
            }
            if (same)
                return;
        }
        if (!m_options.dryRun) {
            forgetHeldRecord(disk.destination, name);
            link.store(m_destinationFs, disk.destination, name);
        }
        ++m_summary.recordsWritten;
    }

    // The record `name` of the destination's disk in `folder`, as the
    // copy's record cache has it: read once for the whole copy, also by the
    // checks and the walk of the destination's chain before it. Only this
    // copy changes the destination's records while it runs (the caller holds
    // the destination's exclusive lock), and it forgets each record it
    // writes or deletes (forgetHeldRecord, deleteHeldRecord) before it does.
    // Passes on the file system's errors.
    HeldRecord heldRecord(const CURI& folder, const String& name) const
    {
        HeldRecord held;
        held.exists = recordExists(m_records, folder, name);
        if (!held.exists)
            return held;
        try {
            held.payload = CBrickDiskAuxFileBase::loadAuxFile(m_records, folder, name);
        } catch (const CError&) {
            // Held but damaged: no payload.
        }
        return held;
    }

    // Forgets what the copy read of a record that it is about to write.
    void forgetHeldRecord(const CURI& folder, const String& name)
    {
        for (int copy = 0; copy < 2; ++copy)
            m_records->forget(CBrickDiskAuxFileBase::getAuxFileURI(folder, name, copy));
    }

    // Deletes the destination's record `name` of the disk in `folder`.
    void deleteHeldRecord(const CURI& folder, const String& name)
    {
        forgetHeldRecord(folder, name);
        deleteRecord(m_destinationFs, folder, name);
    }

    void addProblem(const std::string& problem)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_problems.push_back(problem);
    }

    // Makes `folder` in the destination with its missing parents, each once
    // per copy; a new folder becomes durable with the destination's batch,
    // as the files stored into it do.
    void makeFolder(const CURI& folder)
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (m_madeFolders.count(folder) > 0)
                return;
        }
        if (!m_destinationFs->folderExists(folder)) {
            const CURI parent = folder.getParent();
            if (!parent.isEmpty() && parent != folder)
                makeFolder(parent);
            // Another sender may make it meanwhile.
            m_destinationFs->beginCreateFolder(folder, kFolderMode, nullptr)->wait(zo::CFileSystemError::AlreadyExists);
        }
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_madeFolders.insert(folder);
    }

    // Sends one brick file: read whole, checked against its outer digest
    // where that needs no key, then staged to replace whatever the
    // destination held, in place once the destination's batch is synced;
    // with verify, noted to be read back then.
    void sendFile(const DiskPlan& disk, const CBrickTree::BrickFile& brick, const seal::IDigestType* digest)
    {
        const CURI target = disk.destination << brick.path.toRelative(disk.source);
        const zo::TBuffer<zo::uint8> bytes = readFile(m_sourceFs, brick.path, brick.size);
        if (digest && !matchesOuterDigest(bytes, *digest)) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_summary.damagedFiles.push_back(brick.path);
        }
        makeFolder(target.getParent());
        const zo::P<zo::CBufferStream> source(new zo::CBufferStream(nullptr, 1.0));
        source->write(bytes.getData(), bytes.getUsed());
        source->seek(0);
        zo::beginStoreFileStaged(m_destinationFs, target, bytes.getUsed(), source.get(), nullptr)->wait();
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_record)
            m_sentForTags.push_back(SentFile{target, brick.size, tailOf(bytes)});
        if (m_options.verify)
            m_sent.emplace_back(brick, target);
    }

    // Notes, from the first listing of the destination that holds brick
    // files, whether its listings give content tags.
    void noteWhetherTagsAreGiven(const CBrickTree::Listing& listing)
    {
        if (m_destinationTags != Tags::Unknown || listing.bricks.empty())
            return;
        const bool given = std::any_of(listing.bricks.begin(), listing.bricks.end(),
                                       [](const CBrickTree::BrickFile& file) { return !file.contentTag.isEmpty(); });
        m_destinationTags = given ? Tags::Given : Tags::NotGiven;
    }

    // Lists the folders of the files sent since the last call, once the
    // destination's batch has put them in place, and notes in the record the
    // tag that each file got, with its size and last bytes: a later copy
    // finds them held without asking. Over a destination whose listings give
    // no tags, folders are listed one at a time until one tells, then no
    // more. A listing that fails is logged and only leaves its files out of
    // the record. Whether tags are given is settled here, on the caller's
    // thread; the workers only report what their listing showed.
    void learnTagsOfSent()
    {
        std::vector<SentFile> sent;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            sent.swap(m_sentForTags);
        }
        if (sent.empty() || m_destinationTags == Tags::NotGiven)
            return;
        std::map<CURI, std::vector<const SentFile*>> byFolder;
        for (const SentFile& file : sent)
            byFolder[file.target.getParent()].push_back(&file);
        const std::vector<std::pair<CURI, std::vector<const SentFile*>>> folders(byFolder.begin(), byFolder.end());
        std::size_t first = 0;
        while (m_destinationTags == Tags::Unknown && first < folders.size()) {
            const std::optional<bool> tagged = learnTagsIn(folders[first].first, folders[first].second);
            ++first;
            if (tagged)
                m_destinationTags = *tagged ? Tags::Given : Tags::NotGiven;
        }
        if (m_destinationTags != Tags::Given)
            return;
        runOnWorkers(
            folders.size() - first, kComparisonsPerJob * std::max(1, m_options.jobs),
            [&](std::size_t item) { learnTagsIn(folders[first + item].first, folders[first + item].second); },
            [&] {
                if (m_options.checkpoint)
                    m_options.checkpoint();
            });
    }

    // Notes the tags that one listing of `folder` gives `files`, sent into
    // it. Tells whether the listing gave any of them a tag; nothing when the
    // listing failed.
    std::optional<bool> learnTagsIn(const CURI& folder, const std::vector<const SentFile*>& files)
    {
        std::vector<zo::FolderEntry> listed;
        try {
            listed = zo::listFolderWithInfo(m_destinationFs, folder);
        } catch (const CError& e) {
            zo::logError(e, "Listing the brick files sent failed; the next copy reads their digests.", String());
            return std::nullopt;
        }
        std::map<std::string, const zo::FolderEntry*> byName;
        for (const zo::FolderEntry& entry : listed)
            byName.emplace(entry.name.toUTF8(), &entry);
        const std::lock_guard<std::mutex> lock(m_mutex);
        bool tagged = false;
        for (const SentFile* file : files) {
            const auto found = byName.find(file->target.getName().toUTF8());
            if (found == byName.end() || found->second->isFolder || found->second->size != file->size ||
                found->second->contentTag.isEmpty())
                continue;
            tagged = true;
            const std::string tag = found->second->contentTag.toUTF8();
            m_record->note(tag, file->size, file->tail);
            m_heldTags.insert(tag);
        }
        return tagged;
    }

    // True when the record maps `tag` to a file of `size` bytes that ends
    // with `tail`: the destination's file of that tag holds the same bytes as
    // the source's.
    bool isRecordedAs(const String& tag, zo::int64 size, const std::string& tail)
    {
        if (tag.isEmpty())
            return false;
        const std::lock_guard<std::mutex> lock(m_mutex);
        const CCopyRecord::Entry* entry = m_record ? m_record->find(tag.toUTF8()) : nullptr;
        return entry && entry->size == size && entry->tail == tail;
    }

    // Notes that the destination's file with `tag` and `size` ends with
    // `tail`, read from it; with `held`, that the copy leaves it in place.
    void noteHeldTail(const String& tag, zo::int64 size, const std::string& tail, bool held)
    {
        if (tag.isEmpty())
            return;
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_record)
            return;
        m_record->note(tag.toUTF8(), size, tail);
        if (held)
            m_heldTags.insert(tag.toUTF8());
    }

    // Reads back each file sent since the last call, once the destination's
    // batch has put it in place, and compares it with its source.
    void verifySent()
    {
        std::vector<std::pair<CBrickTree::BrickFile, CURI>> sent;
        sent.swap(m_sent);
        for (const auto& [brick, target] : sent) {
            bool same = false;
            try {
                same = m_destinationFs->getFileInfo(target, true)->getSize() == brick.size &&
                    readFile(m_destinationFs, target, brick.size) == readFile(m_sourceFs, brick.path, brick.size);
            } catch (const CError& e) {
                addProblem(target.toString(true).toUTF8() + ": " + e.getMessage().toUTF8());
                continue;
            }
            if (!same)
                addProblem(target.toString(true).toUTF8() + ": the bytes read back differ from those sent");
        }
    }

    // Compares the files with the destination's, then sends (unless in a dry
    // run) those it lacks or holds with other bytes, on worker threads; the
    // caller's thread reports progress and runs the checkpoint between files.
    void sendFiles(const DiskPlan& disk, const std::vector<Candidate>& files)
    {
        CChainCopier::Progress progress;
        progress.disk = disk.destination;
        progress.filesTotal = static_cast<zo::int64>(files.size());
        const auto report = [&] {
            if (m_options.onProgress)
                m_options.onProgress(progress);
        };
        report();
        if (files.empty())
            return;
        const zo::P<seal::IDigestType> digest = plainDigestOf(disk.header);

        std::mutex mutex;
        zo::int64 done = 0;
        zo::int64 bytes = 0;
        const auto between = [&] {
            {
                const std::lock_guard<std::mutex> lock(mutex);
                progress.filesDone = done;
                progress.bytesSent = bytes;
            }
            report();
            if (m_options.checkpoint)
                m_options.checkpoint();
        };
        const int jobs = std::max(1, m_options.jobs);

        // Only a file of the same size in the destination may hold the same
        // bytes; the digests at the ends of the two files tell. The record
        // tells the destination's digest of a file by its content tag without
        // asking; any other is read.
        std::vector<const Candidate*> comparable;
        for (const Candidate& file : files)
            if (file.held && file.held->size == file.brick.size)
                comparable.push_back(&file);
        std::set<const Candidate*> held;
        runOnWorkers(
            comparable.size(), kComparisonsPerJob * jobs,
            [&](std::size_t item) {
                const Candidate& file = *comparable[item];
                const std::string tail = readTail(m_sourceFs, file.brick.path, file.brick.size);
                bool same = isRecordedAs(file.held->contentTag, file.held->size, tail);
                if (!same) {
                    const std::string heldTail = readTail(m_destinationFs, file.held->path, file.held->size);
                    same = heldTail == tail;
                    noteHeldTail(file.held->contentTag, file.held->size, heldTail, same);
                } else {
                    noteHeldTail(file.held->contentTag, file.held->size, tail, true);
                }
                if (!same)
                    return;
                const std::lock_guard<std::mutex> lock(mutex);
                held.insert(&file);
                ++done;
                ++m_summary.filesSkipped;
                m_summary.bytesSkipped += file.brick.size;
            },
            between);

        std::vector<const Candidate*> unheld;
        for (const Candidate& file : files)
            if (held.count(&file) == 0)
                unheld.push_back(&file);
        runOnWorkers(
            unheld.size(), jobs,
            [&](std::size_t item) {
                const CBrickTree::BrickFile& brick = unheld[item]->brick;
                if (!m_options.dryRun)
                    sendFile(disk, brick, digest.get());
                const std::lock_guard<std::mutex> lock(mutex);
                ++done;
                bytes += brick.size;
                ++m_summary.filesSent;
                m_summary.bytesSent += brick.size;
            },
            between);
    }

    zo::IFileSystem* m_sourceFs;
    zo::IFileSystem* m_destinationFs;
    detail::CRecordReadCache* m_records;
    const CChainCopier::Options& m_options;
    CChainCopier::Summary m_summary;
    std::mutex m_mutex;
    std::vector<std::string> m_problems;
    // Each folder of the source chain and its place in the destination.
    std::map<CURI, CURI> m_destinationOf;
    // Folders of the destination that the copy made or found (under m_mutex).
    std::set<CURI> m_madeFolders;
    // With verify, the files sent and not yet read back, and where they went
    // (under m_mutex).
    std::vector<std::pair<CBrickTree::BrickFile, CURI>> m_sent;
    // What the copy knows of the destination's brick files by their content
    // tags (Options::recordFolder); none without a record folder. Under
    // m_mutex.
    std::optional<CCopyRecord> m_record;
    // The tags of the brick files that the destination holds as the copy
    // leaves them, as far as the copy has listed them (under m_mutex).
    std::set<std::string> m_heldTags;
    // With a record, the files sent whose tags are not listed yet (under
    // m_mutex).
    std::vector<SentFile> m_sentForTags;
    // Told by the first listing of the destination that shows brick files;
    // read and settled on the caller's thread only (noteWhetherTagsAreGiven,
    // learnTagsOfSent).
    Tags m_destinationTags = Tags::Unknown;
    // The disks to list ahead, and the next one to start.
    std::vector<DiskPlan> m_toListAhead;
    std::size_t m_nextToList = 0;
    // Listings started ahead and not yet taken, by the disk's folder in the
    // destination. Last, so that it goes first: the listings under way end
    // before anything they use goes.
    std::map<CURI, ListingsAhead> m_listingsAhead;
};

// The snapshots of `chain` (top first) that the options choose, newest
// first; they must be the newest ones.
std::vector<CURI> chooseSnapshots(const std::vector<CRetentionPlan::Disk>& chain, const CChainCopier::Options& options)
{
    std::vector<CURI> chosen;
    if (options.snapshots == CChainCopier::SnapshotChoice::None)
        return chosen;
    const CURI top = chain.front().folder;
    std::set<std::string> wanted(options.snapshotNames.begin(), options.snapshotNames.end());
    for (std::size_t i = 1; i < chain.size(); ++i) {
        const CURI& folder = chain[i].folder;
        if (options.snapshots == CChainCopier::SnapshotChoice::All) {
            chosen.push_back(folder);
            continue;
        }
        const std::string name = folder.getName().toUTF8();
        const std::string relative = folder.toRelative(top).toString(true).toUTF8();
        const bool named = wanted.erase(name) + wanted.erase(relative) > 0;
        if (named && chosen.size() + 1 != i)
            throw CError("Only the newest snapshots of a chain can be copied without the others: " + String(name) +
                             " is older than a snapshot that is left out.",
                         String(), -1, zo::CProps().add("diskFolder", top.toString(true)).add("snapshot", name));
        if (named)
            chosen.push_back(folder);
    }
    if (!wanted.empty())
        throw CError("The chain has no snapshot " + String(*wanted.begin()) + ".", String(), -1,
                     zo::CProps().add("diskFolder", top.toString(true)).add("snapshot", *wanted.begin()));
    return chosen;
}

// Throws when the destination's top is another disk than the source's.
void checkSameDisk(const CBrickDiskHeader& source, const CBrickDiskHeader& destination, const CURI& sourceFolder,
                   const CURI& destinationFolder)
{
    if (!(source.getCipherKeyHash() == destination.getCipherKeyHash()))
        throw copyError("The destination holds another disk: its key differs from the source's (another key "
                        "check value in its header). Copy into an empty folder, or delete that disk first.",
                        sourceFolder, destinationFolder);
    if (!(source.getDiskID() == destination.getDiskID()))
        throw copyError("The destination holds another disk: it has the same key but another disk ID, so another "
                        "history. Copy into an empty folder, or delete that disk first.",
                        sourceFolder, destinationFolder);
}

// Throws when the folder of a snapshot in the destination holds anything but
// that snapshot, or the same snapshot cut short in the making by an earlier
// copy: a disk of another key or ID, or files of no disk. Returns how the
// folder was found: Finished for one without marks or none.
CBrickDisk::Completion checkSnapshotFolder(zo::IFileSystem* fs, const DiskPlan& disk, const CURI& sourceFolder,
                                           const CURI& destinationFolder)
{
    if (!fs->folderExists(disk.destination))
        return CBrickDisk::Finished;
    const bool hasHeader = fs->fileExists(CBrickDiskHeader::getHeaderURI(disk.destination, 0)) ||
        fs->fileExists(CBrickDiskHeader::getHeaderURI(disk.destination, 1));
    const CBrickDisk::Completion completion = CBrickDisk::getCompletion(fs, disk.destination);
    const bool marked = completion == CBrickDisk::CreationUnfinished;
    bool same = !hasHeader && (marked || !holdsFiles(fs, disk.destination));
    if (hasHeader && (disk.existing || marked)) {
        CBrickDiskHeader header;
        header.load(fs, disk.destination);
        same = header.getCipherKeyHash() == disk.header.getCipherKeyHash() &&
            header.getDiskID() == disk.header.getDiskID();
    }
    if (!same)
        throw copyError("The destination's folder " + disk.destination.toString(true) + " of the snapshot " +
                            disk.source.toString(true) + " holds another disk or other files: move them away first.",
                        sourceFolder, destinationFolder);
    return completion;
}

// Carries out `plan` (oldest snapshot first, the top last): the steps in
// ChainCopier.h, 1 to 5.
void carryOut(CCopyRun& run, const std::vector<DiskPlan>& plan, const std::set<CURI>& copiedDisks, bool existingTop,
              const CURI& destinationTop)
{
    // 1. The snapshots the destination holds get what their source kept.
    for (const DiskPlan& disk : plan) {
        if (!disk.existing || disk.destination == destinationTop)
            continue;
        run.syncBricks(disk, false);
        run.syncRecord(disk, CBrickDiskCreationTime::getFileName(), false);
        run.syncRecord(disk, headerRecordName(), false);
    }
    // 2. New disks, the oldest first (on a first copy the top too, last).
    for (const DiskPlan& disk : plan)
        if (!disk.existing)
            run.makeDisk(disk, copiedDisks);
    if (existingTop) {
        // 3. The new snapshots are tied in: the top's child link, then each
        // snapshot whose newer disk is one of the source's takes the
        // source's parent link.
        const DiskPlan& topPlan = plan.back();
        run.syncChildLink(topPlan, copiedDisks);
        for (const DiskPlan& disk : plan) {
            if (!disk.existing || disk.destination == destinationTop)
                continue;
            const CURI parent = run.heldLinkTarget(disk, CBrickDisk::getParentLinkFileName());
            const bool parentFromSource = std::any_of(
                plan.begin(), plan.end(), [&](const DiskPlan& other) { return other.destination == parent; });
            if (parentFromSource)
                run.syncRecord(disk, CBrickDisk::getParentLinkFileName(), false);
        }
        // 4. The top's brick files, then its records.
        run.syncBricks(topPlan, true);
        run.syncRecord(topPlan, CBrickDiskCreationTime::getFileName(), false);
        run.syncRecord(topPlan, headerRecordName(), false);
    }

    // 5. The marks go, the top's first: a disk opens only once every newer
    // disk it reads through is whole.
    for (auto it = plan.rbegin(); it != plan.rend(); ++it)
        run.finishDisk(*it);
}

} // namespace

CChainCopier::Summary CChainCopier::copy(zo::IFileSystem* sourceFs, const CURI& source, zo::IFileSystem* destinationFs,
                                         const CURI& destination, const Options& options)
{
    const CURI sourceTop = source.toNormalized();
    const CURI destinationTop = destination.toNormalized();

    // The source chain, top first.
    const std::vector<CRetentionPlan::Disk> chain = CRetentionPlan::readChain(sourceFs, sourceTop);
    if (chain.front().folder.toNormalized() != sourceTop)
        throw copyError("The source must be the top disk of its chain; its top is " +
                            chain.front().folder.toString(true) + ".",
                        sourceTop, destinationTop);
    for (const CRetentionPlan::Disk& disk : chain)
        if (disk.unfinished)
            throw copyError("The source chain holds a snapshot whose making or deletion was cut short (" +
                                disk.folder.toString(true) + "); finish it with forget or delete first.",
                            sourceTop, destinationTop);
    const std::vector<CURI> chosen = chooseSnapshots(chain, options);
    CBrickDiskHeader topHeader;
    topHeader.load(sourceFs, sourceTop);

    // What the destination holds already: its chain, top first. Its records
    // are read through one cache for the whole copy: the checks, the walk
    // of its chain and the comparisons ask about the same records.
    const zo::P<detail::CRecordReadCache> records(new detail::CRecordReadCache(destinationFs));
    bool existingTop = false;
    if (destinationFs->pathExists(destinationTop)) {
        if (!destinationFs->folderExists(destinationTop))
            throw copyError("The destination is a file, not a folder.", sourceTop, destinationTop);
        removeLeftovers(destinationFs, destinationTop, options);
        const bool hasHeader = records->fileExists(CBrickDiskHeader::getHeaderURI(destinationTop, 0)) ||
            records->fileExists(CBrickDiskHeader::getHeaderURI(destinationTop, 1));
        const CBrickDisk::Completion completion = CBrickDisk::getCompletion(records.get(), destinationTop);
        if (hasHeader) {
            CBrickDiskHeader header;
            header.load(records.get(), destinationTop);
            checkSameDisk(topHeader, header, sourceTop, destinationTop);
        } else if (completion == CBrickDisk::Finished && holdsFiles(destinationFs, destinationTop)) {
            throw copyError("The destination holds files but no disk: copy into an empty folder.", sourceTop,
                            destinationTop);
        }
        existingTop = hasHeader && completion == CBrickDisk::Finished;
    }
    std::vector<CURI> destinationChain;
    if (existingTop)
        for (const CRetentionPlan::Disk& disk : CRetentionPlan::readChain(records.get(), destinationTop))
            destinationChain.push_back(disk.folder.toNormalized());
    const std::set<CURI> destinationDisks(destinationChain.begin(), destinationChain.end());

    // Where each disk goes, oldest snapshot first, the top last: the chosen
    // snapshots and those the destination holds, which must keep reading as
    // they do while the top changes.
    // The snapshots newer than the newest one the destination holds are
    // copied whatever was chosen: that one reads through them.
    const auto targetOf = [&](const CURI& folder) {
        return (destinationTop << folder.toRelative(sourceTop).toNormalized()).toNormalized();
    };
    std::set<CURI> needed;
    for (std::size_t i = 1; i < chain.size(); ++i) {
        if (destinationDisks.count(targetOf(chain[i].folder)) > 0) {
            for (std::size_t newer = 1; newer < i; ++newer)
                needed.insert(chain[newer].folder);
            break;
        }
    }
    std::vector<DiskPlan> disks;
    const int depth = depthInStore(destinationTop);
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        const CURI relative = it->folder.toRelative(sourceTop).toNormalized();
        const CURI target = targetOf(it->folder);
        const bool isChosen =
            std::find(chosen.begin(), chosen.end(), it->folder) != chosen.end() || needed.count(it->folder) > 0;
        if (it->folder.toNormalized() == sourceTop || (!isChosen && destinationDisks.count(target) == 0))
            continue;
        if (landsAboveRoot(relative, depth))
            throw copyError("The snapshot " + it->folder.toString(true) +
                                " would land above the root of the destination's store: copy to a deeper folder.",
                            sourceTop, destinationTop);
        disks.push_back({it->folder.toNormalized(), target, {}, destinationDisks.count(target) > 0});
    }
    disks.push_back({sourceTop, destinationTop, topHeader, existingTop});
    if (isSameStore(sourceTop, destinationTop))
        for (const DiskPlan& disk : disks)
            for (const CRetentionPlan::Disk& member : chain)
                if (isSameOrBelow(disk.destination, member.folder) || isSameOrBelow(member.folder, disk.destination))
                    throw copyError("The copy of " + disk.source.toString(true) +
                                        " would land in or around the "
                                        "source's disk " +
                                        member.folder.toString(true) + ".",
                                    sourceTop, destinationTop);
    for (DiskPlan& disk : disks)
        disk.header.load(sourceFs, disk.source);

    // New snapshots go between the top and the destination's newest
    // snapshot; one older than that cannot be put below it and is left out.
    const DiskPlan* newestExisting = nullptr;
    for (const DiskPlan& disk : disks)
        if (destinationChain.size() > 1 && disk.destination == destinationChain[1])
            newestExisting = &disk;
    // A newest snapshot that the source deleted holds none of the old
    // bricks that the top changed since: they would show through it.
    if (destinationChain.size() > 1 && !newestExisting)
        throw copyError("The destination's newest snapshot " + destinationChain[1].toString(true) +
                            " is no longer in the source chain: the top's changes since would show through it. "
                            "Delete it in the destination and copy again.",
                        sourceTop, destinationTop);
    std::vector<CURI> leftOut;
    std::vector<DiskPlan> plan;
    bool pastNewestExisting = newestExisting == nullptr;
    for (const DiskPlan& disk : disks) {
        if (&disk == newestExisting)
            pastNewestExisting = true;
        if (!disk.existing && !pastNewestExisting) {
            leftOut.push_back(disk.source);
            continue;
        }
        plan.push_back(disk);
    }
    // The snapshots' folders are cleared of leftovers and checked all at
    // once: each touches its own folder only and changes nothing that
    // another's check reads, so they need no order. The first refusal in
    // the plan's order is the one thrown, once every check has ended.
    std::vector<std::future<CBrickDisk::Completion>> checks;
    for (const DiskPlan& disk : plan)
        checks.push_back(std::async(disk.destination == destinationTop ? std::launch::deferred : std::launch::async,
                                    [&disk, destinationFs, &records, &options, &sourceTop, &destinationTop] {
                                        if (disk.destination == destinationTop)
                                            return CBrickDisk::Finished;
                                        removeLeftovers(destinationFs, disk.destination, options);
                                        return checkSnapshotFolder(records.get(), disk, sourceTop, destinationTop);
                                    }));
    for (auto& check : checks)
        check.wait();
    for (std::size_t i = 0; i < plan.size(); ++i)
        plan[i].completion = checks[i].get();
    std::set<CURI> copiedDisks = destinationDisks;
    for (const DiskPlan& disk : plan)
        copiedDisks.insert(disk.destination);

    CCopyRun run(sourceFs, destinationFs, records.get(), destinationTop, options);
    run.summary().snapshotsLeftOut = leftOut;
    std::map<CURI, CURI> destinationOf;
    for (const CRetentionPlan::Disk& member : chain)
        destinationOf[member.folder.toNormalized()] = targetOf(member.folder);
    run.setDestinations(std::move(destinationOf));
    run.listAhead(plan);
    try {
        carryOut(run, plan, copiedDisks, existingTop, destinationTop);
    } catch (...) {
        // What the copy learned of the destination before it stopped holds.
        run.keepRecord(false);
        throw;
    }
    run.keepRecord(true);

    if (options.verify && !options.dryRun) {
        for (const DiskPlan& disk : plan)
            run.verifyRecords(disk);
        if (!run.problems().empty()) {
            String list;
            for (const std::string& problem : run.problems())
                list += (list.isEmpty() ? "" : "; ") + String(problem);
            throw copyError("The copy does not read back as sent: " + list + ".", sourceTop, destinationTop);
        }
    }
    return run.summary();
}

} // namespace brick
