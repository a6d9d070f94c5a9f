// Several keys of a chain of key-wrapped disks: adding, listing, removing
// and changing keys, a changed key list refused, and changes cut short at
// every changing operation.
#include "brick/chain/BrickDisk.h"
#include "brick/format/BrickDiskAuxFileBase.h"
#include "brick/format/BrickDiskCreationTime.h"
#include "brick/format/BrickDiskError.h"
#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickDiskHeaderLimits.h"
#include "brick/format/BrickDiskKeyWrap.h"
#include "brick/format/BrickDiskKeys.h"
#include "support/CrashingFileSystem.h"
#include "support/DiskTestHelpers.h"
#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskError;
using brick::CBrickDiskHeader;
using brick::CBrickDiskKeys;
using brick::CBrickDiskKeyWrap;
using testsupport::Bytes;
using testsupport::kTestKdfCost;
using testsupport::opensWith;
using zo::CError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::int64;
using zo::P;
using KeySlot = CBrickDiskHeader::KeySlot;

constexpr int kBrickSize = testsupport::kDiskTestBrickSize;
constexpr int64 kDiskSize = 4 * kBrickSize;
const char* const kOwner = "owner password";
const char* const kBackup = "backup agent password";
const char* const kThird = "third password";
const std::vector<const char*> kFolders = {"/disks/parent", "/disks/child", "/disks/grandchild"};

zo::TList<CURI> chainFolders()
{
    return testsupport::foldersOf(kFolders);
}

// A parent with two linked children below it, each holding one brick of its
// own, all under the one key of `kOwner`.
P<CMemoryFileSystem> makeChain()
{
    P<CMemoryFileSystem> fs(new CMemoryFileSystem());
    testsupport::createKeyWrappedChain(fs.get(), kFolders, kDiskSize, kOwner, 30);
    return fs;
}

void addKey(zo::IFileSystem* fs, const char* name, const char* password, const char* with = kOwner)
{
    CBrickDiskKeys::addKey(fs, chainFolders(), with, name, password, kTestKdfCost, false);
}

void removeKey(zo::IFileSystem* fs, const char* name, const char* with = kOwner)
{
    CBrickDiskKeys::removeKey(fs, chainFolders(), with, name, false);
}

bool opensWithNone(zo::IFileSystem* fs, const char* folder)
{
    return !opensWith(fs, folder, kOwner) && !opensWith(fs, folder, kBackup) && !opensWith(fs, folder, kThird);
}

CBrickDiskHeader headerOf(zo::IFileSystem* fs, const char* folder)
{
    CBrickDiskHeader header;
    header.load(fs, CURI(folder));
    return header;
}

std::vector<std::string> keyNames(zo::IFileSystem* fs, const char* folder)
{
    std::vector<std::string> names;
    for (const KeySlot& slot : CBrickDiskKeyWrap::getKeys(headerOf(fs, folder)))
        names.push_back(slot.name.toUTF8());
    return names;
}

std::vector<Bytes> contents(zo::IFileSystem* fs, const char* password)
{
    std::vector<Bytes> result;
    for (const char* folder : kFolders)
        result.push_back(testsupport::readWholeDisk(*testsupport::openDisk(fs, CURI(folder), password)));
    return result;
}

