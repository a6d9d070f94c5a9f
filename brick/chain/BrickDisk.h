// CBrickDisk: one virtual disk stored as a folder of brick files.
#pragma once

#include "brick/chain/Brick.h"
#include "brick/chain/BrickReader.h"
#include "brick/chain/BrickStorer.h"
#include "brick/format/BrickDataPreparer.h"
#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickDiskLink.h"
#include "zo/Export.h"

#include "seal/Cipher.h"
#include "seal/Digest.h"
#include "seal/KeyDerivation.h"
#include "zo/Base.h"
#include "zo/Buffer.h"
#include "zo/Containers.h"
#include "zo/Error.h"
#include "zo/FileSystem.h"
#include "zo/Stream.h"
#include "zo/String.h"
#include "zo/URI.h"

#include <optional>

namespace brick {

using zo::IIOStream;
using zo::String;

// An open disk: a byte range of fixed size, cut into bricks, with one current
// position. Reads and writes go through one brick object; changed bricks are
// saved in the background. A CBrickDisk is used by one thread at a time.
class BRICKDISK_EXPORT CBrickDisk : public zo::CBase {
public:
    // How a child disk relates to its parent.
    enum ChildType { linkedChild = 0, standAloneChild = 1 };

    // The version of the disk format that this library reads and writes: 1.
    // Headers and brick files that need a newer reader are refused.
    static int getImplementationVersion();

    // Cipher keys. A disk's key is derived from its password with the
    // deriver, salt and iteration count of its header; the header keeps only
    // a digest of the key ("cryptoHashID" names the digest). A disk whose
    // header names the deriver "argon2id" instead has a random key, wrapped
    // in its header under a key derived from the password, and a check value
    // of the key (digest ID "hkdf-sha256"; see CBrickDiskKeyWrap); the key
    // checks below handle both. A disk whose cipher is "null" is not
    // encrypted (CBrickDiskHeader::isEncrypted). These calls keep no state and may be
    // called from any thread at once.

    // Derives the key for `password` (taken as its UTF-8 bytes) into `key`,
    // whose used size becomes the key length of the header's cipher, also
    // when the call then throws. Throws zo::CInvalidArgError
    // ("CBrickDisk::deriveCypherKey") when the header names a key deriver
    // other than "PKCS5-PBKDF2-HMAC-SHA1", a salt of fewer than 8 bytes,
    // fewer than 1000 or more than 10 million iterations (checked in this
    // order), and passes on the
    // cryptography library's error for an unknown cipher. A header of a
    // wrapped key ("argon2id") is refused as unknown here: its key is
    // unwrapped, not derived (isEncryptPasswordCorrect does it).
    static void deriveCipherKey(zo::TCryptBuffer<zo::uint8>& key, const zo::String& password,
                                const CBrickDiskHeader& header);

    // True when `key` is the key of the disk that `header` describes: always
    // for an unencrypted disk; otherwise when the key has the cipher's key
    // length and its digest equals the header's key hash. Throws the
    // cryptography library's error for an unknown cipher or digest.
    static bool isCipherKeyCorrect(const CBrickDiskHeader& header, const zo::TCryptBuffer<zo::uint8>& key);
    // The same for the disk in `diskFolder`, whose header is loaded through
    // `fs` first; header load errors are passed on.
    static bool isCipherKeyCorrect(zo::IFileSystem* fs, const zo::CURI& diskFolder,
                                   const zo::TCryptBuffer<zo::uint8>& key);

    // True when `password` opens the disk that `header` describes (for a
    // wrapped key: when it unwraps the key). An unencrypted disk accepts only
    // the empty password. On success the key is
    // written to `keyOut` when it is not null (empty for an unencrypted disk);
    // on a wrong password `keyOut` is left as it was. A wrong password is the
    // result false, not an error; the errors of deriveCipherKey are passed on.
    static bool isEncryptPasswordCorrect(const CBrickDiskHeader& header, const zo::String& password,
                                         zo::TCryptBuffer<zo::uint8>* keyOut);
    // The same, first refusing a key derivation that costs more than
    // CBrickDiskHeaderLimits::checkKeyDerivationCost allows (its CError,
    // thrown before any work) unless `allowExpensiveKeyDerivation`. The call
    // above refuses such costs.
    static bool isEncryptPasswordCorrect(const CBrickDiskHeader& header, const zo::String& password,
                                         zo::TCryptBuffer<zo::uint8>* keyOut, bool allowExpensiveKeyDerivation);
    // The same for the disk in `diskFolder`, whose header is loaded through
    // `fs` first; header load errors are passed on.
    static bool isEncryptPasswordCorrect(zo::IFileSystem* fs, const zo::CURI& diskFolder, const zo::String& password,
                                         zo::TCryptBuffer<zo::uint8>* keyOut);

