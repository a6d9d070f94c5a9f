// Message digests. A context is used by one thread at a time; the types and
// the manager may be used from any thread.
#pragma once

#include "zo/Base.h"
#include "zo/Export.h"
#include "zo/String.h"

namespace seal {

class BRICKDISK_EXPORT IDigestContext : public virtual zo::IBase {
public:
    // Digest length in bytes: 16 for MD5, 32 for SHA-256.
    virtual int getSize() const = 0;
    // Adds `size` bytes to the digest. Throws zo::CInvalidArgError on a
    // negative size, zo::CError after finish (until reset).
    virtual void update(const void* data, int size) = 0;
    // Ends the digest; getDigest then gives its bytes. Throws zo::CError when
    // the digest is finished already.
    virtual void finish() = 0;
    // Starts a new digest on the same context.
    virtual void reset() = 0;
    // The finished digest (getSize bytes); valid until the next reset.
    virtual const zo::uint8* getDigest() const = 0;
};

class BRICKDISK_EXPORT IDigestType : public virtual zo::IBase {
public:
    // A new context, ready to take data.
    virtual zo::P<IDigestContext> createContext() const = 0;
    virtual int getSize() const = 0;
    virtual zo::String getID() const = 0;
};

// Makes digest types by ID: "md5" and "sha256". Any other ID throws
// zo::CError "Unknown digest ID: " + ID.
class BRICKDISK_EXPORT CDigestManager {
public:
    zo::P<IDigestType> getType(const zo::String& hashID) const;
};

// A context that computes HMAC-SHA256 (32 bytes) under `key` (a copy is
// kept; an empty key is allowed) instead of a plain digest. reset starts a
// new message under the same key without setting the key up again. Throws
// zo::CInvalidArgError for a negative size or a null key of non-zero size,
// and zo::CError when the library cannot set HMAC up.
BRICKDISK_EXPORT zo::P<IDigestContext> createHMACSHA256Context(const void* key, int keySize);

// True when the `size` bytes at `a` and `b` are equal, compared in a time
// that does not depend on where they differ (for tags and check values).
BRICKDISK_EXPORT bool equalInConstantTime(const void* a, const void* b, int size);

// The MD5 digest type, constructible directly.
class BRICKDISK_EXPORT CDigestType_MD5 : public zo::CBase, public IDigestType {
public:
    zo::P<IDigestContext> createContext() const override;
    int getSize() const override { return 16; }
    zo::String getID() const override { return "md5"; }
};

} // namespace seal
