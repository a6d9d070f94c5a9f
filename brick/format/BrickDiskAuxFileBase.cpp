#include "brick/format/BrickDiskAuxFileBase.h"

#include "brick/detail/FolderMode.h"
#include "brick/detail/WaitingListener.h"
#include "seal/Digest.h"
#include "zo/Error.h"
#include "zo/Stream.h"

#include <cstring>

namespace brick {

using zo::CError;
using zo::CURI;
using zo::IIOStream;
using zo::P;
using zo::String;
using zo::TBuffer;
using zo::uint8;

namespace {

constexpr int kPrimaryCopy = 0;
constexpr int kFallbackCopy = 1;

P<seal::IDigestContext> createMD5Context()
{
    const P<seal::CDigestType_MD5> type(new seal::CDigestType_MD5());
    return type->createContext();
}

// Reads one copy and checks its size and digest; the file system's errors
// (a missing copy among them) are thrown.
CBrickDiskAuxFileBase::CopyCheck checkCopy(zo::IFileSystem* fs, const CURI& uri)
{
    CBrickDiskAuxFileBase::CopyCheck check;
    check.uri = uri;
    const P<IIOStream> stream = fs->openStream(uri, IIOStream::AccessRead, IIOStream::OptionNone);
    zo::int64 size = stream->getSize();
    if (size == -1)
        size = fs->getFileInfo(uri, true)->getSize();

    const P<seal::IDigestContext> digest = createMD5Context();
    const int digestSize = digest->getSize();
    if (size <= digestSize || size > CBrickDiskAuxFileBase::kMaxAuxFileSize) {
        check.kind = CBrickDiskAuxFileBase::CopyCheck::BadSize;
        check.size = size;
        return check;
    }
    const int payloadSize = static_cast<int>(size) - digestSize;
    P<TBuffer<uint8>> payload(new TBuffer<uint8>(payloadSize));
    TBuffer<uint8> storedDigest(digestSize);
    stream->read(payload->getData(), payloadSize);
    stream->read(storedDigest.getData(), digestSize);

    digest->update(payload->getData(), payloadSize);
    digest->finish();
    if (std::memcmp(digest->getDigest(), storedDigest.getData(), static_cast<size_t>(digestSize)) != 0) {
        check.kind = CBrickDiskAuxFileBase::CopyCheck::Corrupted;
        return check;
    }
    check.kind = CBrickDiskAuxFileBase::CopyCheck::Intact;
    check.payload = payload;
    return check;
}

// The payload of an intact copy; any other copy throws what is wrong with it.
P<TBuffer<uint8>> loadCopy(zo::IFileSystem* fs, const CURI& uri)
{
    const CBrickDiskAuxFileBase::CopyCheck check = checkCopy(fs, uri);
    if (check.kind == CBrickDiskAuxFileBase::CopyCheck::BadSize)
        throw CError("Bad brickdisk auxiliary file size: " + zo::toDecimalString(check.size));
    if (check.kind == CBrickDiskAuxFileBase::CopyCheck::Corrupted)
        throw CError("Brickdisk auxiliary file is corrupted.");
    return check.payload;
}

} // namespace

CURI CBrickDiskAuxFileBase::getAuxFileURI(const CURI& folder, const String& fileName, int copy)
{
    if (copy == kPrimaryCopy)
        return folder << fileName;
    return (folder << "fallback") << fileName;
}

zo::String CBrickDiskAuxFileBase::CopyCheck::describe() const
{
    switch (kind) {
    case Intact:
        return "intact";
    case Missing:
        return "missing";
    case BadSize:
        return "bad size";
    case Corrupted:
        return "damaged (digest mismatch)";
    case Unreadable:
        break;
    }
    return "unreadable: " + error->toString();
}

CBrickDiskAuxFileBase::CopyCheck CBrickDiskAuxFileBase::checkAuxFileCopy(zo::IFileSystem* fs, const CURI& folder,
                                                                         const String& fileName, int copy)
{
    const CURI uri = getAuxFileURI(folder, fileName, copy);
    try {
        return checkCopy(fs, uri);
    } catch (const CError& error) {
        CopyCheck check;
        check.uri = uri;
        check.kind = zo::CFileSystemError::getProblem(error.getProps()) == zo::CFileSystemError::NotFound
            ? CopyCheck::Missing
            : CopyCheck::Unreadable;
        check.error = error.clone();
        return check;
    }
}

P<TBuffer<uint8>> CBrickDiskAuxFileBase::loadAuxFile(zo::IFileSystem* fs, const CURI& folder, const String& fileName)
{
    P<CError> firstError;
    for (int copy = kPrimaryCopy;; ++copy) {
        // Both copies failed: the caller sees the primary copy's error.
        if (copy > kFallbackCopy)
            firstError->throwClone();
        CURI uri;
        try {
            uri = getAuxFileURI(folder, fileName, copy);
            return loadCopy(fs, uri);
        } catch (CError& error) {
            error.getProps().add("uri", uri.toString(true));
            if (!firstError)
                firstError = error.clone();
        }
    }
}

void CBrickDiskAuxFileBase::storeAuxFile(zo::IFileSystem* fs, const CURI& folder, const String& fileName,
                                         const TBuffer<uint8>& payload)
{
    const P<seal::IDigestContext> digest = createMD5Context();
    digest->update(payload.getData(), payload.getUsed());
    digest->finish();
    TBuffer<uint8> framed(payload);
    framed.append(digest->getDigest(), digest->getSize());

    // The only intact copy is replaced last: a stop before that leaves it
    // as it was, and the record readable.
    const bool onlyPrimaryIntact = checkAuxFileCopy(fs, folder, fileName, kPrimaryCopy).isIntact() &&
        !checkAuxFileCopy(fs, folder, fileName, kFallbackCopy).isIntact();
    const int order[2] = {onlyPrimaryIntact ? kFallbackCopy : kPrimaryCopy,
                          onlyPrimaryIntact ? kPrimaryCopy : kFallbackCopy};
    for (const int copy : order) {
        const CURI uri = getAuxFileURI(folder, fileName, copy);
        if (copy == kFallbackCopy)
            fs->createFolder(uri.getParent(), kFolderMode);
        detail::replaceFileAndWait(fs, uri, framed);
    }
}

} // namespace brick