    // ---- Creation -------------------------------------------------------

    // Without a choice, a new disk in a local folder gets 512 KiB bricks and
    // LZ4, where import speed counts most; in an object store (Ceph, S3),
    // where every brick is a request, every stored byte is paid for and the
    // network is slower than zstd at level 3, 4 MiB bricks (eight times fewer
    // objects) and zstd-3 (about two thirds of LZ4's bytes on the comparison
    // image; docs/benchmarks.md).
    static constexpr int kLocalFolderBrickSize = 512 << 10;
    static constexpr int kObjectStoreBrickSize = 4 << 20;
    static constexpr const char* kLocalFolderCompressorID = "lz4";
    static constexpr const char* kObjectStoreCompressorID = "zstd-3";

    // Every choice of a new disk's header, for the create call below; a
    // choice left open takes the default of the disk's store or of its key
    // deriver (resolveCreateOptions).
    struct CreateOptions {
        // The disk's size in bytes, at least 1 and at most the bricks that
        // the brick tree addresses (CBrickDiskHeaderLimits::checkDiskSize).
        int64 diskSize = 0;
        // A power of two from 4 KiB to 64 MiB, checked as given (a size
        // beyond every valid one is refused, never narrowed); none for the
        // default of the disk's store.
        std::optional<int64> brickSize;
        // From 1 to the brick size.
        int payloadBlockSize = 1;
        // An ID of CBrickDiskHeaderLimits::isValidCompressID; none for the
        // default of the disk's store.
        std::optional<String> compressorID;
        // How the cipher key comes from the password:
        // CBrickDiskHeader::kKeyWrappingDeriverID (a random key wrapped
        // under an Argon2id key, authenticated bricks and an identity; see
        // createAuthenticated) or CBrickDiskHeader::kPBKDF2DeriverID (the key
        // derived from the password itself, as older disks have it).
        String keyDeriverID = CBrickDiskHeader::kKeyWrappingDeriverID;
        // The brick digest; empty for the deriver's default. A wrapped key
        // goes only with kAuthenticatedCheckSumID (its default), a PBKDF2 key
        // with "sha256" (its default) or "md5".
        String checkSumID;
        // The cipher of an encrypted disk; empty for the deriver's default.
        // A wrapped key goes with kAuthenticatedCipherID (its default) or
        // "aes256cbc", a PBKDF2 key only with "aes256cbc". An empty password
        // makes an unencrypted disk all the same (the choice is still checked).
        String cipherID;
        // The Argon2id cost of a wrapped key; passes 0 for
        // CBrickDiskKeyWrap::getDefaultCost(). Not used by PBKDF2.
        seal::Argon2idCost cost{0, 0, 0};
    };

    // `options` with every choice left open made: the brick size and the
    // compressor by the store of `diskFolder` (brick::getStoreKind: the
    // kLocalFolder... defaults for a local folder, the kObjectStore...
    // defaults for Ceph and S3), the checksum, cipher and cost by the key
    // deriver. Checks nothing, touches nothing, never throws. Any thread.
    static CreateOptions resolveCreateOptions(const CreateOptions& options, const CURI& diskFolder);

    // Throws the zo::CError of CBrickDiskHeaderLimits ("field", "value")
    // for the first choice of `options` (resolved for `diskFolder`) that a
    // new disk cannot have, in the order brick size, disk size, payload
    // block size, compressor ID, key deriver, checksum ID and cipher ID.
    // Touches nothing. Any thread.
    static void checkCreateOptions(const CreateOptions& options, const CURI& diskFolder);

    // Makes a new, empty disk in `diskFolder` (created with its missing
    // parents) with every choice of `options` (resolved for `diskFolder`) in
    // its header, which is written once: its creation time
    // (CBrickDiskCreationTime), then its header, each with its fallback
    // copy; returns that header. An empty password makes an unencrypted
    // disk. Throws what checkCreateOptions throws before anything is made,
    // zo::CInvalidArgError for a cost that Argon2id refuses, CError "Cannot
    // create brick disk in a folder that already contains one." (with
    // "diskFolder") when the folder holds a header already, and passes on
    // the errors of the file system and of key derivation. Any thread.
    static CBrickDiskHeader create(IFileSystem* fs, const CURI& diskFolder, const String& password,
                                   const CreateOptions& options);