int64 secondsNow()
{
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// Stores `header` into the first disk as anyone can, framing and all, after
// `edit` changed it.
void storeEdited(zo::IFileSystem* fs, const std::function<void(CBrickDiskHeader&)>& edit)
{
    CBrickDiskHeader header = headerOf(fs, kFolders[0]);
    edit(header);
    header.store(fs, CURI(kFolders[0]));
}

TEST(KeySlot, AddedKeyOpensEveryDiskOfTheChainAsTheFirstKeyDoes)
{
    const P<CMemoryFileSystem> fs = makeChain();
    const std::vector<Bytes> before = contents(fs.get(), kOwner);
    addKey(fs.get(), "backup", kBackup);
    const std::vector<Bytes> withOwner = contents(fs.get(), kOwner);
    const std::vector<Bytes> withBackup = contents(fs.get(), kBackup);
    for (size_t i = 0; i < before.size(); ++i) {
        EXPECT_TRUE(testsupport::sameBytes(before[i], withOwner[i])) << kFolders[i];
        EXPECT_TRUE(testsupport::sameBytes(before[i], withBackup[i])) << kFolders[i];
    }
    for (const char* folder : kFolders)
        EXPECT_FALSE(opensWith(fs.get(), folder, kThird)) << folder;
}

TEST(KeySlot, ListsEveryKeyInOrderWithItsCreationTime)
{
    const P<CMemoryFileSystem> fs = makeChain();
    const int64 madeAt = brick::CBrickDiskCreationTime::load(fs.get(), CURI(kFolders[0])).value();
    const int64 beforeAdding = secondsNow();
    addKey(fs.get(), "backup", kBackup);
    addKey(fs.get(), "laptop", kThird, kBackup);
    for (const char* folder : kFolders) {
        const std::vector<KeySlot> keys = CBrickDiskKeyWrap::getKeys(headerOf(fs.get(), folder));
        ASSERT_EQ(keys.size(), 3u) << folder;
        EXPECT_EQ(keys[0].name.toUTF8(), "default");
        EXPECT_EQ(keys[0].creationTime, madeAt);
        EXPECT_EQ(keys[1].name.toUTF8(), "backup");
        EXPECT_GE(keys[1].creationTime, beforeAdding);
        EXPECT_LE(keys[1].creationTime, secondsNow());
        EXPECT_EQ(keys[2].name.toUTF8(), "laptop");
        EXPECT_EQ(keys[2].passes, kTestKdfCost.passes);
        EXPECT_EQ(keys[2].memoryKiB, kTestKdfCost.memoryKiB);
    }
}

TEST(KeySlot, DiskWithoutKeyListHasOneKeyNamedDefault)
{
    const P<CMemoryFileSystem> fs = makeChain();
    EXPECT_FALSE(headerOf(fs.get(), kFolders[0]).hasKeyList());
    EXPECT_EQ(keyNames(fs.get(), kFolders[0]), std::vector<std::string>{"default"});
}

TEST(KeySlot, RemovedKeyNoLongerOpensAnyDisk)
{
    const P<CMemoryFileSystem> fs = makeChain();
    addKey(fs.get(), "backup", kBackup);
    removeKey(fs.get(), "backup");
    for (const char* folder : kFolders) {
        EXPECT_FALSE(opensWith(fs.get(), folder, kBackup)) << folder;
        EXPECT_TRUE(opensWith(fs.get(), folder, kOwner)) << folder;
        EXPECT_EQ(keyNames(fs.get(), folder), std::vector<std::string>{"default"}) << folder;
    }
}

TEST(KeySlot, RemovingTheFirstKeyLeavesTheNextOneOpening)
{
    const P<CMemoryFileSystem> fs = makeChain();
    const std::vector<Bytes> before = contents(fs.get(), kOwner);
    addKey(fs.get(), "backup", kBackup);
    removeKey(fs.get(), "default", kBackup);
    for (const char* folder : kFolders) {
        EXPECT_FALSE(opensWith(fs.get(), folder, kOwner)) << folder;
        EXPECT_EQ(keyNames(fs.get(), folder), std::vector<std::string>{"backup"}) << folder;
    }
    const std::vector<Bytes> after = contents(fs.get(), kBackup);
    for (size_t i = 0; i < before.size(); ++i)
        EXPECT_TRUE(testsupport::sameBytes(before[i], after[i])) << kFolders[i];
}

TEST(KeySlot, LastKeyIsNotRemoved)
{
    const P<CMemoryFileSystem> fs = makeChain();
    const auto error = testsupport::errorOf<CError>([&] { removeKey(fs.get(), "default"); });
    ASSERT_TRUE(error);
    EXPECT_EQ(testsupport::messageOf(*error), "The key is the disk's last one: add another key before removing it.");
    addKey(fs.get(), "backup", kBackup);
    removeKey(fs.get(), "default", kBackup);
    EXPECT_THROW(removeKey(fs.get(), "backup", kBackup), CError);
    for (const char* folder : kFolders)
        EXPECT_TRUE(opensWith(fs.get(), folder, kBackup)) << folder;
}

TEST(KeySlot, KeyIsNotRemovedWithItsOwnPassword)
{
    const P<CMemoryFileSystem> fs = makeChain();
    addKey(fs.get(), "backup", kBackup);
    const auto before = testsupport::fileContentsBelow(fs.get(), CURI("/disks"));
    const auto error = testsupport::errorOf<CError>([&] { removeKey(fs.get(), "backup", kBackup); });
    ASSERT_TRUE(error);
    EXPECT_EQ(testsupport::messageOf(*error),
              "The password opens the key to remove: give the password of a key that stays.");
    for (const auto& [path, bytes] : testsupport::fileContentsBelow(fs.get(), CURI("/disks")))
        EXPECT_TRUE(testsupport::sameBytes(bytes, before.at(path))) << path;
}

TEST(KeySlot, UnknownKeyNameIsRefused)
{
    const P<CMemoryFileSystem> fs = makeChain();
    const auto error = testsupport::errorOf<CError>([&] { removeKey(fs.get(), "nobody"); });
    ASSERT_TRUE(error);
    EXPECT_EQ(testsupport::messageOf(*error), "The disk has no key of that name.");
}

TEST(KeySlot, NamesAreUniqueAndNothingIsWrittenForATakenOne)
{
    const P<CMemoryFileSystem> fs = makeChain();
    addKey(fs.get(), "backup", kBackup);
    const auto before = testsupport::fileContentsBelow(fs.get(), CURI("/disks"));
    const auto error = testsupport::errorOf<CError>([&] { addKey(fs.get(), "backup", kThird); });
    ASSERT_TRUE(error);
    EXPECT_EQ(testsupport::messageOf(*error), "The disk has a key of that name already.");
    EXPECT_THROW(addKey(fs.get(), "default", kThird), CError);
    for (const auto& [path, bytes] : testsupport::fileContentsBelow(fs.get(), CURI("/disks")))
        EXPECT_TRUE(testsupport::sameBytes(bytes, before.at(path))) << path;
}

TEST(KeySlot, AddingNeedsThePasswordOfAKey)
{
    const P<CMemoryFileSystem> fs = makeChain();
    const auto error = testsupport::errorOf<CBrickDiskError>([&] { addKey(fs.get(), "backup", kBackup, kThird); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getCode(), CBrickDiskError::IncorrectPassword);
    EXPECT_FALSE(opensWith(fs.get(), kFolders[0], kBackup));
}

TEST(KeySlot, BadKeyNamesAreRefused)
{
    const P<CMemoryFileSystem> fs = makeChain();
    EXPECT_THROW(addKey(fs.get(), "", kBackup), CError);
    EXPECT_THROW(addKey(fs.get(), "tab\there", kBackup), CError);
    EXPECT_THROW(
        addKey(fs.get(), std::string(brick::CBrickDiskHeaderLimits::kMaxKeyNameLength + 1, 'k').c_str(), kBackup),
        CError);
    EXPECT_FALSE(headerOf(fs.get(), kFolders[0]).hasKeyList());
}

TEST(KeySlot, PasswordChangeOfANamedKeyLeavesTheOtherKeys)
{
    const P<CMemoryFileSystem> fs = makeChain();
    addKey(fs.get(), "backup", kBackup);
    CBrickDiskKeys::changePassword(fs.get(), chainFolders(), kOwner, kThird, "backup", kTestKdfCost, false);
    for (const char* folder : kFolders) {
        EXPECT_TRUE(opensWith(fs.get(), folder, kOwner)) << folder;
        EXPECT_TRUE(opensWith(fs.get(), folder, kThird)) << folder;
        EXPECT_FALSE(opensWith(fs.get(), folder, kBackup)) << folder;
        EXPECT_EQ(keyNames(fs.get(), folder), (std::vector<std::string>{"default", "backup"})) << folder;
    }
}

TEST(KeySlot, PasswordChangeWithoutANameChangesTheKeyTheOldPasswordOpens)
{
    const P<CMemoryFileSystem> fs = makeChain();
    addKey(fs.get(), "backup", kBackup);
    CBrickDiskKeyWrap::changePassword(fs.get(), chainFolders(), kBackup, kThird, kTestKdfCost);
    for (const char* folder : kFolders) {
        EXPECT_TRUE(opensWith(fs.get(), folder, kOwner)) << folder;
        EXPECT_TRUE(opensWith(fs.get(), folder, kThird)) << folder;
        EXPECT_FALSE(opensWith(fs.get(), folder, kBackup)) << folder;
    }
    zo::TCryptBuffer<zo::uint8> key;
    EXPECT_EQ(CBrickDiskKeyWrap::findKey(headerOf(fs.get(), kFolders[0]), kThird, key), 1);
}

TEST(KeySlot, EveryKeyOpensTheSameDiskKey)
{
    const P<CMemoryFileSystem> fs = makeChain();
    addKey(fs.get(), "backup", kBackup);
    for (const char* folder : kFolders) {
        const zo::TCryptBuffer<zo::uint8> owner = testsupport::diskKey(fs.get(), CURI(folder), kOwner);
        const zo::TCryptBuffer<zo::uint8> backup = testsupport::diskKey(fs.get(), CURI(folder), kBackup);
        EXPECT_TRUE(owner == backup) << folder;
    }
}

// Every edit of a key list made without the disk key: the header opens with
// none of the passwords.
TEST(KeySlot, ChangedKeyListIsRefused)
{
    using Keys = std::vector<KeySlot>;
    const std::vector<std::pair<const char*, std::function<void(CBrickDiskHeader&)>>> edits = {
        {"key renamed",
         [](CBrickDiskHeader& h) {
             Keys keys = h.getFurtherKeys();
             keys[0].name = "other";
             h.setFurtherKeys(keys);
         }},
        {"first key renamed", [](CBrickDiskHeader& h) { h.setFirstKeyName("owner"); }},
        {"creation time changed",
         [](CBrickDiskHeader& h) {
             Keys keys = h.getFurtherKeys();
             keys[1].creationTime += 1;
             h.setFurtherKeys(keys);
         }},
        {"first creation time changed", [](CBrickDiskHeader& h) { h.setFirstKeyCreationTime(12345); }},
        {"keys reordered",
         [](CBrickDiskHeader& h) {
             Keys keys = h.getFurtherKeys();
             std::swap(keys[0], keys[1]);
             h.setFurtherKeys(keys);
         }},
        {"key taken out",
         [](CBrickDiskHeader& h) {
             Keys keys = h.getFurtherKeys();
             keys.pop_back();
             h.setFurtherKeys(keys);
         }},
        {"key list cut off", [](CBrickDiskHeader& h) { h.setHasKeyList(false); }},
        {"tag changed",
         [](CBrickDiskHeader& h) {
             zo::TBuffer<zo::uint8> tag = h.getKeyListTag();
             tag[0] ^= 1;
             h.setKeyListTag(tag);
         }},
    };
    for (const auto& [what, edit] : edits) {
        SCOPED_TRACE(what);
        const P<CMemoryFileSystem> fs = makeChain();
        addKey(fs.get(), "backup", kBackup);
        addKey(fs.get(), "laptop", kThird);
        storeEdited(fs.get(), edit);
        EXPECT_TRUE(opensWithNone(fs.get(), kFolders[0]));
        EXPECT_TRUE(opensWith(fs.get(), kFolders[1], kThird));
    }
}

// A key taken from an older header of the chain and put into the list of
// the present one: the list's tag does not cover it.
TEST(KeySlot, RemovedKeyPutBackIsRefused)
{
    const P<CMemoryFileSystem> fs = makeChain();
    addKey(fs.get(), "backup", kBackup);
    addKey(fs.get(), "laptop", kThird);
    const std::vector<KeySlot> old = headerOf(fs.get(), kFolders[0]).getFurtherKeys();
    removeKey(fs.get(), "backup");
    storeEdited(fs.get(), [&](CBrickDiskHeader& h) { h.setFurtherKeys(old); });
    EXPECT_TRUE(opensWithNone(fs.get(), kFolders[0]));
}

TEST(KeySlot, KeyListWithAControlCharacterInANameIsRefusedByName)
{
    const P<CMemoryFileSystem> fs = makeChain();
    addKey(fs.get(), "backup", kBackup);
    storeEdited(fs.get(), [](CBrickDiskHeader& h) { h.setFirstKeyName("bad\nname"); });
    const auto error = testsupport::errorOf<CError>([&] { headerOf(fs.get(), kFolders[0]); });
    ASSERT_TRUE(error);
    EXPECT_EQ(testsupport::messageOf(*error), "Invalid key name: \"bad\nname\" (no control characters).");
}

TEST(KeySlot, KeyListWithTwoKeysOfOneNameIsRefused)
{
    const P<CMemoryFileSystem> fs = makeChain();
    addKey(fs.get(), "backup", kBackup);
    storeEdited(fs.get(), [](CBrickDiskHeader& h) { h.setFirstKeyName("backup"); });
    EXPECT_THROW(headerOf(fs.get(), kFolders[0]), CError);
}

// The key count is checked before any key is read, so that a changed
// count cannot make the reader loop or allocate by it.
TEST(KeySlot, KeyListWithAHugeKeyCountIsRefusedByName)
{
    const P<CMemoryFileSystem> fs = makeChain();
    addKey(fs.get(), "backup", kBackup);
    const CURI folder(kFolders[0]);
    const P<Bytes> payload =
        brick::CBrickDiskAuxFileBase::loadAuxFile(fs.get(), folder, CBrickDiskHeader::getHeaderFilename());
    const std::string bytes(reinterpret_cast<const char*>(payload->getData()), payload->getUsed());
    const size_t mark = bytes.find("BRCKKEYS");
    ASSERT_NE(mark, std::string::npos);
    // The mark, the first key's name "default" (4 + 7 bytes), its time (8).
    const size_t count = mark + 8 + 4 + 7 + 8;
    ASSERT_EQ((*payload)[static_cast<int>(count)], 1);
    for (int i = 0; i < 4; ++i)
        (*payload)[static_cast<int>(count) + i] = i == 3 ? 0x7f : 0xff;
    brick::CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, CBrickDiskHeader::getHeaderFilename(), *payload);
    const auto error = testsupport::errorOf<CError>([&] { headerOf(fs.get(), kFolders[0]); });
    ASSERT_TRUE(error);
    EXPECT_EQ(testsupport::messageOf(*error), "Invalid key count: 2147483648 (from 1 to 32).");
}

TEST(KeySlot, SnapshotMadeAfterAddingAKeyOpensWithEveryKey)
{
    const P<CMemoryFileSystem> fs = makeChain();
    addKey(fs.get(), "backup", kBackup);
    testsupport::createLinkedChild(fs.get(), CURI("/disks/newest"), CURI(kFolders[2]), kBackup);
    EXPECT_TRUE(opensWith(fs.get(), "/disks/newest", kOwner));
    EXPECT_TRUE(opensWith(fs.get(), "/disks/newest", kBackup));
    EXPECT_EQ(keyNames(fs.get(), "/disks/newest"), (std::vector<std::string>{"default", "backup"}));
}

// The keys each disk holds, by name: before and after the change.
using KeyState = std::vector<std::string>;

// Runs `change` on the chain, crashing at every changing operation in turn:
// after each crash every disk holds the keys of `before` or of `after`,
// opens with every password its keys hold (and no other) and reads what it
// held, and running the change again finishes it.
void sweepCrashesOf(const std::function<void(zo::IFileSystem*)>& setUp,
                    const std::function<void(zo::IFileSystem*)>& change, const KeyState& before, const KeyState& after)
{
    const std::vector<std::pair<std::string, const char*>> passwordOf = {
        {"default", kOwner}, {"backup", kBackup}, {"laptop", kThird}};
    int changes = 0;
    {
        const P<CMemoryFileSystem> fs = makeChain();
        setUp(fs.get());
        const P<testsupport::CrashingFileSystem> counting(new testsupport::CrashingFileSystem(fs.get(), -1));
        change(counting.get());
        changes = counting->getChangeCount();
    }
    ASSERT_GT(changes, 0);
    for (int allowed = 0; allowed < changes; ++allowed) {
        SCOPED_TRACE("crash before changing operation " + std::to_string(allowed + 1) + " of " +
                     std::to_string(changes));
        const P<CMemoryFileSystem> fs = makeChain();
        setUp(fs.get());
        const std::vector<Bytes> content = contents(fs.get(), kOwner);
        {
            const P<testsupport::CrashingFileSystem> crashing(new testsupport::CrashingFileSystem(fs.get(), allowed));
            EXPECT_THROW(change(crashing.get()), std::exception);
        }
        std::set<KeyState> seen;
        for (size_t i = 0; i < std::size(kFolders); ++i) {
            const KeyState keys = keyNames(fs.get(), kFolders[i]);
            ASSERT_TRUE(keys == before || keys == after) << kFolders[i];
            seen.insert(keys);
            const char* opening = nullptr;
            for (const auto& [name, password] : passwordOf) {
                const bool held = std::find(keys.begin(), keys.end(), name) != keys.end();
                EXPECT_EQ(opensWith(fs.get(), kFolders[i], password), held) << kFolders[i] << " " << name;
                if (held && !opening)
                    opening = password;
            }
            const Bytes read = testsupport::readWholeDisk(*testsupport::openDisk(fs.get(), CURI(kFolders[i]), opening));
            EXPECT_TRUE(testsupport::sameBytes(read, content[i])) << kFolders[i];
        }
        // Once every disk holds the keys of after, the change is done (a
        // removal asked again then finds no key of that name).
        if (seen.count(before) > 0)
            change(fs.get());
        for (const char* folder : kFolders)
            EXPECT_EQ(keyNames(fs.get(), folder), after) << folder;
        if (::testing::Test::HasFailure())
            return;
    }
}

TEST(KeySlot, FirstAdditionCutShortAtEveryChangeLeavesEveryDiskWithTheKeysOfBeforeOrAfter)
{
    sweepCrashesOf([](zo::IFileSystem*) {}, [](zo::IFileSystem* fs) { addKey(fs, "backup", kBackup); }, {"default"},
                   {"default", "backup"});
}

TEST(KeySlot, AdditionCutShortAtEveryChangeLeavesEveryDiskWithTheKeysOfBeforeOrAfter)
{
    sweepCrashesOf([](zo::IFileSystem* fs) { addKey(fs, "backup", kBackup); },
                   [](zo::IFileSystem* fs) { addKey(fs, "laptop", kThird); }, {"default", "backup"},
                   {"default", "backup", "laptop"});
}

TEST(KeySlot, RemovalCutShortAtEveryChangeLeavesEveryDiskWithTheKeysOfBeforeOrAfter)
{
    sweepCrashesOf(
        [](zo::IFileSystem* fs) {
            addKey(fs, "backup", kBackup);
            addKey(fs, "laptop", kThird);
        },
        [](zo::IFileSystem* fs) { removeKey(fs, "backup"); }, {"default", "backup", "laptop"}, {"default", "laptop"});
}

TEST(KeySlot, RemovalOfTheFirstKeyCutShortAtEveryChangeLeavesEveryDiskWithTheKeysOfBeforeOrAfter)
{
    sweepCrashesOf([](zo::IFileSystem* fs) { addKey(fs, "backup", kBackup); },
                   [](zo::IFileSystem* fs) { removeKey(fs, "default", kBackup); }, {"default", "backup"}, {"backup"});
}

} // namespace
