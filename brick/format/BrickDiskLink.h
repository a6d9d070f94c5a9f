// CBrickDiskLink: the record of a link file that ties a child disk to its
// parent. "parent.bricklnk" in a child's folder names the parent's folder,
// "child.bricklnk" in a parent's folder names the child's folder. The target
// is kept as the caller gives it (the disk stores it relative to the folder
// that holds the link file). Stored with the auxiliary file framing, so
// with a digest and a fallback copy. A link of a disk with an identity also
// names, after the target, the disk that holds it and the disk it leads to,
// with a tag under the disk's key (see CBrickDiskIdentity); readers that do
// not know these fields skip them. A link is used by one thread at a time.
#pragma once

#include "brick/format/BrickDiskAuxFileBase.h"
#include "zo/Export.h"

#include "zo/Buffer.h"
#include "zo/FileSystem.h"
#include "zo/String.h"
#include "zo/URI.h"

namespace brick {

class BRICKDISK_EXPORT CBrickDiskLink : public CBrickDiskAuxFileBase {
public:
    // A link with an empty target.
    CBrickDiskLink() = default;
    CBrickDiskLink(const CBrickDiskLink& other) = default;
    CBrickDiskLink(CBrickDiskLink&& other) = default;
    CBrickDiskLink& operator=(const CBrickDiskLink& other) = default;
    CBrickDiskLink& operator=(CBrickDiskLink&& other) = default;
    ~CBrickDiskLink() override = default;

    // The names of a disk's link records, and of the marks that a child
    // whose making or removal is not finished holds (a link record each,
    // naming the disk it is made from or removed from).
    static zo::String getParentLinkFileName() { return "parent.bricklnk"; }
    static zo::String getChildLinkFileName() { return "child.bricklnk"; }
    static zo::String getCreatingMarkFileName() { return "creating.bricklnk"; }
    static zo::String getRemovingMarkFileName() { return "removing.bricklnk"; }
    // Whether `diskFolder` holds the record `fileName` (either copy).
    // File-system errors pass through unchanged.
    static bool holdsRecord(zo::IFileSystem* fs, const zo::CURI& diskFolder, const zo::String& fileName);

    zo::CURI getTargetURI() const { return m_target; }
    void setTargetURI(const zo::CURI& target) { m_target = target; }

    // The IDs of the disk that holds the link and of the disk it leads to,
    // and their tag; all empty for a link without them.
    bool hasIdentity() const { return !m_tag.isEmpty(); }
    const zo::TBuffer<zo::uint8>& getHolderID() const { return m_holderID; }
    const zo::TBuffer<zo::uint8>& getLinkedID() const { return m_linkedID; }
    const zo::TBuffer<zo::uint8>& getTag() const { return m_tag; }
    void setIdentity(const zo::TBuffer<zo::uint8>& holderID, const zo::TBuffer<zo::uint8>& linkedID,
                     const zo::TBuffer<zo::uint8>& tag);

    // Writes the link record as `fileName` into `diskFolder` (which must
    // exist) and its fallback copy. File-system errors pass through unchanged.
    void store(zo::IFileSystem* fs, const zo::CURI& diskFolder, const zo::String& fileName) const;
    // Reads the link record `fileName` of `diskFolder` (falling back to the
    // second copy) and sets the target from it. Throws the framing's error
    // when no copy is intact (a missing file included), CError "brickdisk link
    // file does not start with correct file ID." for another kind of file, and
    // the data stream's CIOError for a record that ends early. Bytes after the
    // target are ignored, except the identity fields: three byte blocks of
    // 16, 16 and 32 bytes; bytes that are not those leave the link without
    // an identity.
    void load(zo::IFileSystem* fs, const zo::CURI& diskFolder, const zo::String& fileName);
    // Sets the link from a link record's payload as
    // CBrickDiskAuxFileBase::loadAuxFile gives it; throws as load does for
    // the payload's content.
    void loadPayload(const zo::TBuffer<zo::uint8>& payload);

private:
    zo::CURI m_target;
    zo::TBuffer<zo::uint8> m_holderID;
    zo::TBuffer<zo::uint8> m_linkedID;
    zo::TBuffer<zo::uint8> m_tag;
};

} // namespace brick
