// CBrickDiskLink: the record of a link file that ties a child disk to its
// parent. "parent.bricklnk" in a child's folder names the parent's folder,
// "child.bricklnk" in a parent's folder names the child's folder. The target
// is kept as the caller gives it (the disk stores it relative to the folder
// that holds the link file). Stored with the auxiliary file framing, so
// with a digest and a fallback copy. A link is used by one thread at a time.
#pragma once

#include "brick/BrickDiskAuxFileBase.h"
#include "zo/Export.h"

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

    zo::CURI getTargetURI() const { return m_target; }
    void setTargetURI(const zo::CURI& target) { m_target = target; }

    // Writes the link record as `fileName` into `diskFolder` (which must
    // exist) and its fallback copy. File-system errors pass through unchanged.
    void store(zo::IFileSystem* fs, const zo::CURI& diskFolder, const zo::String& fileName) const;
    // Reads the link record `fileName` of `diskFolder` (falling back to the
    // second copy) and sets the target from it. Throws the framing's error
    // when no copy is intact (a missing file included), CError "brickdisk link
    // file does not start with correct file ID." for another kind of file, and
    // the data stream's CIOError for a record that ends early. Bytes after the
    // target are ignored.
    void load(zo::IFileSystem* fs, const zo::CURI& diskFolder, const zo::String& fileName);

private:
    zo::CURI m_target;
};

} // namespace brick
