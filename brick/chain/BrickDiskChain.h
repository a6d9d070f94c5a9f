// CBrickDiskChain: a disk and its ancestors as their folders hold them, read
// without a password and without opening the disks: each member's folder and
// header, the disk's child, where a brick of the chain is stored, and whether
// the chain can be trusted (every ancestor there and made for the same disk).
// Tools inspect and check disks through it, so that the chain walk lives in
// one place.
#pragma once

#include "brick/format/BrickDiskHeader.h"

#include "zo/Base.h"
#include "zo/Containers.h"
#include "zo/Export.h"
#include "zo/FileSystem.h"
#include "zo/String.h"
#include "zo/URI.h"

namespace brick {

class BRICKDISK_EXPORT CBrickDiskChain : public zo::CBase {
public:
    // One disk of the chain.
    struct Member {
        zo::CURI folder;
        // Valid only when `problem` is empty.
        CBrickDiskHeader header;
        // Empty for a good member; otherwise what is wrong, in plain words:
        // "the folder is missing", "the folder holds no disk", "its header
        // cannot be read: ...", or what differs from the disk ("disk size
        // 8388608 instead of 4194304, brick size ...").
        zo::String problem;
    };

    // Reads the header of the disk in `diskFolder` and follows its parent
    // links. Throws CBrickDiskError UnfinishedSnapshot or UnfinishedRemoval
    // for a disk whose making or removal was cut short (an ancestor with such
    // a mark is read as any other: it holds no brick that its child would
    // miss), the header's errors for the disk itself, CError "Parent
    // link loop detected in brick disk." ("diskFolder", "loopFolder") when
    // the links run in a circle, CError "The disk has a parent disk, but its
    // parent link is missing." ("diskFolder") when a disk with an identity
    // that says it has a parent has no parent link, and the errors of link
    // files that exist but cannot be read. An ancestor that is missing,
    // holds no disk, differs from the disk or, below a disk with an
    // identity, is not the disk that the link names by ID ("it is not the
    // disk that the parent link names") is kept as a member with its
    // problem; the walk stops there. Without the key, the tags of the
    // identities are not checked: opening the disk does that. The file system is used only during construction.
    CBrickDiskChain(zo::IFileSystem* fs, const zo::CURI& diskFolder);

    // The disk first, then its ancestors, nearest first.
    const zo::TArray<Member>& getMembers() const { return m_members; }
    const zo::CURI& getDiskFolder() const { return m_members.front().folder; }
    const CBrickDiskHeader& getHeader() const { return m_members.front().header; }
    // The folder that the disk's child link names, empty when it has none.
    const zo::CURI& getChildFolder() const { return m_childFolder; }
    // The first member with a problem, or null.
    const Member* findProblem() const;
    // Throws CError "A parent disk of the disk is missing or does not match
    // it." with "diskFolder", "parentFolder" and "problem" when a member has
    // a problem; a disk whose ancestors are all good passes.
    void validate() const;

    // The file of brick `brickIndex` in the nearest member that holds it;
    // empty when none does (the brick reads as zeros).
    zo::CURI locateBrick(zo::IFileSystem* fs, zo::int64 brickIndex) const;

    // The folder that the link `linkFileName` of `diskFolder` names, resolved
    // against that folder and normalized; empty when the disk has no such
    // link. Throws the errors of a link file that cannot be read.
    static zo::CURI loadLinkedFolder(zo::IFileSystem* fs, const zo::CURI& diskFolder, const zo::String& linkFileName);
    // What differs between the header of a parent and the disk's in the
    // fields that a chain shares (disk size, brick size, cipher, checksum, the key's
    // check value and, for keys derived from the password, the salt), in
    // plain words; empty when nothing.
    static zo::String describeDifference(const CBrickDiskHeader& parent, const CBrickDiskHeader& disk);

private:
    zo::TArray<Member> m_members;
    zo::CURI m_childFolder;
};

} // namespace brick
