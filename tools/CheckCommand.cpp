// brickdisk check DISK [--read-data]: looks for damage in a disk folder: the
// header and its fallback copy, the links to the parent and the child, and
// every brick file's outer digest; with --read-data every brick is also
// decrypted, decompressed and checked against its inner digest.
#include "Commands.h"
#include "DiskAccess.h"
#include "Interrupt.h"
#include "JsonWriter.h"
#include "Password.h"
#include "Progress.h"
#include "Units.h"

#include "brick/chain/BrickDisk.h"
#include "brick/chain/BrickDiskChain.h"
#include "brick/chain/BrickFileChecker.h"
#include "brick/format/BrickDiskKeyWrap.h"
#include "brick/format/BrickDiskLink.h"
#include "brick/format/BrickTree.h"
#include "zo/Error.h"
#include "zo/WorkerPool.h"

#include <CLI/CLI.hpp>

#include <atomic>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace cli {

namespace {

struct CheckOptions {
    std::string disk;
    bool readData = false;
    int jobs = defaultJobCount();
    bool forceShare = false;
    bool repair = false;
    bool json = false;
    CPasswordSource passwords;
};

// Collects what is wrong, what was repaired and what is worth knowing. As
// text each finding is printed as it is found; for --json they are kept and
// written at the end as one document.
class CFindings {
public:
    explicit CFindings(bool json) : m_json(json) {}

    void problem(const std::string& text) { add("problem", m_problems, text); }
    void note(const std::string& text) { add("note", m_notes, text); }
    void repaired(const std::string& text) { add("repaired", m_repairs, text); }
    int getRepairCount() const { return static_cast<int>(m_repairs.size()); }
    int getProblemCount() const { return static_cast<int>(m_problems.size()); }

    void writeJson(CJsonWriter& json) const
    {
        writeList(json, "problems", m_problems);
        writeList(json, "repaired", m_repairs);
        writeList(json, "notes", m_notes);
    }

private:
    void add(const char* kind, std::vector<std::string>& list, const std::string& text)
    {
        list.push_back(text);
        if (!m_json)
            std::printf("%s: %s\n", kind, text.c_str());
    }
    static void writeList(CJsonWriter& json, const char* name, const std::vector<std::string>& list)
    {
        json.key(name);
        json.beginArray();
        for (const std::string& text : list)
            json.value(text);
        json.endArray();
    }

