#include "brick/format/BrickDiskIdentity.h"

#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickDiskLink.h"

#include "seal/Digest.h"
#include "seal/KeyDerivation.h"
#include "seal/Random.h"
#include "zo/Error.h"

#include <cstring>

namespace brick {

using zo::CError;
using zo::CURI;
using zo::String;
using zo::TBuffer;
using zo::TCryptBuffer;
using zo::uint8;

namespace {

constexpr char kRecordKeyInfo[] = "brickdisk record key";
constexpr char kIdentityLabel[] = "brickdisk disk identity";
constexpr char kParentLinkLabel[] = "brickdisk parent link";
constexpr char kChildLinkLabel[] = "brickdisk child link";
constexpr int kRecordKeySize = 32;

// The key of the tags: HKDF-SHA256 of the disk key; empty for an
// unencrypted disk, which has none.
TCryptBuffer<uint8> recordKey(const TCryptBuffer<uint8>& diskKey)
{
    if (diskKey.isEmpty())
        return TCryptBuffer<uint8>();
    TCryptBuffer<uint8> key(kRecordKeySize);
    seal::deriveKey_HKDF_SHA256(diskKey.getData(), diskKey.getUsed(), nullptr, 0, kRecordKeyInfo,
                                static_cast<int>(sizeof(kRecordKeyInfo) - 1), kRecordKeySize, key.getData());
    return key;
}

// A tag over a label and byte blocks, each block preceded by its length so
// that no two lists of blocks give the same message.
TBuffer<uint8> tagOf(const TCryptBuffer<uint8>& diskKey, const char* label,
                     std::initializer_list<const TBuffer<uint8>*> blocks)
{
    const TCryptBuffer<uint8> key = recordKey(diskKey);
    const zo::P<seal::IDigestContext> mac = seal::createHMACSHA256Context(key.getData(), key.getUsed());
    mac->update(label, static_cast<int>(std::strlen(label)));
    for (const TBuffer<uint8>* block : blocks) {
        const uint8 length[4] = {static_cast<uint8>(block->getUsed() >> 24), static_cast<uint8>(block->getUsed() >> 16),
                                 static_cast<uint8>(block->getUsed() >> 8), static_cast<uint8>(block->getUsed())};
        mac->update(length, 4);
        mac->update(block->getData(), block->getUsed());
    }
    mac->finish();
    return TBuffer<uint8>(mac->getDigest(), mac->getSize());
}

TBuffer<uint8> flagsOf(bool hasParent)
{
    const uint8 flag = hasParent ? 1 : 0;
    return TBuffer<uint8>(&flag, 1);
}

TBuffer<uint8> identityTag(const CBrickDiskHeader& header, const TCryptBuffer<uint8>& diskKey)
{
    const TBuffer<uint8> flags = flagsOf(header.getHasParent());
    return tagOf(diskKey, kIdentityLabel, {&header.getDiskID(), &flags});
}

TBuffer<uint8> linkTag(CBrickDiskIdentity::LinkKind kind, const TBuffer<uint8>& holderID,
                       const TBuffer<uint8>& linkedID, const TCryptBuffer<uint8>& diskKey)
{
    return kind == CBrickDiskIdentity::LinkKind::Parent ? tagOf(diskKey, kParentLinkLabel, {&holderID, &linkedID})
                                                        : tagOf(diskKey, kChildLinkLabel, {&holderID, &linkedID});
}

bool sameBytes(const TBuffer<uint8>& a, const TBuffer<uint8>& b)
{
    return a.getUsed() == b.getUsed() && seal::equalInConstantTime(a.getData(), b.getData(), a.getUsed());
}

const char* linkName(CBrickDiskIdentity::LinkKind kind)
{
    return kind == CBrickDiskIdentity::LinkKind::Parent ? "parent link" : "child link";
}

} // namespace

String CBrickDiskIdentity::getLinkFileName(LinkKind kind)
{
    return kind == LinkKind::Parent ? CBrickDiskLink::getParentLinkFileName() : CBrickDiskLink::getChildLinkFileName();
}

TBuffer<uint8> CBrickDiskIdentity::makeRecordTag(const TCryptBuffer<uint8>& diskKey, const char* label,
                                                 const TBuffer<uint8>& message)
{
    return tagOf(diskKey, label, {&message});
}

void CBrickDiskIdentity::giveNewIdentity(CBrickDiskHeader& header, bool hasParent)
{
    TBuffer<uint8> id(kDiskIDSize);
    seal::fillRandomBytes(id.getData(), kDiskIDSize);
    header.setDiskID(id);
    header.setHasParent(hasParent);
    header.setIdentityTag(TBuffer<uint8>());
}

void CBrickDiskIdentity::sealIdentity(CBrickDiskHeader& header, const TCryptBuffer<uint8>& diskKey)
{
    if (!header.hasIdentity())
        throw zo::CInvalidArgError("CBrickDiskIdentity::sealIdentity", "The header has no identity.");
    header.setIdentityTag(identityTag(header, diskKey));
}

bool CBrickDiskIdentity::isHeaderAuthentic(const CBrickDiskHeader& header, const TCryptBuffer<uint8>& diskKey)
{
    return header.hasIdentity() && header.getDiskID().getUsed() == kDiskIDSize &&
        sameBytes(header.getIdentityTag(), identityTag(header, diskKey));
}

void CBrickDiskIdentity::requireKey(const CBrickDiskHeader& header, const TCryptBuffer<uint8>& diskKey,
                                    const CURI& diskFolder)
{
    if (!isHeaderAuthentic(header, diskKey))
        throw zo::CInvalidArgError("CBrickDiskIdentity::requireKey",
                                   "The disk's key is needed to tie its links: the key given is not the disk's, or "
                                   "its header was changed.",
                                   zo::CProps().add("diskFolder", diskFolder.toString(true)));
}

void CBrickDiskIdentity::tieLink(CBrickDiskLink& link, LinkKind kind, const CBrickDiskHeader& holder,
                                 const CBrickDiskHeader& linked, const TCryptBuffer<uint8>& diskKey)
{
    if (!holder.hasIdentity() || !linked.hasIdentity())
        throw zo::CInvalidArgError("CBrickDiskIdentity::tieLink", "A disk of the link has no identity.");
    link.setIdentity(holder.getDiskID(), linked.getDiskID(),
                     linkTag(kind, holder.getDiskID(), linked.getDiskID(), diskKey));
}

bool CBrickDiskIdentity::isLinkAuthentic(const CBrickDiskLink& link, LinkKind kind, const CBrickDiskHeader& holder,
                                         const TCryptBuffer<uint8>& diskKey)
{
    return link.hasIdentity() && sameBytes(link.getHolderID(), holder.getDiskID()) &&
        sameBytes(link.getTag(), linkTag(kind, link.getHolderID(), link.getLinkedID(), diskKey));
}

void CBrickDiskIdentity::storeLink(zo::IFileSystem* fs, const CURI& holderFolder, const CBrickDiskHeader& holder,
                                   LinkKind kind, const CURI& target, const CBrickDiskHeader& linked,
                                   const TCryptBuffer<uint8>& diskKey)
{
    CBrickDiskLink link;
    link.setTargetURI(target);
    if (holder.hasIdentity())
        tieLink(link, kind, holder, linked, diskKey);
    link.store(fs, holderFolder, getLinkFileName(kind));
}

CURI CBrickDiskIdentity::followLink(zo::IFileSystem* fs, const CURI& folder, const CBrickDiskHeader& header,
                                    LinkKind kind, const TCryptBuffer<uint8>& diskKey,
                                    CBrickDiskHeader& linkedHeaderOut)
{
    zo::CProps props;
    props.add("diskFolder", folder.toString(true));
    const auto fail = [&](const String& message) { throw CError(message, String(), -1, props); };

    const String fileName = getLinkFileName(kind);
    const bool present = CBrickDiskLink::holdsRecord(fs, folder, fileName);
    if (kind == LinkKind::Parent && present != header.getHasParent())
        fail(present ? "The disk has no parent disk, but it holds a parent link."
                     : "The disk has a parent disk, but its parent link is missing.");
    if (!present)
        return CURI();
    CBrickDiskLink link;
    link.load(fs, folder, fileName);
    if (!isLinkAuthentic(link, kind, header, diskKey))
        fail("The " + String(linkName(kind)) + " of the disk is not authentic.");
    const CURI linked = (folder << link.getTargetURI()).toNormalized();
    props.add("linkedFolder", linked.toString(true));
    // A child whose folder is gone is no longer kept up to date; its bricks
    // cannot be preserved anyway.
    if (kind == LinkKind::Child && !fs->folderExists(linked))
        return CURI();
    linkedHeaderOut.load(fs, linked);
    if (!isHeaderAuthentic(linkedHeaderOut, diskKey) || !sameBytes(linkedHeaderOut.getDiskID(), link.getLinkedID()))
        fail("The " + String(linkName(kind)) + " of the disk leads to another disk.");
    if (kind == LinkKind::Child && !isChildOf(fs, linked, linkedHeaderOut, header.getDiskID(), diskKey, true))
        fail("The child link of the disk leads to a disk that is not its child.");
    return linked;
}

bool CBrickDiskIdentity::isChildOf(zo::IFileSystem* fs, const CURI& childFolder, const CBrickDiskHeader& childHeader,
                                   const TBuffer<uint8>& parentID, const TCryptBuffer<uint8>& diskKey,
                                   bool acceptDiskBetween)
{
    const String parentLinkName = getLinkFileName(LinkKind::Parent);
    if (!childHeader.getHasParent() || !CBrickDiskLink::holdsRecord(fs, childFolder, parentLinkName))
        return false;
    CBrickDiskLink back;
    back.load(fs, childFolder, parentLinkName);
    if (!isLinkAuthentic(back, LinkKind::Parent, childHeader, diskKey))
        return false;
    if (sameBytes(back.getLinkedID(), parentID))
        return true;
    if (!acceptDiskBetween)
        return false;
    // A snapshot made or removed between the two and cut short leaves the
    // child's parent link naming the disk between them, which is marked as
    // unfinished and whose own parent link names the parent: the parent
    // still keeps its old bricks in the child, which reads them the same
    // through the disk between (it holds none of its own the child lacks).
    const CURI between = (childFolder << back.getTargetURI()).toNormalized();
    if (!CBrickDiskLink::holdsRecord(fs, between, CBrickDiskLink::getCreatingMarkFileName()) &&
        !CBrickDiskLink::holdsRecord(fs, between, CBrickDiskLink::getRemovingMarkFileName()))
        return false;
    CBrickDiskHeader betweenHeader;
    try {
        betweenHeader.load(fs, between);
    } catch (const CError&) {
        return false;
    }
    return isHeaderAuthentic(betweenHeader, diskKey) && sameBytes(betweenHeader.getDiskID(), back.getLinkedID()) &&
        isChildOf(fs, between, betweenHeader, parentID, diskKey, false);
}

} // namespace brick