    // Makes a new, empty disk in `diskFolder` (created with its missing
    // parents): writes its creation time (CBrickDiskCreationTime), then its
    // header, `disk.brickdisk`, each with its fallback copy. An empty
    // password makes an unencrypted disk; otherwise the key is derived from
    // the password with a fresh random 8-byte salt. `brickSize` -1 keeps the
    // default of 524288 bytes. Throws CError "Cannot create brick disk in a
    // folder that already contains one." (with "diskFolder") when the folder
    // holds a header already, the CError of CBrickDiskHeaderLimits (before
    // anything is made) for a disk size, brick size, payload block size or
    // compressor ID outside its limits, and passes on the errors of the file
    // system and of key derivation. Any thread.
    // The disk has the checksum ID "md5" and the key deriver
    // CBrickDiskHeader::kPBKDF2DeriverID (the create call above with those).
    static void create(IFileSystem* fs, const CURI& diskFolder, int64 diskSize, int payloadBlockSize,
                       const String& password, const String& compressorID, int brickSize);

    // The checksum ID of authenticated disks: "hmac-sha256".
    static constexpr const char* kAuthenticatedCheckSumID = CBrickDiskHeader::kAuthenticatedCheckSumID;
    // The cipher of new encrypted authenticated disks: "aes256gcm", which
    // authenticates each brick file itself (see CBrickDataPreparer).
    static constexpr const char* kAuthenticatedCipherID = CBrickDiskHeader::kAuthenticatedCipherID;

    // Makes a new, empty disk like create, but with authenticated bricks:
    // checksum ID "hmac-sha256" (keyed digests, every brick file bound to
    // its brick index) and, for a non-empty password, a random cipher key
    // wrapped under an Argon2id key of the password with `cost` (see
    // CBrickDiskKeyWrap), so that the password can be changed later without
    // touching a brick, and the cipher `cipherID` ("aes256gcm" or
    // "aes256cbc"). An empty password makes an unencrypted disk whose
    // digests still bind each brick file to its index. Throws what create
    // throws, zo::CInvalidArgError for a cost that Argon2id refuses, and the
    // CError of CBrickDiskHeaderLimits for another cipher ID.
    static void createAuthenticated(IFileSystem* fs, const CURI& diskFolder, int64 diskSize, int payloadBlockSize,
                                    const String& password, const String& compressorID, int brickSize,
                                    const seal::Argon2idCost& cost, const String& cipherID = kAuthenticatedCipherID);

    // Makes a child disk of the disk in `parentDiskFolder` in `childDiskFolder`:
    // its creation time (CBrickDiskCreationTime), a copy of the parent's
    // header (so the parent's password opens it) and the link files. A
    // linkedChild is put between the parent and the child the parent had
    // (parent -> new child -> old child), and its parent link is relative; a
    // standAloneChild links to the parent as given and changes no file of the
    // parent. Throws CError "Cannot create child brick disk in
    // a folder that already contains one.", CInvalidArgError "Invalid
    // childType: N", CError "Parent and child brick disk must be in same
    // folder hierarchy." (when no relative path joins them), and passes on
    // the errors of loading and storing headers and links.
    //
    // The child is not a disk until it is whole: its creating mark is stored
    // first, then its header, its child link and its parent link, then (for
    // a linkedChild) the old child's parent link and the parent's child link,
    // and the mark is removed last. A child cut short keeps its mark and is
    // refused by every opening; calling createChild again with the same
    // folders finishes it (whatever step it reached), and CBrickDiskRemover
    // removes it. A folder whose mark names another parent throws CError
    // "The folder holds an unfinished child of another disk.".
    //
    // A parent with an identity (the authenticated format) needs its key:
    // the child gets an identity of its own and every link written is tied
    // under the key (see CBrickDiskIdentity). This call passes an empty key,
    // enough for unencrypted disks and disks without an identity; for others
    // it throws the zo::CInvalidArgError of CBrickDiskIdentity::requireKey,
    // as does a wrong key, before anything is written.
    static void createChild(IFileSystem* fs, const CURI& childDiskFolder, const CURI& parentDiskFolder,
                            ChildType childType);
    // The same with the disk key `diskKey` (empty for an unencrypted disk).
    static void createChild(IFileSystem* fs, const CURI& childDiskFolder, const CURI& parentDiskFolder,
                            ChildType childType, const zo::TCryptBuffer<zo::uint8>& diskKey);

    // ---- Opening ------------------------------------------------------------

    // Choices of an opening beyond the password and the access.
    struct OpenOptions {
        // Derive the key even when the header asks for more work or memory
        // than CBrickDiskHeaderLimits allows without permission (never more
        // memory than the machine has). A header that anyone could have
        // edited may otherwise hold a cost of minutes and gigabytes.
        bool allowExpensiveKeyDerivation = false;
    };

