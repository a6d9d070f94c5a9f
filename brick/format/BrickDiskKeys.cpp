#include "brick/format/BrickDiskKeys.h"

#include "brick/format/BrickDiskCreationTime.h"
#include "brick/format/BrickDiskError.h"
#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickDiskHeaderLimits.h"
#include "brick/format/BrickDiskKeyWrap.h"
#include "zo/Error.h"

#include <algorithm>
#include <chrono>
#include <vector>

namespace brick {

namespace {

using KeySlot = CBrickDiskHeader::KeySlot;

// The headers of a chain, opened: the disk key they share, and which key of
// the first header a password opened.
struct OpenedChain {
    std::vector<CBrickDiskHeader> headers;
    zo::TCryptBuffer<zo::uint8> key;
    int firstKeyIndex = -1;
};

zo::CProps folderProps(const zo::CURI& folder)
{
    return zo::CProps().add("diskFolder", folder.toString(true));
}

zo::CProps keyProps(const zo::CURI& folder, const zo::String& name)
{
    return folderProps(folder).add("keyName", name);
}

// Loads every header of `diskFolders` and opens it with one of `passwords`
// (tried in order). Headers whose keys are the same as an opened one's (a
// disk and the children made from it) are not derived again.
OpenedChain openChain(zo::IFileSystem* fs, const zo::TList<zo::CURI>& diskFolders,
                      const std::vector<zo::String>& passwords, bool allowExpensiveKeyDerivation, const char* where)
{
    if (diskFolders.empty())
        throw zo::CInvalidArgError(where, "There is no disk to change the keys of.");
    OpenedChain chain;
    for (const zo::CURI& folder : diskFolders) {
        chain.headers.emplace_back();
        chain.headers.back().load(fs, folder);
        if (!CBrickDiskKeyWrap::isKeyWrapped(chain.headers.back()) || !chain.headers.back().isEncrypted())
            throw zo::CInvalidArgError(where, "The disk's key is not wrapped, so its keys cannot change.",
                                       folderProps(folder));
        CBrickDiskHeaderLimits::checkKeyDerivationCost(chain.headers.back(), allowExpensiveKeyDerivation);
    }

    std::vector<std::pair<zo::TBuffer<zo::uint8>, zo::TBuffer<zo::uint8>>> opened;
    auto folder = diskFolders.begin();
    for (const CBrickDiskHeader& header : chain.headers) {
        const zo::CURI& diskFolder = *folder++;
        if (!chain.key.isEmpty() && !(CBrickDiskKeyWrap::keyCheckValue(chain.key) == header.getCipherKeyHash()))
            throw zo::CError("Disk does not share the key of the other disks.", zo::String(), -1,
                             folderProps(diskFolder));
        const auto keys = std::make_pair(header.getWrappedCipherKey(), header.getKeyListTag());
        if (std::find(opened.begin(), opened.end(), keys) != opened.end())
            continue;
        int keyIndex = -1;
        zo::TCryptBuffer<zo::uint8> headerKey;
        for (size_t i = 0; i < passwords.size() && keyIndex < 0; ++i)
            keyIndex = CBrickDiskKeyWrap::findKey(header, passwords[i], headerKey);
        if (keyIndex < 0)
            throw CBrickDiskError(CBrickDiskError::IncorrectPassword, diskFolder);
        if (&header == &chain.headers.front())
            chain.firstKeyIndex = keyIndex;
        chain.key = headerKey;
        opened.push_back(keys);
    }
    return chain;
}

// Writes `keys` into every header of the chain, with a key list when
// `withKeyList`, and stores them in the order of `diskFolders`.
void storeKeys(zo::IFileSystem* fs, const zo::TList<zo::CURI>& diskFolders, OpenedChain& chain,
               const std::vector<KeySlot>& keys, bool withKeyList)
{
    auto folder = diskFolders.begin();
    for (CBrickDiskHeader& header : chain.headers) {
        header.setHasKeyList(withKeyList);
        CBrickDiskKeyWrap::setKeys(header, keys, chain.key);
        header.store(fs, *folder++);
    }
}

int indexOf(const std::vector<KeySlot>& keys, const zo::String& name)
{
    for (size_t i = 0; i < keys.size(); ++i)
        if (keys[i].name == name)
            return static_cast<int>(i);
    return -1;
}

zo::int64 now()
{
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch).count();
}

// The header of the first disk as it will be stored with a key list, for
// the wraps made for it.
CBrickDiskHeader withKeyList(const CBrickDiskHeader& header)
{
    CBrickDiskHeader listed(header);
    listed.setHasKeyList(true);
    return listed;
}

} // namespace

