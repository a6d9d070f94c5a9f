// CBrickDiskKeyWrap: the cipher key of a disk whose header names the deriver
// "argon2id". Such a disk's key is 32 random bytes made once, at creation;
// the header holds it wrapped (AES-256-GCM) under a key derived from the
// password with Argon2id, and a check value of the key (HKDF-SHA256 of it,
// digest ID "hkdf-sha256") in place of the key's digest. Changing the
// password wraps the same key anew, so no brick is touched, and a wrong
// password is found by the wrap's own authentication, which also covers
// every other field of the header (sizes, algorithm IDs, versions, whether
// the disk has an identity or a key list): a header changed anywhere does
// not open. A disk may have several keys (passwords), each wrapping the same
// disk key; the list of them is tagged under the disk's record key (see
// CBrickDiskHeader::hasKeyList and CBrickDiskKeys).
//
// Every call is static, keeps no state and may run on any thread at once.
#pragma once

#include "zo/Export.h"

#include "brick/format/BrickDiskHeader.h"

#include "seal/KeyDerivation.h"
#include "zo/Buffer.h"
#include "zo/Containers.h"
#include "zo/FileSystem.h"
#include "zo/String.h"
#include "zo/URI.h"

#include <vector>

namespace brick {

class BRICKDISK_EXPORT CBrickDiskKeyWrap {
public:
    // The key check digest ID of such disks ("hkdf-sha256").
    static constexpr const char* kKeyCheckID = "hkdf-sha256";

    // The default cost: 12 passes over 64 MiB in four lanes, about half a
    // second of processor time on the machine the defaults were chosen on,
    // spread over as many of its processors as there are lanes
    // (docs/security.md).
    static seal::Argon2idCost getDefaultCost();
    // The largest cost accepted, in each parameter: 64 passes, 4 GiB, 64
    // lanes. Deriving with a header's cost beyond it throws zo::CError "The
    // key derivation cost of the disk is beyond the limits.".
    static seal::Argon2idCost getCostLimit();

    // True when `header` names the deriver "argon2id".
    static bool isKeyWrapped(const CBrickDiskHeader& header);

    // Makes a new random key, writes it into `keyOut` and sets `header` up
    // for it: deriver "argon2id" with `cost` and a fresh random 16-byte salt,
    // the key wrapped under the key derived from `password`, and its check
    // value as key hash with the digest ID "hkdf-sha256". Other fields are
    // left alone. Throws the errors of key derivation (a cost that Argon2id
    // refuses: zo::CInvalidArgError) and of the random generator.
    static void setUpNewKey(CBrickDiskHeader& header, const zo::String& password, const seal::Argon2idCost& cost,
                            zo::TCryptBuffer<zo::uint8>& keyOut);

    // Unwraps the key of `header` with `password` into `keyOut`, trying its
    // keys in order (see findKey). False, with `keyOut` untouched, when the
    // password is wrong or any field of the header was changed. Throws the error of a cost beyond the limits,
    // zo::CInvalidArgError
    // ("CBrickDiskKeyWrap::unwrapKey") when the header is not key-wrapped
    // and the errors of key derivation (a cost or salt that Argon2id refuses).
    static bool unwrapKey(const CBrickDiskHeader& header, const zo::String& password,
                          zo::TCryptBuffer<zo::uint8>& keyOut);

