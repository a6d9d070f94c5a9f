// brickdisk key list, add and remove, and passwd --name, on a disk with a
// snapshot: every disk of the chain follows.
#include "CliTestFixture.h"

#include <gtest/gtest.h>

#include <random>

namespace clitest {
namespace {

constexpr const char* kBackupPassword = "backup agent secret";
constexpr const char* kThirdPassword = "a third secret";

class KeyCommandTest : public CliTest {
protected:
    void SetUp() override
    {
        writeFile(path("backup-password"), kBackupPassword);
        writeFile(path("third-password"), kThirdPassword);
        std::string image(3 * kBrickSize, '\0');
        std::mt19937 random(7);
        for (char& c : image)
            c = static_cast<char>(random() % 255 + 1);
        writeFile(path("image"), image);
    }
    // A disk holding the image and a snapshot of it that holds one changed
    // brick of its own.
    void makeChain()
    {
        createDisk("disk", "1M", cheapKeyWrappedDiskArgs());
        importImage("disk", "image");
        ASSERT_EQ(runWithPassword({"snapshot", path("disk"), path("snap")}).exitStatus, 0);
        std::string changed = readFile(path("image"));
        changed.replace(kBrickSize, kBrickSize, std::string(kBrickSize, 'x'));
        writeFile(path("changed"), changed);
        ASSERT_EQ(runWithPassword({"import", path("snap"), path("changed"), "--allow-parent"}).exitStatus, 0);
    }
    RunResult addKey(const std::string& name, const std::string& newPasswordFile = "backup-password")
    {
        std::vector<std::string> args{
            "key", "add", path("disk"), "--name", name, "--new-password-file", path(newPasswordFile)};
        args.insert(args.end(), cheapKdfArgs().begin(), cheapKdfArgs().end());
        return runWithPassword(args);
    }
};

TEST_F(KeyCommandTest, AddedKeyOpensEveryDiskOfTheChain)
{
    makeChain();
    const std::string disk = exportWith("disk", kPassword);
    const std::string snap = exportWith("snap", kPassword);
    const RunResult added = addKey("backup");
    ASSERT_EQ(added.exitStatus, 0) << added.err;
    EXPECT_NE(added.out.find("added the key 'backup' to 2 disks"), std::string::npos) << added.out;
    EXPECT_EQ(exportWith("disk", kBackupPassword), disk);
    EXPECT_EQ(exportWith("snap", kBackupPassword), snap);
    EXPECT_EQ(exportWith("snap", kPassword), snap);
    EXPECT_FALSE(opensWith("snap", kThirdPassword));
}

TEST_F(KeyCommandTest, ListNamesEveryKeyInOrderAsTextAndJson)
{
    makeChain();
    ASSERT_EQ(addKey("backup").exitStatus, 0);
    const RunResult text = run({"key", "list", path("snap")});
    ASSERT_EQ(text.exitStatus, 0) << text.err;
    EXPECT_NE(text.out.find("2 keys of"), std::string::npos) << text.out;
    const size_t first = text.out.find("default ");
    const size_t second = text.out.find("backup ");
    ASSERT_NE(first, std::string::npos) << text.out;
    ASSERT_NE(second, std::string::npos) << text.out;
    EXPECT_LT(first, second);
    EXPECT_NE(text.out.find("1 pass over 64.0 KiB"), std::string::npos) << text.out;

    const RunResult json = run({"key", "list", path("disk"), "--json"});
    ASSERT_EQ(json.exitStatus, 0) << json.err;
    EXPECT_NE(json.out.find("\"name\": \"default\""), std::string::npos) << json.out;
    EXPECT_NE(json.out.find("\"name\": \"backup\""), std::string::npos) << json.out;
    EXPECT_EQ(countOf(json.out, "\"kdfPasses\": 1"), 2u) << json.out;
    EXPECT_EQ(countOf(json.out, "\"created\": \"20"), 2u) << json.out;
}

TEST_F(KeyCommandTest, RemovedKeyNoLongerOpensAnyDisk)
{
    makeChain();
    ASSERT_EQ(addKey("backup").exitStatus, 0);
    const RunResult removed = runWithPassword({"key", "remove", path("snap"), "--name", "backup"});
    ASSERT_EQ(removed.exitStatus, 0) << removed.err;
    EXPECT_NE(removed.out.find("removed the key 'backup' from 2 disks"), std::string::npos) << removed.out;
    EXPECT_FALSE(opensWith("disk", kBackupPassword));
    EXPECT_FALSE(opensWith("snap", kBackupPassword));
    EXPECT_TRUE(opensWith("disk", kPassword));
    EXPECT_TRUE(opensWith("snap", kPassword));
    EXPECT_EQ(countOf(run({"key", "list", path("disk")}).out, "created"), 1u);
}

TEST_F(KeyCommandTest, LastKeyIsRefusedWithAClearMessage)
{
    makeChain();
    const RunResult result = runWithPassword({"key", "remove", path("disk"), "--name", "default"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("The key is the disk's last one: add another key before removing it."), std::string::npos)
        << result.err;
    EXPECT_TRUE(opensWith("snap", kPassword));
}

TEST_F(KeyCommandTest, KeyIsRemovedOnlyWithThePasswordOfAKeyThatStays)
{
    makeChain();
    ASSERT_EQ(addKey("backup").exitStatus, 0);
    const RunResult own = withPassword({"key", "remove", path("disk"), "--name", "backup"}, kBackupPassword);
    EXPECT_EQ(own.exitStatus, 1);
    EXPECT_NE(own.err.find("give the password of a key that stays"), std::string::npos) << own.err;
    EXPECT_TRUE(opensWith("snap", kBackupPassword));
    // The other way round it works: the backup key removes the first one.
    const RunResult other = withPassword({"key", "remove", path("disk"), "--name", "default"}, kBackupPassword);
    ASSERT_EQ(other.exitStatus, 0) << other.err;
    EXPECT_FALSE(opensWith("snap", kPassword));
    EXPECT_TRUE(opensWith("snap", kBackupPassword));
}

TEST_F(KeyCommandTest, TakenAndBadNamesAreRefused)
{
    makeChain();
    ASSERT_EQ(addKey("backup").exitStatus, 0);
    const RunResult taken = addKey("backup", "third-password");
    EXPECT_EQ(taken.exitStatus, 1);
    EXPECT_NE(taken.err.find("The disk has a key of that name already."), std::string::npos) << taken.err;
    EXPECT_FALSE(opensWith("disk", kThirdPassword));
    const RunResult empty = addKey("", "third-password");
    EXPECT_EQ(empty.exitStatus, 2);
    EXPECT_NE(empty.err.find("--name must be"), std::string::npos) << empty.err;
    const RunResult unknown = runWithPassword({"key", "remove", path("disk"), "--name", "nobody"});
    EXPECT_EQ(unknown.exitStatus, 1);
    EXPECT_NE(unknown.err.find("The disk has no key of that name."), std::string::npos) << unknown.err;
}

TEST_F(KeyCommandTest, AddingNeedsThePasswordOfAKey)
{
    makeChain();
    RunOptions wrong;
    wrong.passwordVariable = "not a key";
    std::vector<std::string> args{
        "key", "add", path("disk"), "--name", "backup", "--new-password-file", path("backup-password")};
    args.insert(args.end(), cheapKdfArgs().begin(), cheapKdfArgs().end());
    const RunResult result = run(args, wrong);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_FALSE(opensWith("disk", kBackupPassword));
}

TEST_F(KeyCommandTest, NewKeyIsAskedTwiceOnTheTerminal)
{
    makeChain();
    std::vector<std::string> args{"key", "add", path("disk"), "--name", "laptop"};
    args.insert(args.end(), cheapKdfArgs().begin(), cheapKdfArgs().end());
    const std::vector<std::string> password = passwordArgs();
    args.insert(args.end(), password.begin(), password.end());
    const RunResult result = runOnTerminal(args, {{"New password", "typed key\n"}, {"again", "typed key\n"}});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.err.find("typed key"), std::string::npos) << result.err;
    EXPECT_TRUE(opensWith("snap", "typed key"));
}

TEST_F(KeyCommandTest, PasswdWithANameChangesThatKeyOnly)
{
    makeChain();
    ASSERT_EQ(addKey("backup").exitStatus, 0);
    std::vector<std::string> args{"passwd", path("snap"),          "--name",
                                  "backup", "--new-password-file", path("third-password")};
    args.insert(args.end(), cheapKdfArgs().begin(), cheapKdfArgs().end());
    const RunResult changed = runWithPassword(args);
    ASSERT_EQ(changed.exitStatus, 0) << changed.err;
    EXPECT_NE(changed.out.find("changed the password of key 'backup' of 2 disks"), std::string::npos) << changed.out;
    for (const char* disk : {"disk", "snap"}) {
        EXPECT_TRUE(opensWith(disk, kPassword)) << disk;
        EXPECT_TRUE(opensWith(disk, kThirdPassword)) << disk;
        EXPECT_FALSE(opensWith(disk, kBackupPassword)) << disk;
    }
}

TEST_F(KeyCommandTest, PasswdWithoutANameChangesTheKeyTheOldPasswordOpens)
{
    makeChain();
    ASSERT_EQ(addKey("backup").exitStatus, 0);
    std::vector<std::string> args{"passwd", path("disk"), "--new-password-file", path("third-password")};
    args.insert(args.end(), cheapKdfArgs().begin(), cheapKdfArgs().end());
    const RunResult changed = withPassword(args, kBackupPassword);
    ASSERT_EQ(changed.exitStatus, 0) << changed.err;
    EXPECT_TRUE(opensWith("snap", kPassword));
    EXPECT_TRUE(opensWith("snap", kThirdPassword));
    EXPECT_FALSE(opensWith("snap", kBackupPassword));
    EXPECT_EQ(countOf(run({"key", "list", path("disk")}).out, "created"), 2u);
}

TEST_F(KeyCommandTest, DiskOfDerivedKeyHasNoKeysToChange)
{
    createDisk("old", "1M");
    const RunResult listed = run({"key", "list", path("old")});
    EXPECT_EQ(listed.exitStatus, 1);
    EXPECT_NE(listed.err.find("The keys of this disk cannot change"), std::string::npos) << listed.err;
}

} // namespace
} // namespace clitest
