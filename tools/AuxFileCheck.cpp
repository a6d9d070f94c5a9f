#include "AuxFileCheck.h"

#include "brick/BrickDiskAuxFileBase.h"
#include "seal/Digest.h"
#include "zo/Error.h"

#include <cstring>

namespace cli {

std::string AuxFileCopyState::describe() const
{
    switch (kind) {
    case Intact: return "intact";
    case Missing: return "missing";
    case BadSize: return "bad size";
    case Corrupted: return "damaged (digest mismatch)";
    case Unreadable: return "unreadable: " + detail;
    }
    return "unknown";
}

AuxFileCopyState checkAuxFileCopy(zo::IFileSystem* fs, const zo::CURI& folder, const zo::String& fileName, int copy)
{
    AuxFileCopyState state;
    state.path = brick::CBrickDiskAuxFileBase::getAuxFileURI(folder, fileName, copy);
    try {
        if (!fs->fileExists(state.path)) {
            state.kind = AuxFileCopyState::Missing;
            return state;
        }
        const zo::P<zo::IIOStream> stream = fs->openStream(state.path, zo::IIOStream::AccessRead, 0);
        const zo::int64 size = fs->getFileInfo(state.path, true)->getSize();
        const zo::P<seal::IDigestContext> digest = seal::CDigestManager().getType("md5")->createContext();
        const int digestSize = digest->getSize();
        if (size <= digestSize || size > brick::CBrickDiskAuxFileBase::kMaxAuxFileSize) {
            state.kind = AuxFileCopyState::BadSize;
            return state;
        }
        zo::TBuffer<zo::uint8> bytes(static_cast<int>(size));
        stream->read(bytes.getData(), bytes.getUsed());
        const int payloadSize = bytes.getUsed() - digestSize;
        digest->update(bytes.getData(), payloadSize);
        digest->finish();
        if (std::memcmp(digest->getDigest(), bytes.getData() + payloadSize, static_cast<size_t>(digestSize)) != 0) {
            state.kind = AuxFileCopyState::Corrupted;
            return state;
        }
        state.payload.assign(bytes.getData(), payloadSize);
        state.kind = AuxFileCopyState::Intact;
    } catch (const zo::CError& e) {
        state.kind = AuxFileCopyState::Unreadable;
        state.detail = e.toString().toUTF8();
    }
    return state;
}

} // namespace cli