    // The index of the key of `header` that `password` opens, trying them in
    // order (one Argon2id derivation each, at its own cost), with the disk's
    // key unwrapped into `keyOut`; -1, with `keyOut` untouched, when none
    // does, or when the key list's tag is not the one the unwrapped key
    // makes (the list was changed). Throws as unwrapKey does.
    static int findKey(const CBrickDiskHeader& header, const zo::String& password, zo::TCryptBuffer<zo::uint8>& keyOut);
    // True, with the disk's key in `keyOut`, when `password` opens `slot`
    // as a key of `header` (whose key list tag is not checked). Throws the
    // error of a cost beyond the limits and of key derivation.
    static bool opensKey(const CBrickDiskHeader& header, const CBrickDiskHeader::KeySlot& slot,
                         const zo::String& password, zo::TCryptBuffer<zo::uint8>& keyOut);
    // The keys of the key-wrapped `header`, in the order they are tried: the
    // first from the derivation fields and the wrapped key (named
    // CBrickDiskHeader::kDefaultKeyName, creation time 0, in a header without
    // a key list), then the further keys of its list.
    static std::vector<CBrickDiskHeader::KeySlot> getKeys(const CBrickDiskHeader& header);
    // A new key named `name`, made at `creationTime`, that wraps `key`, the
    // disk's key, under `password` with `cost` and a fresh salt, for
    // `header` as it will be stored (with or without a key list: the wrap
    // binds which). Throws zo::CInvalidArgError when `key` is not the key of
    // `header`, and the errors of key derivation and of the random generator.
    static CBrickDiskHeader::KeySlot makeKey(const CBrickDiskHeader& header, const zo::TCryptBuffer<zo::uint8>& key,
                                             const zo::String& name, zo::int64 creationTime, const zo::String& password,
                                             const seal::Argon2idCost& cost);
    // Makes `keys` the keys of `header`, in that order: the first into the
    // derivation fields and the wrapped key, the others into the key list,
    // whose tag it makes under `key`. Throws zo::CInvalidArgError for no
    // keys, or for more than one in a header without a key list.
    static void setKeys(CBrickDiskHeader& header, const std::vector<CBrickDiskHeader::KeySlot>& keys,
                        const zo::TCryptBuffer<zo::uint8>& key);

    // Wraps `key`, the disk's key, anew under `newPassword` with `cost` and a
    // fresh salt, replacing the derivation fields and the wrapped key of
    // `header` (its first key; a key list keeps its names and gets its tag
    // anew). Throws zo::CInvalidArgError when `key` is not the key of
    // `header` (its check value differs), and the errors of setUpNewKey.
    static void rewrapKey(CBrickDiskHeader& header, const zo::TCryptBuffer<zo::uint8>& key,
                          const zo::String& newPassword, const seal::Argon2idCost& cost);

    // Changes the password of the disks in `diskFolders` (a disk with its
    // parents and children, which share one key) from `oldPassword` to
    // `newPassword`, wrapping the key anew with `cost`: the key that
    // `oldPassword` opens in the first disk gets the new password (see
    // CBrickDiskKeys::changePassword, which can name the key), by rewriting their
    // headers only (each copy replaced atomically, the only intact copy
    // last; see CBrickDiskAuxFileBase::storeAuxFile). A disk that opens with
    // `newPassword` already (a change that was interrupted) is accepted as
    // well. Nothing is written until every header is loaded and opened.
    // Interrupted while writing, every disk still opens with the old or the
    // new password: each copy is old or new, and one is always intact. Throws zo::CInvalidArgError
    // ("CBrickDiskKeyWrap::changePassword") for an empty list, an empty new
    // password, or a disk whose key is not wrapped (nothing is written then);
    // CBrickDiskError IncorrectPassword (with the disk's folder) when a disk
    // opens with neither password; zo::CError "Disk does not share the key
    // of the other disks." (with "diskFolder"); the CError of
    // CBrickDiskHeaderLimits::checkKeyDerivationCost, before any derivation
    // and any write, for a header whose key derivation costs more than is
    // allowed without permission; and the errors of loading and storing
    // headers.
    static void changePassword(zo::IFileSystem* fs, const zo::TList<zo::CURI>& diskFolders,
                               const zo::String& oldPassword, const zo::String& newPassword,
                               const seal::Argon2idCost& cost);
    // The same; with `allowExpensiveKeyDerivation` the key of such a header
    // is derived all the same (within the format's limits).
    static void changePassword(zo::IFileSystem* fs, const zo::TList<zo::CURI>& diskFolders,
                               const zo::String& oldPassword, const zo::String& newPassword,
                               const seal::Argon2idCost& cost, bool allowExpensiveKeyDerivation);

    // The check value of `key` that such headers hold as key hash: 32 bytes
    // of HKDF-SHA256 over the key, which reveal nothing of it.
    static zo::TBuffer<zo::uint8> keyCheckValue(const zo::TCryptBuffer<zo::uint8>& key);
};

} // namespace brick