void CBrickDiskKeys::addKey(zo::IFileSystem* fs, const zo::TList<zo::CURI>& diskFolders, const zo::String& password,
                            const zo::String& name, const zo::String& newPassword, const seal::Argon2idCost& cost,
                            bool allowExpensiveKeyDerivation)
{
    constexpr const char* where = "CBrickDiskKeys::addKey";
    if (newPassword.isEmpty())
        throw zo::CInvalidArgError(where, "The new key's password is empty.");
    CBrickDiskHeaderLimits::checkKeyName(name);
    OpenedChain chain = openChain(fs, diskFolders, {password}, allowExpensiveKeyDerivation, where);
    const CBrickDiskHeader& first = chain.headers.front();
    const zo::CURI& firstFolder = diskFolders.front();
    std::vector<KeySlot> keys = CBrickDiskKeyWrap::getKeys(first);
    const int existing = indexOf(keys, name);
    if (existing >= 0) {
        zo::TCryptBuffer<zo::uint8> key;
        if (!first.hasKeyList() || !CBrickDiskKeyWrap::opensKey(first, keys[existing], newPassword, key))
            throw zo::CError("The disk has a key of that name already.", zo::String(), -1, keyProps(firstFolder, name));
        storeKeys(fs, diskFolders, chain, keys, true);
        return;
    }
    if (static_cast<int>(keys.size()) >= CBrickDiskHeaderLimits::kMaxKeyCount)
        throw zo::CError("The disk holds as many keys as it can.", zo::String(), -1, keyProps(firstFolder, name));

    const CBrickDiskHeader listed = withKeyList(first);
    if (!first.hasKeyList()) {
        // The only key is wrapped anew, bound to the list it now heads; the
        // disk's making is its creation time when the disk recorded it.
        const seal::Argon2idCost firstCost{keys.front().passes, keys.front().memoryKiB, keys.front().lanes};
        const zo::int64 made = CBrickDiskCreationTime::load(fs, firstFolder).value_or(0);
        keys.front() =
            CBrickDiskKeyWrap::makeKey(listed, chain.key, CBrickDiskHeader::kDefaultKeyName, made, password, firstCost);
    }
    keys.push_back(CBrickDiskKeyWrap::makeKey(listed, chain.key, name, now(), newPassword, cost));
    storeKeys(fs, diskFolders, chain, keys, true);
}

void CBrickDiskKeys::removeKey(zo::IFileSystem* fs, const zo::TList<zo::CURI>& diskFolders, const zo::String& password,
                               const zo::String& name, bool allowExpensiveKeyDerivation)
{
    constexpr const char* where = "CBrickDiskKeys::removeKey";
    OpenedChain chain = openChain(fs, diskFolders, {password}, allowExpensiveKeyDerivation, where);
    const zo::CURI& firstFolder = diskFolders.front();
    std::vector<KeySlot> keys = CBrickDiskKeyWrap::getKeys(chain.headers.front());
    const int removed = indexOf(keys, name);
    if (removed < 0) {
        const bool elsewhere = std::any_of(chain.headers.begin(), chain.headers.end(), [&](const auto& header) {
            return indexOf(CBrickDiskKeyWrap::getKeys(header), name) >= 0;
        });
        if (!elsewhere)
            throw zo::CError("The disk has no key of that name.", zo::String(), -1, keyProps(firstFolder, name));
        storeKeys(fs, diskFolders, chain, keys, true);
        return;
    }
    if (keys.size() == 1)
        throw zo::CError("The key is the disk's last one: add another key before removing it.", zo::String(), -1,
                         keyProps(firstFolder, name));
    if (removed == chain.firstKeyIndex)
        throw zo::CError("The password opens the key to remove: give the password of a key that stays.", zo::String(),
                         -1, keyProps(firstFolder, name));
    // Each wrap binds the header, not its place in the list: the key after
    // a removed first key takes its place as it is.
    keys.erase(keys.begin() + removed);
    storeKeys(fs, diskFolders, chain, keys, true);
}

void CBrickDiskKeys::changePassword(zo::IFileSystem* fs, const zo::TList<zo::CURI>& diskFolders,
                                    const zo::String& oldPassword, const zo::String& newPassword,
                                    const zo::String& name, const seal::Argon2idCost& cost,
                                    bool allowExpensiveKeyDerivation)
{
    constexpr const char* where = "CBrickDiskKeys::changePassword";
    if (diskFolders.empty())
        throw zo::CInvalidArgError(where, "There is no disk to change the password of.");
    if (newPassword.isEmpty())
        throw zo::CInvalidArgError(where, "The new password is empty.");
    OpenedChain chain = openChain(fs, diskFolders, {oldPassword, newPassword}, allowExpensiveKeyDerivation, where);
    const CBrickDiskHeader& first = chain.headers.front();
    std::vector<KeySlot> keys = CBrickDiskKeyWrap::getKeys(first);
    const int changed = name.isEmpty() ? chain.firstKeyIndex : indexOf(keys, name);
    if (changed < 0)
        throw zo::CError("The disk has no key of that name.", zo::String(), -1, keyProps(diskFolders.front(), name));
    // One wrap for all: the disks share the key, so they share its wraps.
    keys[changed] =
        CBrickDiskKeyWrap::makeKey(first, chain.key, keys[changed].name, keys[changed].creationTime, newPassword, cost);
    storeKeys(fs, diskFolders, chain, keys, first.hasKeyList());
}

} // namespace brick
