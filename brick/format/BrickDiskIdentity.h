// CBrickDiskIdentity: which disk a disk is, and which disks its links tie it
// to, vouched for by the disk's key.
//
// A disk made with an identity (CBrickDiskHeader::hasIdentity) holds in its
// header a random 16-byte ID, whether it has a parent disk, and a tag over
// both. Each of its link files names, after the target folder, the ID of the
// disk that holds it and of the disk it leads to, with a tag over the kind
// of link and both IDs. Tags are HMAC-SHA256 under the record key, which is
// HKDF-SHA256 of the disk key (the disks of a chain share it), so that only
// who holds the key can make or retarget a link: a link pointed at another
// disk, at a plain folder, or taken away is found when the disk opens. The
// target folder is not covered: a chain may be moved as a whole. An
// unencrypted disk has no secret; its tags are made under an empty key and
// keep mistakes out, not attackers.
//
// Every call is static, keeps no state and may run on any thread at once.
#pragma once

#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickDiskLink.h"
#include "zo/Export.h"

#include "zo/Buffer.h"
#include "zo/FileSystem.h"
#include "zo/String.h"
#include "zo/URI.h"

namespace brick {

class BRICKDISK_EXPORT CBrickDiskIdentity {
public:
    static constexpr int kDiskIDSize = 16;
    static constexpr int kTagSize = 32;

    // Which of a disk's two links: "parent.bricklnk" or "child.bricklnk".
    enum class LinkKind { Parent, Child };
    static zo::String getLinkFileName(LinkKind kind);

    // HMAC-SHA256 under the record key of `diskKey` (empty for an
    // unencrypted disk) over `label` and the length and bytes of `message`:
    // the tag of a record of the disk that only who holds its key can make.
    static zo::TBuffer<zo::uint8> makeRecordTag(const zo::TCryptBuffer<zo::uint8>& diskKey, const char* label,
                                                const zo::TBuffer<zo::uint8>& message);

    // Gives `header` a new random ID and the parent flag `hasParent`, and
    // takes its tag away: the header has an identity from here on, which a
    // key wrap made afterwards binds. sealIdentity then makes the tag.
    // Throws the errors of the random generator.
    static void giveNewIdentity(CBrickDiskHeader& header, bool hasParent);
    // Makes the tag of the identity of `header` under `diskKey` (empty for
    // an unencrypted disk). Throws zo::CInvalidArgError for a header without
    // an identity.
    static void sealIdentity(CBrickDiskHeader& header, const zo::TCryptBuffer<zo::uint8>& diskKey);
    // True when `header` has an identity whose tag `diskKey` made.
    static bool isHeaderAuthentic(const CBrickDiskHeader& header, const zo::TCryptBuffer<zo::uint8>& diskKey);

    // Throws zo::CInvalidArgError "The disk's key is needed to tie its
    // links: the key given is not the disk's, or its header was changed."
    // (with "diskFolder" = `diskFolder`) unless `header` has an identity
    // that `diskKey` made.
    static void requireKey(const CBrickDiskHeader& header, const zo::TCryptBuffer<zo::uint8>& diskKey,
                           const zo::CURI& diskFolder);

    // Ties `link`, of kind `kind`, held by the disk of header `holder` and
    // leading to the disk of header `linked`: sets both IDs and their tag.
    // Throws zo::CInvalidArgError when either header has no identity.
    static void tieLink(CBrickDiskLink& link, LinkKind kind, const CBrickDiskHeader& holder,
                        const CBrickDiskHeader& linked, const zo::TCryptBuffer<zo::uint8>& diskKey);
    // True when `link` names the disk of `holder` as its holder and its tag,
    // for `kind`, was made under `diskKey`.
    static bool isLinkAuthentic(const CBrickDiskLink& link, LinkKind kind, const CBrickDiskHeader& holder,
                                const zo::TCryptBuffer<zo::uint8>& diskKey);

    // Stores the link `kind` of the disk in `holderFolder` (header `holder`)
    // with the target `target` (as the link is to hold it: relative to
    // `holderFolder`, or absolute) to the disk of header `linked`, tied when
    // the holder has an identity and plain otherwise. Passes on the errors
    // of tieLink and of the file system.
    static void storeLink(zo::IFileSystem* fs, const zo::CURI& holderFolder, const CBrickDiskHeader& holder,
                          LinkKind kind, const zo::CURI& target, const CBrickDiskHeader& linked,
                          const zo::TCryptBuffer<zo::uint8>& diskKey);

    // Follows the link `kind` of the disk in `folder`, whose header `header`
    // has an identity that `diskKey` made, and returns the folder it leads
    // to (normalized) with its header in `linkedHeaderOut`. Returns an empty
    // path when the disk has no such link, which is allowed for a child link
    // and for a disk without a parent, and for a child link whose folder is
    // gone. Checks that the link is the disk's own and authentic, that the
    // disk it leads to has an identity made with the same key and the ID
    // that the link names, and, for a child link, that the child's own
    // authentic parent link names this disk (or names a disk between them
    // whose making or removal was cut short, see isChildOf). Throws CError (with
    // "diskFolder", and "linkedFolder" once known):
    //   "The disk has a parent disk, but its parent link is missing."
    //   "The disk has no parent disk, but it holds a parent link."
    //   "The parent link of the disk is not authentic." (or "child link")
    //   "The parent link of the disk leads to another disk." (or "child link")
    //   "The child link of the disk leads to a disk that is not its child."
    // and passes on the errors of reading the link and the linked header.
    static zo::CURI followLink(zo::IFileSystem* fs, const zo::CURI& folder, const CBrickDiskHeader& header,
                               LinkKind kind, const zo::TCryptBuffer<zo::uint8>& diskKey,
                               CBrickDiskHeader& linkedHeaderOut);

    // True when the disk in `childFolder`, whose header `childHeader` is
    // authentic under `diskKey`, has a parent and an authentic parent link
    // naming the disk of ID `parentID`; with `acceptDiskBetween`, also when
    // that link names a disk marked as unfinished (a snapshot whose making
    // or removal between the two was cut short) whose own authentic parent
    // link names it. Passes on the errors of reading the parent link.
    static bool isChildOf(zo::IFileSystem* fs, const zo::CURI& childFolder, const CBrickDiskHeader& childHeader,
                          const zo::TBuffer<zo::uint8>& parentID, const zo::TCryptBuffer<zo::uint8>& diskKey,
                          bool acceptDiskBetween);
};

} // namespace brick
