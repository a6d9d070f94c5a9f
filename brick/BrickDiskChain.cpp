#include "brick/BrickDiskChain.h"

#include "brick/BrickDisk.h"
#include "brick/BrickDiskLink.h"
#include "brick/BrickTree.h"

#include "zo/Error.h"

#include <set>

namespace brick {

using zo::CError;
using zo::CURI;
using zo::String;

namespace {

bool holdsHeader(zo::IFileSystem* fs, const CURI& folder)
{
    return fs->fileExists(CBrickDiskHeader::getHeaderURI(folder, 0)) ||
           fs->fileExists(CBrickDiskHeader::getHeaderURI(folder, 1));
}

bool holdsLink(zo::IFileSystem* fs, const CURI& folder, const String& linkFileName)
{
    return fs->fileExists(CBrickDiskLink::getAuxFileURI(folder, linkFileName, 0)) ||
           fs->fileExists(CBrickDiskLink::getAuxFileURI(folder, linkFileName, 1));
}

// True when `link`, held by the disk of `holder`, names that disk and the
// disk of `linked` by their IDs (without the key, the tags are not checked).
bool linksByID(const CBrickDiskLink& link, const CBrickDiskHeader& holder, const CBrickDiskHeader& linked)
{
    return link.hasIdentity() && linked.hasIdentity() && link.getHolderID() == holder.getDiskID() &&
           link.getLinkedID() == linked.getDiskID();
}

void addDifference(String& text, const String& part)
{
    if (!text.isEmpty())
        text += ", ";
    text += part;
}

} // namespace

CBrickDiskChain::CBrickDiskChain(zo::IFileSystem* fs, const CURI& diskFolder)
{
    Member disk;
    disk.folder = diskFolder.toNormalized();
    CBrickDisk::checkFinished(fs, disk.folder);
    disk.header.load(fs, disk.folder);
    m_members.push_back(disk);
    m_childFolder = loadLinkedFolder(fs, disk.folder, CBrickDisk::getChildLinkFileName());

    std::set<String> visited{disk.folder.toString(true)};
    for (CURI current = disk.folder;;) {
        const CBrickDiskHeader& currentHeader = m_members.back().header;
        const String linkFileName = CBrickDisk::getParentLinkFileName();
        if (!holdsLink(fs, current, linkFileName)) {
            // A disk with an identity says whether it has a parent: without
            // the link it would read holes where its parent's bricks are.
            if (currentHeader.hasIdentity() && currentHeader.getHasParent())
                throw CError("The disk has a parent disk, but its parent link is missing.", String(), -1,
                             zo::CProps().add("diskFolder", current.toString(true)));
            return;
        }
        CBrickDiskLink link;
        link.load(fs, current, linkFileName);
        const CURI parent = (current << link.getTargetURI()).toNormalized();
        if (!visited.insert(parent.toString(true)).second)
            throw CError("Parent link loop detected in brick disk.", String(), -1,
                         zo::CProps()
                             .add("diskFolder", disk.folder.toString(true))
                             .add("loopFolder", parent.toString(true)));
        Member member;
        member.folder = parent;
        if (!fs->folderExists(parent)) {
            member.problem = "the folder is missing";
        } else if (!holdsHeader(fs, parent)) {
            member.problem = "the folder holds no disk";
        } else {
            try {
                member.header.load(fs, parent);
                member.problem = describeDifference(member.header, m_members.front().header);
                if (member.problem.isEmpty() && currentHeader.hasIdentity() && !linksByID(link, currentHeader, member.header))
                    member.problem = "it is not the disk that the parent link names";
            } catch (const CError& e) {
                member.problem = "its header cannot be read: " + e.toString();
            }
        }
        m_members.push_back(member);
        if (!member.problem.isEmpty())
            return;
        current = parent;
    }
}

const CBrickDiskChain::Member* CBrickDiskChain::findProblem() const
{
    for (const Member& member : m_members) {
        if (!member.problem.isEmpty())
            return &member;
    }
    return nullptr;
}

void CBrickDiskChain::validate() const
{
    const Member* bad = findProblem();
    if (!bad)
        return;
    throw CError("A parent disk of the disk is missing or does not match it.", String(), -1,
                 zo::CProps()
                     .add("diskFolder", getDiskFolder().toString(true))
                     .add("parentFolder", bad->folder.toString(true))
                     .add("problem", bad->problem));
}

CURI CBrickDiskChain::locateBrick(zo::IFileSystem* fs, zo::int64 brickIndex) const
{
    const CURI relative = CBrickTree::getRelativeBrickURI(getHeader(), brickIndex);
    for (const Member& member : m_members) {
        if (member.problem.isEmpty() && fs->fileExists(member.folder << relative))
            return member.folder << relative;
    }
    return CURI();
}

CURI CBrickDiskChain::loadLinkedFolder(zo::IFileSystem* fs, const CURI& diskFolder, const String& linkFileName)
{
    if (!holdsLink(fs, diskFolder, linkFileName))
        return CURI();
    CBrickDiskLink link;
    link.load(fs, diskFolder, linkFileName);
    return (diskFolder << link.getTargetURI()).toNormalized();
}

String CBrickDiskChain::describeDifference(const CBrickDiskHeader& parent, const CBrickDiskHeader& disk)
{
    String text;
    if (parent.getDiskSize() != disk.getDiskSize())
        addDifference(text, "disk size " + zo::toDecimalString(parent.getDiskSize()) + " instead of " +
                                zo::toDecimalString(disk.getDiskSize()));
    if (parent.getBrickSize() != disk.getBrickSize())
        addDifference(text, "brick size " + zo::toDecimalString(parent.getBrickSize()) + " instead of " +
                                zo::toDecimalString(disk.getBrickSize()));
    if (parent.getCipherID() != disk.getCipherID())
        addDifference(text, "cipher \"" + parent.getCipherID() + "\" instead of \"" + disk.getCipherID() + "\"");
    // Every disk of a chain reads the others' brick files with its own digests.
    if (parent.getCheckSumHashID() != disk.getCheckSumHashID())
        addDifference(text, "checksum \"" + parent.getCheckSumHashID() + "\" instead of \"" +
                                disk.getCheckSumHashID() + "\"");
    // Disks of one chain share their key: the key's check value is the same.
    // Where the key comes from the password itself (PBKDF2) so is the salt;
    // a wrapped key is rewrapped with a salt of its own when the password
    // changes, disk by disk.
    const bool keyFromPassword = disk.getCipherKeyDeriverID() != "argon2id";
    if (!(parent.getCipherKeyHash() == disk.getCipherKeyHash()) ||
        (keyFromPassword && !(parent.getCipherKeyDerivationSalt() == disk.getCipherKeyDerivationSalt())))
        addDifference(text, "another password or key");
    return text;
}

} // namespace brick
