#include "brick/chain/BrickDisk.h"

#include "brick/Version.h"
#include "brick/chain/BrickDiskChain.h"
#include "brick/chain/DiskStore.h"
#include "brick/detail/ChainWalk.h"
#include "brick/detail/FolderMode.h"
#include "brick/detail/PasswordBytes.h"
#include "brick/format/BrickDiskCreationTime.h"
#include "brick/format/BrickDiskError.h"
#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickDiskHeaderLimits.h"
#include "brick/format/BrickDiskIdentity.h"
#include "brick/format/BrickDiskKeyWrap.h"
#include "brick/format/BrickDiskLink.h"
#include "seal/Cipher.h"
#include "seal/Digest.h"
#include "seal/KeyDerivation.h"
#include "seal/Random.h"
#include "zo/Error.h"
#include "zo/FileSystem.h"
#include "zo/Log.h"

#include <algorithm>
#include <vector>

namespace brick {

namespace {

constexpr char kKeyDerivationSource[] = "CBrickDisk::deriveCypherKey";
constexpr int kMinSaltSize = CBrickDiskHeaderLimits::kMinSaltSize;
constexpr int kMinIterations = CBrickDiskHeaderLimits::kMinPBKDF2Iterations;
constexpr int kSaltSize = 8;

// The header of an unfinished child as its making left it, when it is there
// and holds an authentic identity of a child.
bool loadEarlierIdentity(zo::IFileSystem* fs, const zo::CURI& folder, const zo::TCryptBuffer<zo::uint8>& diskKey,
                         CBrickDiskHeader& headerOut)
{
    if (!fs->fileExists(CBrickDiskHeader::getHeaderURI(folder, 0)) &&
        !fs->fileExists(CBrickDiskHeader::getHeaderURI(folder, 1)))
        return false;
    try {
        headerOut.load(fs, folder);
    } catch (const zo::CError&) {
        return false;
    }
    return CBrickDiskIdentity::isHeaderAuthentic(headerOut, diskKey) && headerOut.getHasParent();
}

} // namespace

int CBrickDisk::getImplementationVersion()
{
    return kImplementationVersion;
}

void CBrickDisk::deriveCipherKey(zo::TCryptBuffer<zo::uint8>& key, const zo::String& password,
                                 const CBrickDiskHeader& header)
{
    const detail::CPasswordBytes passwordBytes(password);
    const int keySize = seal::CCipherManager().getCipher(header.getCipherID())->getKeySize();
    key.setUsed(keySize);

    const zo::String deriverID = header.getCipherKeyDeriverID();
    if (deriverID != "PKCS5-PBKDF2-HMAC-SHA1")
        throw zo::CInvalidArgError(kKeyDerivationSource, "Unknown key deriver ID: " + deriverID);
    const zo::TBuffer<zo::uint8>& salt = header.getCipherKeyDerivationSalt();
    if (salt.getUsed() < kMinSaltSize)
        throw zo::CInvalidArgError(kKeyDerivationSource,
                                   "Key derivation salt is too small: " + zo::toDecimalString(salt.getUsed()) +
                                       " bytes");
    const int iterations = header.getCipherKeyDerivationIterations();
    if (iterations < kMinIterations)
        throw zo::CInvalidArgError(kKeyDerivationSource,
                                   "Key derivation iterations are too small: " + zo::toDecimalString(iterations));
    if (iterations > CBrickDiskHeaderLimits::kMaxPBKDF2Iterations)
        throw zo::CInvalidArgError(kKeyDerivationSource,
                                   "Key derivation iterations are too many: " + zo::toDecimalString(iterations));

    seal::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(passwordBytes.getData(), passwordBytes.getSize(), salt.getData(),
                                           salt.getUsed(), iterations, keySize, key.getData());
}

bool CBrickDisk::isCipherKeyCorrect(const CBrickDiskHeader& header, const zo::TCryptBuffer<zo::uint8>& key)
{
    if (!header.isEncrypted())
        return true;
    const zo::P<seal::ICipher> cipher = seal::CCipherManager().getCipher(header.getCipherID());
    if (header.getCryptoHashID() == CBrickDiskKeyWrap::kKeyCheckID)
        return key.getUsed() == cipher->getKeySize() &&
            CBrickDiskKeyWrap::keyCheckValue(key) == header.getCipherKeyHash();
    const zo::P<seal::IDigestType> digestType = seal::CDigestManager().getType(header.getCryptoHashID());
    if (key.getUsed() != cipher->getKeySize())
        return false;

    const zo::P<seal::IDigestContext> digest = digestType->createContext();
    digest->update(key.getData(), key.getUsed());
    digest->finish();
    const zo::TBuffer<zo::uint8> keyHash(digest->getDigest(), digest->getSize());
    return keyHash == header.getCipherKeyHash();
}

bool CBrickDisk::isCipherKeyCorrect(zo::IFileSystem* fs, const zo::CURI& diskFolder,
                                    const zo::TCryptBuffer<zo::uint8>& key)
{
    CBrickDiskHeader header;
    header.load(fs, diskFolder);
    return isCipherKeyCorrect(header, key);
}

bool CBrickDisk::isEncryptPasswordCorrect(const CBrickDiskHeader& header, const zo::String& password,
                                          zo::TCryptBuffer<zo::uint8>* keyOut)
{
    return isEncryptPasswordCorrect(header, password, keyOut, false);
}

bool CBrickDisk::isEncryptPasswordCorrect(const CBrickDiskHeader& header, const zo::String& password,
                                          zo::TCryptBuffer<zo::uint8>* keyOut, bool allowExpensiveKeyDerivation)
{
    if (!header.isEncrypted()) {
        // An unencrypted disk has no password; any other answer is wrong.
        if (!password.isEmpty())
            return false;
        if (keyOut)
            keyOut->setUsed(0);
        return true;
    }
    CBrickDiskHeaderLimits::checkKeyDerivationCost(header, allowExpensiveKeyDerivation);
    zo::TCryptBuffer<zo::uint8> key;
    bool correct = false;
    if (CBrickDiskKeyWrap::isKeyWrapped(header)) {
        correct = CBrickDiskKeyWrap::unwrapKey(header, password, key) && isCipherKeyCorrect(header, key);
    } else {
        deriveCipherKey(key, password, header);
        correct = isCipherKeyCorrect(header, key);
    }
    if (correct && keyOut)
        *keyOut = key;
    return correct;
}

bool CBrickDisk::isEncryptPasswordCorrect(zo::IFileSystem* fs, const zo::CURI& diskFolder, const zo::String& password,
                                          zo::TCryptBuffer<zo::uint8>* keyOut)
{
    CBrickDiskHeader header;
    header.load(fs, diskFolder);
    return isEncryptPasswordCorrect(header, password, keyOut);
}

// ---- Creation ---------------------------------------------------------------

CBrickDisk::CreateOptions CBrickDisk::resolveCreateOptions(const CreateOptions& options, const CURI& diskFolder)
{
    const bool local = getStoreKind(diskFolder.toLocalPath()) == StoreKind::LocalFolder;
    const bool wrapped = options.keyDeriverID == CBrickDiskHeader::kKeyWrappingDeriverID;
    CreateOptions resolved = options;
    if (!resolved.brickSize)
        resolved.brickSize = local ? kLocalFolderBrickSize : kObjectStoreBrickSize;
    if (!resolved.compressorID)
        resolved.compressorID = String(local ? kLocalFolderCompressorID : kObjectStoreCompressorID);
    if (resolved.checkSumID.isEmpty())
        resolved.checkSumID = wrapped ? kAuthenticatedCheckSumID : "sha256";
    if (resolved.cipherID.isEmpty())
        resolved.cipherID = wrapped ? kAuthenticatedCipherID : "aes256cbc";
    if (resolved.cost.passes == 0)
        resolved.cost = CBrickDiskKeyWrap::getDefaultCost();
    return resolved;
}

void CBrickDisk::checkCreateOptions(const CreateOptions& options, const CURI& diskFolder)
{
    const CreateOptions resolved = resolveCreateOptions(options, diskFolder);
    CBrickDiskHeaderLimits::checkBrickSize(*resolved.brickSize);
    CBrickDiskHeaderLimits::checkDiskSize(resolved.diskSize, *resolved.brickSize);
    CBrickDiskHeaderLimits::checkPayloadBlockSize(resolved.payloadBlockSize, *resolved.brickSize);
    CBrickDiskHeaderLimits::checkCompressID(*resolved.compressorID);
    CBrickDiskHeaderLimits::checkNewDiskAlgorithms(resolved.keyDeriverID, resolved.checkSumID, resolved.cipherID);
}

CBrickDiskHeader CBrickDisk::startNewDisk(IFileSystem* fs, const CURI& diskFolder, const CreateOptions& options)
{
    // Nothing is made for a disk that could not be opened.
    checkCreateOptions(options, diskFolder);
    fs->createFolder(diskFolder, kFolderMode);
    if (fs->fileExists(CBrickDiskHeader::getHeaderURI(diskFolder, 0)))
        throw CError("Cannot create brick disk in a folder that already contains one.", String(), -1,
                     zo::CProps().add("diskFolder", diskFolder.toString(true)));

    CBrickDiskHeader header;
    header.setDiskSize(options.diskSize);
    // Checked above: a valid brick size fits an int.
    header.setBrickSize(static_cast<int>(*options.brickSize));
    header.setPayloadBlockSize(options.payloadBlockSize);
    header.setCompressID(*options.compressorID);
    header.setCheckSumHashID(options.checkSumID);
    return header;
}

void CBrickDisk::setUpWrappedKey(CBrickDiskHeader& header, const String& password, const String& cipherID,
                                 const seal::Argon2idCost& cost)
{
    // Before the key is wrapped: the wrap binds that the disk has one.
    CBrickDiskIdentity::giveNewIdentity(header, false);
    zo::TCryptBuffer<uint8> key;
    if (password.isEmpty()) {
        header.setCipherID(CBrickDiskHeader::kNoCipherID);
        const P<seal::IDigestContext> digest =
            seal::CDigestManager().getType(header.getCryptoHashID())->createContext();
        digest->finish();
        header.setCipherKeyHash(TBuffer<uint8>(digest->getDigest(), digest->getSize()));
    } else {
        header.setCipherID(cipherID);
        CBrickDiskKeyWrap::setUpNewKey(header, password, cost, key);
    }
    CBrickDiskIdentity::sealIdentity(header, key);
}

void CBrickDisk::setUpDerivedKey(CBrickDiskHeader& header, const String& password)
{
    zo::TCryptBuffer<uint8> key;
    if (password.isEmpty()) {
        header.setCipherID(CBrickDiskHeader::kNoCipherID);
    } else {
        TBuffer<uint8> salt(kSaltSize);
        seal::fillRandomBytes(salt.getData(), salt.getUsed());
        header.setCipherKeyDerivationSalt(salt);
        deriveCipherKey(key, password, header);
    }
    const P<seal::IDigestContext> digest = seal::CDigestManager().getType(header.getCryptoHashID())->createContext();
    digest->update(key.getData(), key.getUsed());
    digest->finish();
    header.setCipherKeyHash(TBuffer<uint8>(digest->getDigest(), digest->getSize()));
}

CBrickDiskHeader CBrickDisk::create(IFileSystem* fs, const CURI& diskFolder, const String& password,
                                    const CreateOptions& options)
{
    const CreateOptions resolved = resolveCreateOptions(options, diskFolder);
    CBrickDiskHeader header = startNewDisk(fs, diskFolder, resolved);
    if (resolved.keyDeriverID == CBrickDiskHeader::kKeyWrappingDeriverID)
        setUpWrappedKey(header, password, resolved.cipherID, resolved.cost);
    else
        setUpDerivedKey(header, password);
    CBrickDiskHeaderLimits::validate(header, diskFolder);
    CBrickDiskCreationTime::storeNow(fs, diskFolder);
    header.store(fs, diskFolder);
    return header;
}

void CBrickDisk::createAuthenticated(IFileSystem* fs, const CURI& diskFolder, int64 diskSize, int payloadBlockSize,
                                     const String& password, const String& compressorID, int brickSize,
                                     const seal::Argon2idCost& cost, const String& cipherID)
{
    CreateOptions options;
    options.diskSize = diskSize;
    options.brickSize = brickSize == -1 ? kLocalFolderBrickSize : brickSize;
    options.payloadBlockSize = payloadBlockSize;
    options.compressorID = compressorID;
    options.cipherID = cipherID;
    options.cost = cost;
    create(fs, diskFolder, password, options);
}

void CBrickDisk::create(IFileSystem* fs, const CURI& diskFolder, int64 diskSize, int payloadBlockSize,
                        const String& password, const String& compressorID, int brickSize)
{
    CreateOptions options;
    options.diskSize = diskSize;
    options.brickSize = brickSize == -1 ? kLocalFolderBrickSize : brickSize;
    options.payloadBlockSize = payloadBlockSize;
    options.compressorID = compressorID;
    options.keyDeriverID = CBrickDiskHeader::kPBKDF2DeriverID;
    options.checkSumID = "md5";
    create(fs, diskFolder, password, options);
}

void CBrickDisk::createChild(IFileSystem* fs, const CURI& childDiskFolder, const CURI& parentDiskFolder,
                             ChildType childType)
{
    createChild(fs, childDiskFolder, parentDiskFolder, childType, zo::TCryptBuffer<uint8>());
}

void CBrickDisk::createChild(IFileSystem* fs, const CURI& childDiskFolder, const CURI& parentDiskFolder,
                             ChildType childType, const zo::TCryptBuffer<uint8>& diskKey)
{
    using Kind = CBrickDiskIdentity::LinkKind;
    const auto folderProps = [&] {
        return zo::CProps()
            .add("childDiskFolder", childDiskFolder.toString(true))
            .add("parentDiskFolder", parentDiskFolder.toString(true))
            .add("action", "CBrickDisk::createChild");
    };
    // A relative path between the two disks, or the error that says they
    // cannot be joined by one.
    const auto relative = [&](const CURI& path, const CURI& base) {
        try {
            return path.toRelative(base);
        } catch (const CError& e) {
            throw CError("Parent and child brick disk must be in same folder hierarchy.", String(), -1, folderProps(),
                         &e);
        }
    };

    const CURI child = childDiskFolder.toNormalized();
    const CURI parent = parentDiskFolder.toNormalized();
    const String creatingMark = getCreatingMarkFileName();

    CBrickDiskHeader parentHeader;
    parentHeader.load(fs, parentDiskFolder);
    if (parentHeader.hasIdentity())
        CBrickDiskIdentity::requireKey(parentHeader, diskKey, parentDiskFolder);

    fs->createFolder(childDiskFolder, kFolderMode);
    const Completion completion = getCompletion(fs, childDiskFolder);
    if (completion == CreationUnfinished) {
        // Made again: the child must be the one of this parent.
        if ((child << loadLink(fs, childDiskFolder, creatingMark)).toNormalized().toString(true) !=
            parent.toString(true))
            throw CError("The folder holds an unfinished child of another disk.", String(), -1, folderProps());
    } else if (completion == RemovalUnfinished || fs->fileExists(CBrickDiskHeader::getHeaderURI(childDiskFolder, 0)) ||
               fs->fileExists(CBrickDiskHeader::getHeaderURI(childDiskFolder, 1))) {
        throw CError("Cannot create child brick disk in a folder that already contains one.", String(), -1,
                     folderProps());
    }

    CURI parentTarget;
    if (childType == linkedChild)
        parentTarget = relative(parentDiskFolder, childDiskFolder);
    else if (childType == standAloneChild)
        parentTarget = parentDiskFolder;
    else
        throw zo::CInvalidArgError("CBrickDisk::createChild",
                                   "Invalid childType: " + zo::toDecimalString(static_cast<int>(childType)));
    if (completion == Finished)
        storeLink(fs, childDiskFolder, creatingMark, parentTarget);

    // The child's header is the parent's (so the parent's password opens
    // it), with an identity of its own: the one it got when its making was
    // cut short, so that links already tied to it stay true.
    CBrickDiskHeader header(parentHeader);
    if (header.hasIdentity()) {
        CBrickDiskHeader earlier;
        if (completion == CreationUnfinished && loadEarlierIdentity(fs, childDiskFolder, diskKey, earlier)) {
            header.setDiskID(earlier.getDiskID());
            header.setHasParent(true);
            header.setIdentityTag(earlier.getIdentityTag());
        } else {
            CBrickDiskIdentity::giveNewIdentity(header, true);
            CBrickDiskIdentity::sealIdentity(header, diskKey);
        }
    }
    // The child's own creation time.
    CBrickDiskCreationTime::storeNow(fs, childDiskFolder);
    header.store(fs, childDiskFolder);

    // The child the parent had. When the parent names the new child already
    // (a making cut short at its end), the new child's own child link says
    // which it was: that link is stored before the parent's.
    CURI oldChildFolder;
    const CURI parentsChildTarget = loadLink(fs, parentDiskFolder, getChildLinkFileName());
    if (!parentsChildTarget.isEmpty())
        oldChildFolder = (parentDiskFolder << parentsChildTarget).toNormalized();
    if (oldChildFolder.toString(true) == child.toString(true)) {
        const CURI ownChildTarget = loadLink(fs, childDiskFolder, getChildLinkFileName());
        oldChildFolder = ownChildTarget.isEmpty() ? CURI() : (childDiskFolder << ownChildTarget).toNormalized();
    }
    CBrickDiskHeader oldChildHeader;
    if (!oldChildFolder.isEmpty()) {
        if (header.hasIdentity())
            oldChildHeader.load(fs, oldChildFolder);
        CBrickDiskIdentity::storeLink(fs, childDiskFolder, header, Kind::Child,
                                      relative(oldChildFolder, childDiskFolder), oldChildHeader, diskKey);
    }
    CBrickDiskIdentity::storeLink(fs, childDiskFolder, header, Kind::Parent, parentTarget, parentHeader, diskKey);

    if (childType == linkedChild) {
        if (!oldChildFolder.isEmpty())
            CBrickDiskIdentity::storeLink(fs, oldChildFolder, oldChildHeader, Kind::Parent,
                                          relative(childDiskFolder, oldChildFolder), header, diskKey);
        CBrickDiskIdentity::storeLink(fs, parentDiskFolder, parentHeader, Kind::Child,
                                      relative(childDiskFolder, parentDiskFolder), header, diskKey);
    }
    for (int copy = 0; copy < 2; ++copy)
        fs->deleteFile(CBrickDiskLink::getAuxFileURI(childDiskFolder, creatingMark, copy), true);
}

CBrickDisk::Completion CBrickDisk::getCompletion(IFileSystem* fs, const CURI& diskFolder)
{
    if (CBrickDiskLink::holdsRecord(fs, diskFolder, getRemovingMarkFileName()))
        return RemovalUnfinished;
    if (CBrickDiskLink::holdsRecord(fs, diskFolder, getCreatingMarkFileName()))
        return CreationUnfinished;
    return Finished;
}

void CBrickDisk::checkFinished(IFileSystem* fs, const CURI& diskFolder)
{
    const Completion completion = getCompletion(fs, diskFolder);
    if (completion == CreationUnfinished)
        throw CBrickDiskError(CBrickDiskError::UnfinishedSnapshot, diskFolder);
    if (completion == RemovalUnfinished)
        throw CBrickDiskError(CBrickDiskError::UnfinishedRemoval, diskFolder);
}

// ---- Opening ----------------------------------------------------------------

CBrickDisk::CBrickDisk(IFileSystem* fs, const CURI& diskFolder, const String& password, IIOStream::Access access,
                       int maxBackgroundOps)
    : CBrickDisk(fs, diskFolder, password, access, maxBackgroundOps, OpenOptions())
{}

CBrickDisk::CBrickDisk(IFileSystem* fs, const CURI& diskFolder, const String& password, IIOStream::Access access,
                       int maxBackgroundOps, const OpenOptions& options)
    : m_fs(fs), m_diskFolder(diskFolder), m_access(access), m_maxBackgroundOps(maxBackgroundOps)
{
    checkFinished(fs, diskFolder);
    m_header.load(fs, diskFolder);
    if (access == IIOStream::AccessReadWrite && m_header.getMinWriterVersion() > getImplementationVersion())
        throw CBrickDiskError(CBrickDiskError::NewerSoftwareRequired, diskFolder);
    if (!isEncryptPasswordCorrect(m_header, password, &m_cipherKey, options.allowExpensiveKeyDerivation))
        throw CBrickDiskError(CBrickDiskError::IncorrectPassword, diskFolder);
    if (m_header.isEncrypted())
        m_cipher = seal::CCipherManager().getCipher(m_header.getCipherID());
    // Unknown digest IDs are refused here, before any brick is read.
    const seal::CDigestManager digests;
    if (m_header.getCheckSumHashID() != kAuthenticatedCheckSumID)
        digests.getType(m_header.getCheckSumHashID());
    if (m_header.getCryptoHashID() != CBrickDiskKeyWrap::kKeyCheckID)
        digests.getType(m_header.getCryptoHashID());
    m_brickSize = m_header.getBrickSize();
    m_diskSize = m_header.getDiskSize();
    m_position = 0;
    m_lastBrickIndex = -1;

    if (m_header.hasIdentity()) {
        if (!CBrickDiskIdentity::isHeaderAuthentic(m_header, m_cipherKey))
            throw CError("The disk's identity is not authentic.", String(), -1,
                         zo::CProps().add("diskFolder", diskFolder.toString(true)));
        CBrickDiskHeader childHeader;
        m_childDiskFolder = CBrickDiskIdentity::followLink(
            fs, diskFolder, m_header, CBrickDiskIdentity::LinkKind::Child, m_cipherKey, childHeader);
    } else {
        const CURI childTarget = loadLink(fs, diskFolder, getChildLinkFileName());
        if (!childTarget.isEmpty()) {
            m_childDiskFolder = (diskFolder << childTarget).toNormalized();
            // A child whose folder is gone is ignored: its bricks cannot be kept.
            if (!fs->folderExists(m_childDiskFolder))
                m_childDiskFolder = CURI();
        }
    }
    followParentLinks();

    m_brickReader = P<CBrickReader>(
        new CBrickReader(fs, CBrickReader::chainOf(m_diskFolder, m_parentDiskFolders), m_header, m_cipherKey));
    if (access == IIOStream::AccessReadWrite)
        m_storeQueue =
            P<CBrickStoreQueue>(new CBrickStoreQueue(m_brickReader.get(), m_childDiskFolder, m_maxBackgroundOps));
    m_currentBrick = newStandAloneBrickObject();
}

void CBrickDisk::followParentLinks()
{
    // A disk with an identity is followed to its parents by their IDs, each
    // link and linked header checked under the key.
    const auto step = [this](const CURI& folder, const CBrickDiskHeader& header) {
        detail::ParentStep parent;
        if (header.hasIdentity())
            parent.folder = CBrickDiskIdentity::followLink(
                m_fs.get(), folder, header, CBrickDiskIdentity::LinkKind::Parent, m_cipherKey, parent.header);
        else
            parent.folder = CBrickDiskChain::loadLinkedFolder(m_fs.get(), folder, getParentLinkFileName());
        return parent;
    };
    for (const CURI& parent : detail::walkParentLinks(m_fs.get(), m_diskFolder, m_header, step))
        m_parentDiskFolders.push_back(parent);
}

CBrickDisk::~CBrickDisk()
{
    try {
        if (m_currentBrick) {
            m_currentBrick->backgroundSaveChanges();
            m_currentBrick->waitUntilBackgroundSavesDone(-1);
            m_fs->syncBatch();
        }
    } catch (const std::exception& e) {
        zo::onExceptionInDestructorIgnored("brick::CBrickDisk", e, true);
    }
}

CURI CBrickDisk::getParentDiskFolder() const
{
    return m_parentDiskFolders.empty() ? CURI() : m_parentDiskFolders.front();
}

int CBrickDisk::getPayloadBlockSize() const
{
    return m_header.getPayloadBlockSize();
}

P<CBrickDataPreparer> CBrickDisk::createDataPreparer() const
{
    return m_brickReader->createDataPreparer();
}

P<CBrick> CBrickDisk::newStandAloneBrickObject() const
{
    return P<CBrick>(new CBrick(m_brickReader.get(), m_storeQueue.get()));
}

CURI CBrickDisk::loadLink(IFileSystem* fs, const CURI& diskFolder, const String& linkFileName)
{
    CBrickDiskLink link;
    try {
        link.load(fs, diskFolder, linkFileName);
    } catch (const zo::CFileSystemError& e) {
        if (e.getProblem() == zo::CFileSystemError::NotFound)
            return CURI();
        throw;
    }
    return link.getTargetURI();
}

void CBrickDisk::storeLink(IFileSystem* fs, const CURI& diskFolder, const String& linkFileName, const CURI& target)
{
    CBrickDiskLink link;
    link.setTargetURI(target);
    link.store(fs, diskFolder, linkFileName);
}

void CBrickDisk::flushChanges()
{
    m_currentBrick->backgroundSaveChanges();
    m_currentBrick->waitUntilBackgroundSavesDone(-1);
    m_fs->syncBatch();
}

bool CBrickDisk::waitForFreeBackgroundOpSlot(int timeoutMillis)
{
    return m_currentBrick->waitForFreeBackgroundOpSlot(timeoutMillis);
}

const zo::TList<CBrick::Error>& CBrickDisk::getBackgroundErrorList()
{
    return m_currentBrick->getBackgroundErrorList();
}

// ---- Positioning, reading and writing ---------------------------------------

void CBrickDisk::throwIOError(zo::CIOError::Code code, const zo::CProps& props) const
{
    throw zo::CIOError(code, String(), zo::CProps(props).add("uri", m_diskFolder.toString(true)));
}

void CBrickDisk::throwShortBrickError() const
{
    // A brick file whose payload is shorter than the brick (written by other
    // software, or prepared by a caller for a shorter range) would otherwise
    // make a read or write inside the disk go round for ever.
    throw zo::CIOError(zo::CIOError::InvalidData, "Brick holds fewer bytes than the disk expects.",
                       zo::CProps()
                           .add("diskFolder", m_diskFolder.toString(true))
                           .add("brickIndex", m_position / m_brickSize)
                           .add("position", m_position));
}

void CBrickDisk::seekCurrentBrickToPosition()
{
    // The header's limits, checked at creation and load, keep bricks at 4 KiB or more.
    m_currentBrick->seek(m_position / m_brickSize, static_cast<int>(m_position % m_brickSize));
}

void CBrickDisk::seek(int64 position)
{
    if (position < 0 || position > m_diskSize)
        throwIOError(zo::CIOError::SeekOutOfRange, zo::CProps().add("pos", position).add("size", m_diskSize));
    m_position = position;
}

void CBrickDisk::read(void* buffer, int size)
{
    if (size < 1)
        return;
    auto* dst = static_cast<uint8*>(buffer);
    int64 remaining = size;
    while (remaining > 0) {
        // At the end.
        if (m_position >= m_diskSize)
            throwIOError(zo::CIOError::EndOfData, zo::CProps());
        const int64 count = std::min(remaining, m_diskSize - m_position);
        seekCurrentBrickToPosition();
        const int got = m_currentBrick->readLaxInsideBrick(dst, static_cast<int>(count));
        if (got == 0)
            throwShortBrickError();
        dst += got;
        m_position += got;
        remaining -= got;
        if (m_position > m_diskSize) {
            m_position = m_diskSize;
            throwIOError(zo::CIOError::EndOfData, zo::CProps());
        }
    }
}

void CBrickDisk::write(const void* buffer, int size)
{
    if (m_access != IIOStream::AccessReadWrite)
        throw CError("Internal error: CBrickDisk::write was called, but the disk was not opened for writing.");
    if (!m_parentDiskFolders.empty() && !m_allowWritingWithParentDisk)
        throw CError("Cannot write to brick disk that has a parent disk attached.", String(), -1,
                     zo::CProps().add("diskFolder", m_diskFolder.toString(true)));
    if (m_position + size > m_diskSize)
        throwIOError(zo::CIOError::EndOfData, zo::CProps());
    if (size <= 0)
        return;
    const auto* src = static_cast<const uint8*>(buffer);
    int64 remaining = size;
    while (remaining > 0) {
        const int64 count = std::min(remaining, m_diskSize - m_position);
        seekCurrentBrickToPosition();
        const int written = m_currentBrick->writeLaxInsideBrick(src, static_cast<int>(count));
        if (written == 0)
            throwShortBrickError();
        src += written;
        m_position += written;
        remaining -= written;
    }
}

P<CBrickStorer> CBrickDisk::writePreparedBrickData(const TBuffer<uint8>* preparedData, IDoneListener* listener)
{
    const auto props = [&](const char* name, int64 value) {
        return zo::CProps().add("diskFolder", m_diskFolder.toString(true)).add("position", m_position).add(name, value);
    };
    if (m_position >= m_diskSize)
        throw zo::CIOError(zo::CIOError::WriteBeyondSize, "Prepared brick write exceeds disk size.",
                           props("diskSize", m_diskSize));
    if (m_position % m_brickSize != 0)
        throw zo::CIOError(zo::CIOError::NotOnBoundary,
                           "Prepared brick write in brick disk can only be done on a brick boundary.",
                           props("brickSize", m_brickSize));
    if (m_access != IIOStream::AccessReadWrite)
        throw CError(
            "Internal error: CBrickDisk::writePreparedBrickData was called, but the disk was not opened for writing.");
    m_currentBrick->seek(m_position / m_brickSize, 0);
    P<CBrickStorer> storer = m_currentBrick->writePreparedBrick(preparedData, listener);
    m_position = std::min(m_position + m_brickSize, m_diskSize);
    return storer;
}

} // namespace brick
