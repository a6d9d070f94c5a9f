// The fixed fields at the start of a brick file, shared by the code that
// writes brick files and the code that checks them. Used inside the library
// only; not part of the public API.
#pragma once

namespace brick::layout {

// The file ID "BRICK", raw bytes without a terminator.
inline constexpr char kBrickFileID[] = "BRICK";
inline constexpr int kBrickFileIDSize = 5;
// File ID and the two version fields (int16 each).
inline constexpr int kFixedHeaderSize = kBrickFileIDSize + 2 + 2;
// The brick index that index-bound brick files hold after the versions.
inline constexpr int kBrickIndexSize = 8;
// The size of each digest of the brick files that are bound to their index
// and whose digests are keyed (checksum ID
// CBrickDiskHeader::kAuthenticatedCheckSumID, HMAC-SHA256).
inline constexpr int kIndexBoundDigestSize = 32;
// Brick files of an authenticated cipher ("aes256gcm") hold, after the brick
// index, the random salt of the brick's own key, then the ciphertext and the
// cipher's tag; they carry no digests.
inline constexpr int kBrickKeySaltSize = 32;
inline constexpr int kSealedHeaderSize = kFixedHeaderSize + kBrickIndexSize + kBrickKeySaltSize;
inline constexpr int kSealedTagSize = 16;

} // namespace brick::layout