    bool m_json;
    std::vector<std::string> m_problems;
    std::vector<std::string> m_repairs;
    std::vector<std::string> m_notes;
};

// With --repair, a record with one intact copy and one that is not is stored
// again whole from the intact one (both copies are rewritten, each
// atomically, the damaged one first and the intact one last); returns true
// when it did so.
bool repairFromTwin(zo::IFileSystem* fs, const zo::CURI& folder, const zo::String& fileName,
                    const brick::CBrickDiskAuxFileBase::CopyCheck& primary,
                    const brick::CBrickDiskAuxFileBase::CopyCheck& fallback, CFindings& findings)
{
    if (primary.isIntact() == fallback.isIntact())
        return false;
    if (fileName == brick::CBrickDiskHeader::getHeaderFilename()) {
        brick::CBrickDiskHeader header;
        header.load(fs, folder);
        header.store(fs, folder);
    } else {
        brick::CBrickDiskLink link;
        link.load(fs, folder, fileName);
        link.store(fs, folder, fileName);
    }
    const brick::CBrickDiskAuxFileBase::CopyCheck& bad = primary.isIntact() ? fallback : primary;
    findings.repaired(bad.uri.toLocalPath() + " (" + bad.describe().toUTF8() + ") rewritten from its intact copy");
    return true;
}

void checkHeaderCopies(zo::IFileSystem* fs, const zo::CURI& folder, bool repair, CFindings& findings)
{
    const zo::String fileName = brick::CBrickDiskHeader::getHeaderFilename();
    const brick::CBrickDiskAuxFileBase::CopyCheck primary =
        brick::CBrickDiskAuxFileBase::checkAuxFileCopy(fs, folder, fileName, 0);
    const brick::CBrickDiskAuxFileBase::CopyCheck fallback =
        brick::CBrickDiskAuxFileBase::checkAuxFileCopy(fs, folder, fileName, 1);
    if (repair && repairFromTwin(fs, folder, fileName, primary, fallback, findings))
        return;
    for (const brick::CBrickDiskAuxFileBase::CopyCheck* copy : {&primary, &fallback}) {
        if (!copy->isIntact())
            findings.problem("header copy " + copy->uri.toLocalPath() + ": " + copy->describe().toUTF8());
    }
    if (primary.isIntact() && fallback.isIntact() && !(*primary.payload == *fallback.payload))
        findings.problem("the header and its fallback copy differ");
}

// Checks both copies of one link file and the disk it points to; returns the
// linked folder (empty when there is no link or it cannot be read).
zo::CURI checkLink(zo::IFileSystem* fs, const zo::CURI& folder, const brick::CBrickDiskHeader& header,
                   const zo::String& linkName, bool repair, CFindings& findings)
{
    const brick::CBrickDiskAuxFileBase::CopyCheck primary =
        brick::CBrickDiskAuxFileBase::checkAuxFileCopy(fs, folder, linkName, 0);
    const brick::CBrickDiskAuxFileBase::CopyCheck fallback =
        brick::CBrickDiskAuxFileBase::checkAuxFileCopy(fs, folder, linkName, 1);
    if (primary.kind == brick::CBrickDiskAuxFileBase::CopyCheck::Missing &&
        fallback.kind == brick::CBrickDiskAuxFileBase::CopyCheck::Missing)
        return zo::CURI();
    const bool repaired = repair && repairFromTwin(fs, folder, linkName, primary, fallback, findings);
    for (const brick::CBrickDiskAuxFileBase::CopyCheck* copy : {&primary, &fallback}) {
        if (!copy->isIntact() && !repaired)
            findings.problem("link copy " + copy->uri.toLocalPath() + ": " + copy->describe().toUTF8());
    }
    if (!primary.isIntact() && !fallback.isIntact())
        return zo::CURI();
    const zo::CURI linked = brick::CBrickDiskChain::loadLinkedFolder(fs, folder, linkName);
    try {
        const brick::CBrickDiskHeader linkedHeader = loadDiskHeader(fs, linked);
        const zo::String difference = brick::CBrickDiskChain::describeDifference(linkedHeader, header);
        if (!difference.isEmpty())
            findings.problem(linkName.toUTF8() + " points to " + linked.toLocalPath() +
                             ", whose header does not match this disk's: " + difference.toUTF8());
    } catch (const zo::CError& e) {
        findings.problem(linkName.toUTF8() + " points to " + linked.toLocalPath() + ": " + e.toString().toUTF8());
        return zo::CURI();
    }
    return linked;
}

void checkLinks(zo::IFileSystem* fs, const zo::CURI& folder, const brick::CBrickDiskHeader& header, bool repair,
                CFindings& findings)
{
    checkLink(fs, folder, header, brick::CBrickDisk::getParentLinkFileName(), repair, findings);
    const zo::CURI child = checkLink(fs, folder, header, brick::CBrickDisk::getChildLinkFileName(), repair, findings);
    if (!child.isEmpty()) {
        const zo::CURI back =
            brick::CBrickDiskChain::loadLinkedFolder(fs, child, brick::CBrickDisk::getParentLinkFileName());
        if (back != folder)
            findings.problem("the child disk " + child.toLocalPath() + " does not link back to this disk");
    }
    try {
        parentDiskFolders(fs, folder);
    } catch (const zo::CError& e) {
        findings.problem(e.toString().toUTF8());
    }
}

// Checks every brick file on `jobs` threads, each with a checker of its own;
// returns one text per file, empty for a good one.
std::vector<std::string> checkBrickFiles(zo::IFileSystem* fs, const brick::CBrickTree::Listing& listing,
                                         const brick::CBrickDiskHeader& header, brick::CBrickDisk* disk, int jobs)
{
    std::vector<std::string> verdicts(listing.bricks.size());
    std::vector<std::unique_ptr<brick::CBrickFileChecker>> checkers;
    for (int i = 0; i < jobs; ++i)
        checkers.push_back(std::make_unique<brick::CBrickFileChecker>(fs, header, disk));
    std::atomic<zo::int64> bytesDone{0};
    zo::CWorkerPool pool(jobs);
    for (size_t i = 0; i < listing.bricks.size(); ++i) {
        pool.post([&, i](int worker) {
            verdicts[i] = checkers[static_cast<size_t>(worker)]->check(listing.bricks[i]).toUTF8();
            bytesDone += listing.bricks[i].size;
        });
    }
    CProgressBar progress("check", listing.totalBrickBytes());
    while (!pool.waitDone(50)) {
        if (wasInterrupted()) {
            // The workers take no further brick.
            pool.stop();
            break;
        }
        progress.update(bytesDone);
    }
    pool.wait();
    throwIfInterrupted();
    return verdicts;
}

int runCheck(const CheckOptions& options)
{
    checkJobCount(options.jobs);
    const zo::CURI folder = diskFolderURI(options.disk);
    const zo::P<zo::IFileSystem> fs = newFileSystem(folder, true, 1);
    CFindings findings(options.json);

    if (!options.json)
        std::printf("checking %s\n", folder.toLocalPath().c_str());
    const brick::CBrickDiskHeader header = loadDiskHeader(fs.get(), folder);
    // Repairs change the disk: then nobody else may use it meanwhile, and
    // taking the lock for writing removes the leftovers of interrupted stores.
    const zo::P<brick::CBrickDiskLock> lock = lockDisk(
        fs.get(), folder, options.repair ? brick::CBrickDiskLock::ForWriting : brick::CBrickDiskLock::ForReading,
        options.forceShare);
    if (lock && lock->getRemovedTemporaryFileCount() > 0)
        findings.repaired("removed " +
                          formatCount(lock->getRemovedTemporaryFileCount(), "temporary file", "temporary files") +
                          " of interrupted stores");
    checkHeaderCopies(fs.get(), folder, options.repair, findings);
    checkLinks(fs.get(), folder, header, options.repair, findings);

    zo::P<brick::CBrickDisk> disk;
    if (options.readData)
        disk = openDisk(fs.get(), folder, options.passwords, zo::IIOStream::AccessRead, 1);

    const brick::CBrickTree::Listing listing = brick::CBrickTree::list(fs.get(), folder, header);
    const zo::int64 brickCount = header.getBrickCount();
    const std::vector<std::string> verdicts = checkBrickFiles(fs.get(), listing, header, disk.get(), options.jobs);
    for (size_t i = 0; i < listing.bricks.size(); ++i) {
        const brick::CBrickTree::BrickFile& brick = listing.bricks[i];
        std::string verdict = verdicts[i];
        if (verdict.empty() && brick.index >= brickCount)
            verdict = "lies beyond the end of the disk";
        if (!verdict.empty())
            findings.problem("brick " + std::to_string(brick.index) + " (" + brick.path.toLocalPath() +
                             "): " + verdict);
    }
    for (const zo::CURI& entry : listing.unexpectedEntries)
        findings.problem("unexpected entry in the brick tree: " + entry.toLocalPath());
    if (!options.readData && header.getCheckSumHashID() == brick::CBrickDisk::kAuthenticatedCheckSumID)
        findings.note("the brick digests are keyed: only --read-data, with the password, checks them");
    if (!listing.temporaryFiles.empty())
        findings.note(
            formatCount(static_cast<zo::int64>(listing.temporaryFiles.size()), "temporary file", "temporary files") +
            " of interrupted stores under bricks/ (harmless; they may be deleted)");

    if (options.json) {
        CJsonWriter json(std::cout);
        json.beginObject();
        json.field("disk", folder.toLocalPath());
        json.field("brickFiles", static_cast<zo::int64>(listing.bricks.size()));
        json.field("brickBytes", listing.totalBrickBytes());
        json.field("readData", options.readData);
        findings.writeJson(json);
        json.endObject();
        std::cout << std::flush;
    } else {
        const std::string repairs = findings.getRepairCount() == 0
            ? std::string()
            : ", " + std::to_string(findings.getRepairCount()) + " repaired";
        const int problems = findings.getProblemCount();
        std::printf("checked the header, the links and %s (%s)%s: %s%s\n",
                    formatCount(static_cast<zo::int64>(listing.bricks.size()), "brick file", "brick files").c_str(),
                    formatBytes(listing.totalBrickBytes()).c_str(), options.readData ? " with their data" : "",
                    problems == 0 ? "no problems" : formatCount(problems, "problem", "problems").c_str(),
                    repairs.c_str());
    }
    return findings.getProblemCount() == 0 ? 0 : 1;
}

} // namespace

CommandAction addCheckCommand(CLI::App& program)
{
    auto options = std::make_shared<CheckOptions>();
    CLI::App* command =
        program.add_subcommand("check", "Look for damage: header copies, links and the digest of every brick file");
    command->add_option("DISK", options->disk, "Folder of the disk")->required();
    command->add_flag("--read-data", options->readData,
                      "Also decrypt and decompress every brick and check its inner digest (needs the password)");
    command->add_option("-j,--jobs", options->jobs, "Threads that check brick files (1 to 256)")->capture_default_str();
    command->add_flag("--repair", options->repair,
                      "Rewrite a damaged or missing copy of the header or a link from its intact copy, and remove "
                      "temporary files of interrupted stores; reports what it changed");
    command->add_flag("--json", options->json, "Print the findings as one JSON document instead of text");
    addForceShareOption(*command, options->forceShare);
    options->passwords.addOptionTo(*command);
    options->passwords.addAllowExpensiveKdfOptionTo(*command);
    return [options] { return runCheck(*options); };
}

} // namespace cli