    // Opens the disk in `diskFolder` for reading (access 1) or reading and
    // writing (access 3). Loads the header, checks the password, follows the
    // parent links to every ancestor (nearest first) and notes the child.
    // At most `maxBackgroundOps` bricks are saved in the background at once.
    // Throws CBrickDiskError UnfinishedSnapshot or UnfinishedRemoval for a
    // child whose making or removal was cut short (see createChild),
    // IncorrectPassword for a wrong password (also for
    // any non-empty password of an unencrypted disk), NewerSoftwareRequired
    // when the header needs a newer reader (or, for writing, a newer writer),
    // CError "Parent link loop detected in brick disk." (with "diskFolder"
    // and "loopFolder") when the parent links run in a circle, the CErrors
    // of CBrickDiskIdentity::followLink for a disk with an identity whose
    // links or linked disks are not what its identity says (and CError "The
    // disk's identity is not authentic." for its own header), and passes on
    // the errors of the header, link files and key derivation, among them
    // the CError of a key derivation that costs more than allowed.
    CBrickDisk(IFileSystem* fs, const CURI& diskFolder, const String& password, IIOStream::Access access,
               int maxBackgroundOps);
    // The same with `options`.
    CBrickDisk(IFileSystem* fs, const CURI& diskFolder, const String& password, IIOStream::Access access,
               int maxBackgroundOps, const OpenOptions& options);
    CBrickDisk(const CBrickDisk&) = default;
    CBrickDisk& operator=(const CBrickDisk&) = default;
    // Saves the current brick and waits, without a time limit, until every
    // background save is done. Never throws.
    ~CBrickDisk() override;

    // The file system that the disk was opened through.
    IFileSystem* getFileSystem() const { return m_fs.get(); }
    CURI getDiskFolder() const { return m_diskFolder; }
    // The child disk's folder; empty when there is none (or its folder is gone).
    CURI getChildDiskFolder() const { return m_childDiskFolder; }
    // The nearest parent's folder; empty when the disk has no parent.
    CURI getParentDiskFolder() const;
    // Every ancestor's folder, nearest first.
    const zo::TList<CURI>& getParentDiskFolders() const { return m_parentDiskFolders; }
    const CBrickDiskHeader& getHeader() const { return m_header; }
    // The disk's key (empty for an unencrypted disk), for the records that
    // it authenticates, such as the links of a child made while the disk is
    // open. Secret: never shown or stored.
    const zo::TCryptBuffer<zo::uint8>& getCipherKey() const { return m_cipherKey; }
    int64 getSize() const { return m_diskSize; }
    int64 getBrickSize() const { return m_brickSize; }
    int getPayloadBlockSize() const;
    int64 getPosition() const { return m_position; }
    IIOStream::Access getAccess() const { return m_access; }

    // Writing to a disk that has a parent is refused unless allowed here:
    // the parent's bricks show through, so such writes are usually a mistake.
    void setAllowWritingWithParentDisk(bool allow) { m_allowWritingWithParentDisk = allow; }

    // The disk's brick reader, made at opening over the disk's folder and
    // its ancestors' folders: where a brick of the chain is stored, and its
    // decoded bytes. Any thread may use it, at the same time as the disk.
    // The disk holds it; a caller that keeps it longer than the disk holds
    // a reference of its own.
    CBrickReader* getBrickReader() const { return m_brickReader.get(); }
    // A new preparer for this disk's bricks (for threads that prepare or
    // decode bricks themselves; each thread needs its own).
    P<CBrickDataPreparer> createDataPreparer() const;
    // A new brick object over this disk, independent of the disk's own
    // position, saving through the disk's store queue (for threads that read
    // bricks themselves: they see the saves in flight). Any thread.
    P<CBrick> newStandAloneBrickObject() const;
    // The queue of every background save of this disk, shared by its brick
    // objects (at most `maxBackgroundOps` saves at once); null when the disk
    // was opened for reading only. Threads that store bricks themselves
    // hand them to it.
    CBrickStoreQueue* getStoreQueue() const { return m_storeQueue.get(); }

    // Starts saving the current brick if it changed, waits, without a time
    // limit, until no background save runs, and then syncs the file
    // system's batch (IFileSystem::syncBatch), so that every brick stored
    // so far is durable. Failed saves are not thrown: they are in
    // getBackgroundErrorList; a failed sync is thrown (CError).
    void flushChanges();
    // Waits until a background save slot is free (-1: no limit); true then.
    bool waitForFreeBackgroundOpSlot(int timeoutMillis);
    // The background saves that failed so far, oldest first.
    const zo::TList<CBrick::Error>& getBackgroundErrorList();

