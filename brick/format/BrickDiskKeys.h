// CBrickDiskKeys: the keys of a chain of key-wrapped disks (a disk with its
// parents and children, which share one disk key). Each key is a password
// with a name and a creation time that wraps the same disk key, so a key can
// be given to one user or program and taken back later without touching a
// brick (see CBrickDiskHeader::KeySlot and docs/security.md for what taking
// a key back does and does not protect against).
//
// Every change rewrites the headers of the chain only, after every header
// has been loaded and opened: nothing is written when one fails. Each header
// is replaced atomically (both copies, the only intact one last; see
// CBrickDiskAuxFileBase::storeAuxFile), one disk after the other, so a change
// cut short leaves each disk opening with the keys it had before or with
// those it has after, and running the same change again finishes it: the
// first disk's new keys are written into every disk.
//
// Every call is static, keeps no state and may run on any thread at once
// (for different chains).
#pragma once

#include "zo/Export.h"

#include "seal/KeyDerivation.h"
#include "zo/Containers.h"
#include "zo/FileSystem.h"
#include "zo/String.h"
#include "zo/URI.h"

namespace brick {

class BRICKDISK_EXPORT CBrickDiskKeys {
public:
    // Adds the key `name` with `newPassword` and `cost` to the disks in
    // `diskFolders`, which must open with `password` (any of their keys).
    // A disk made without a key list gets one, its only key named
    // CBrickDiskHeader::kDefaultKeyName and wrapped anew (it is the key that
    // `password` opens). The new key's creation time is now. A first disk
    // that holds `name` already with `newPassword` (an addition cut short)
    // is accepted. Throws zo::CInvalidArgError ("CBrickDiskKeys::addKey")
    // for an empty list or an empty new password; the CError of
    // CBrickDiskHeaderLimits::checkKeyName; zo::CError "The disk has a key of
    // that name already." and "The disk holds as many keys as it can." (with
    // "diskFolder", "keyName"); and the errors of opening the chain below.
    static void addKey(zo::IFileSystem* fs, const zo::TList<zo::CURI>& diskFolders, const zo::String& password,
                       const zo::String& name, const zo::String& newPassword, const seal::Argon2idCost& cost,
                       bool allowExpensiveKeyDerivation);

    // Removes the key `name` from the disks in `diskFolders`. `password`
    // must open a key that stays, so that nobody takes away the key they
    // use by mistake, and so that a removal cut short can be run again with
    // the same password. A first disk that no longer holds `name` while
    // another disk does (a removal cut short) is accepted. Throws
    // zo::CInvalidArgError for an empty list; zo::CError "The disk has no key
    // of that name.", "The key is the disk's last one: add another key
    // before removing it." and "The password opens the key to remove: give
    // the password of a key that stays." (with "diskFolder", "keyName"); and
    // the errors of opening the chain below.
    static void removeKey(zo::IFileSystem* fs, const zo::TList<zo::CURI>& diskFolders, const zo::String& password,
                          const zo::String& name, bool allowExpensiveKeyDerivation);

    // Gives a key of the disks in `diskFolders` the password `newPassword`
    // with `cost`: the key `name`, or with an empty name the key that
    // `oldPassword` opens in the first disk. The disks must open with
    // `oldPassword` (any key) or, after a change cut short, with
    // `newPassword`. Throws zo::CInvalidArgError for an empty list or an
    // empty new password; zo::CError "The disk has no key of that name."
    // (with "diskFolder", "keyName"); and the errors of opening the chain
    // below.
    //
    // Opening the chain throws zo::CInvalidArgError for a disk whose key is
    // not wrapped; the CError of CBrickDiskHeaderLimits::checkKeyDerivationCost
    // before any derivation (unless `allowExpensiveKeyDerivation`);
    // CBrickDiskError IncorrectPassword (with the disk's folder) when a disk
    // opens with none of the passwords; zo::CError "Disk does not share the
    // key of the other disks." (with "diskFolder"); and the errors of loading
    // and storing headers.
    static void changePassword(zo::IFileSystem* fs, const zo::TList<zo::CURI>& diskFolders,
                               const zo::String& oldPassword, const zo::String& newPassword, const zo::String& name,
                               const seal::Argon2idCost& cost, bool allowExpensiveKeyDerivation);
};

} // namespace brick
