#include "brick/chain/BrickDiskChain.h"

#include "brick/chain/BrickDisk.h"
#include "brick/chain/BrickReader.h"
#include "brick/detail/ChainWalk.h"
#include "brick/format/BrickDiskLink.h"

#include "zo/Error.h"

#include <vector>

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

    const auto step = [&](const CURI& current, const CBrickDiskHeader& currentHeader) {
        CBrickDiskLink link;
        link.load(fs, current, CBrickDisk::getParentLinkFileName());
        Member member;
        member.folder = (current << link.getTargetURI()).toNormalized();
        if (!fs->folderExists(member.folder)) {
            member.problem = "the folder is missing";
        } else if (!holdsHeader(fs, member.folder)) {
            member.problem = "the folder holds no disk";
        } else {
            try {
                member.header.load(fs, member.folder);
                member.problem = describeDifference(member.header, m_members.front().header);
                if (member.problem.isEmpty() && currentHeader.hasIdentity() &&
                    !linksByID(link, currentHeader, member.header))
                    member.problem = "it is not the disk that the parent link names";
            } catch (const CError& e) {
                member.problem = "its header cannot be read: " + e.toString();
            }
        }
        m_members.push_back(member);
        return detail::ParentStep{member.folder, member.header, member.problem.isEmpty()};
    };
    detail::walkParentLinks(fs, disk.folder, disk.header, step);
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
    // A member with a problem is the last one and holds no brick of the disk.
    std::vector<CURI> folders;
    for (const Member& member : m_members) {
        if (member.problem.isEmpty())
            folders.push_back(member.folder);
    }
    return CBrickReader::locateIn(fs, folders, getHeader(), brickIndex).file;
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
        addDifference(text,
                      "disk size " + zo::toDecimalString(parent.getDiskSize()) + " instead of " +
                          zo::toDecimalString(disk.getDiskSize()));
    if (parent.getBrickSize() != disk.getBrickSize())
        addDifference(text,
                      "brick size " + zo::toDecimalString(parent.getBrickSize()) + " instead of " +
                          zo::toDecimalString(disk.getBrickSize()));
    if (parent.getCipherID() != disk.getCipherID())
        addDifference(text, "cipher \"" + parent.getCipherID() + "\" instead of \"" + disk.getCipherID() + "\"");
    // Every disk of a chain reads the others' brick files with its own digests.
    if (parent.getCheckSumHashID() != disk.getCheckSumHashID())
        addDifference(
            text, "checksum \"" + parent.getCheckSumHashID() + "\" instead of \"" + disk.getCheckSumHashID() + "\"");
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