    // ---- Positioning, reading and writing ---------------------------------

    // Moves to `position`, from 0 to the disk size inclusive; CIOError 7
    // ("pos", "size", "uri") otherwise, leaving the position unchanged.
    void seek(int64 position);
    // Reads `size` bytes from the position on (nothing for size < 1). A read
    // that passes the end copies what there is, leaves the position at the
    // end and then throws CIOError 4. Passes on a brick's load error. A brick
    // that holds fewer bytes than the brick size throws CIOError 5 ("diskFolder", "brickIndex", "position") when the
    // read reaches past its bytes. Bytes read before an error stay counted
    // in the position.
    void read(void* buffer, int size);
    // Writes `size` bytes at the position. Throws CIOError 4 before writing
    // anything when the write would pass the end, CError when the disk was
    // not opened for writing or has a parent and writing with a parent was
    // not allowed, and CIOError 5 like read for a brick of fewer bytes.
    void write(const void* buffer, int size);
    // Stores one whole brick of prepared data (null: an all-zero brick) at
    // the position, which must be a brick boundary before the end, and
    // advances by one brick (not past the end). `listener` (may be null)
    // hears the end of the store. Throws CIOError 3 at or past the end,
    // CIOError 11 off a boundary, CError when not opened for writing,
    // checked in this order.
    P<CBrickStorer> writePreparedBrickData(const TBuffer<uint8>* preparedData, IDoneListener* listener);

    static String getParentLinkFileName() { return CBrickDiskLink::getParentLinkFileName(); }
    static String getChildLinkFileName() { return CBrickDiskLink::getChildLinkFileName(); }
    // The marks of a child disk that is not whole: written first and removed
    // last by createChild ("creating.bricklnk") and by the removal of a disk
    // from its chain ("removing.bricklnk", from the moment the disk starts
    // to lose its view). Each is a link record naming the disk's parent.
    static String getCreatingMarkFileName() { return CBrickDiskLink::getCreatingMarkFileName(); }
    static String getRemovingMarkFileName() { return CBrickDiskLink::getRemovingMarkFileName(); }
    // Which mark the folder holds (either copy of it): Finished for none.
    enum Completion { Finished = 0, CreationUnfinished = 1, RemovalUnfinished = 2 };
    static Completion getCompletion(IFileSystem* fs, const CURI& diskFolder);
    // Throws CBrickDiskError UnfinishedSnapshot or UnfinishedRemoval when
    // the folder holds a mark; passes on the file system's errors.
    static void checkFinished(IFileSystem* fs, const CURI& diskFolder);

protected:
    // The target of a link file, or an empty path when the file does not exist.
    static CURI loadLink(IFileSystem* fs, const CURI& diskFolder, const String& linkFileName);
    static void storeLink(IFileSystem* fs, const CURI& diskFolder, const String& linkFileName, const CURI& target);
    [[noreturn]] void throwIOError(zo::CIOError::Code code, const zo::CProps& props) const;

private:
    // Creates the folder of a new disk, checks that it holds no disk yet and
    // returns a default header with the choices of `options` (checked).
    static CBrickDiskHeader startNewDisk(IFileSystem* fs, const CURI& diskFolder, const CreateOptions& options);
    // The header of a new disk whose key is derived from the password itself.
    static void setUpDerivedKey(CBrickDiskHeader& header, const String& password);
    // The header of a new disk with an identity and, for a non-empty
    // password, a wrapped random key.
    static void setUpWrappedKey(CBrickDiskHeader& header, const String& password, const String& cipherID,
                                const seal::Argon2idCost& cost);
    void followParentLinks();
    [[noreturn]] void throwShortBrickError() const;
    // Moves the current brick object to the position; throws the short brick
    // error when bricks hold no bytes.
    void seekCurrentBrickToPosition();

    P<IFileSystem> m_fs;
    CURI m_diskFolder;
    CURI m_childDiskFolder;
    zo::TList<CURI> m_parentDiskFolders;
    CBrickDiskHeader m_header;
    zo::TCryptBuffer<uint8> m_cipherKey;
    IIOStream::Access m_access;
    P<seal::ICipher> m_cipher;
    int64 m_brickSize = 0;
    int64 m_diskSize = 0;
    int64 m_position = 0;
    int64 m_lastBrickIndex = -1;
    P<CBrickReader> m_brickReader;
    P<CBrickStoreQueue> m_storeQueue;
    P<CBrick> m_currentBrick;
    int m_maxBackgroundOps;
    bool m_allowWritingWithParentDisk = false;
};

} // namespace brick
