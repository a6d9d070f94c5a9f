// The control socket of a served disk: a snapshot request reaches the server
// that listens for that disk (and only that one), and the server's answer
// comes back to the client.
#include "brick/serving/ServeControl.h"

#include "support/EnvironmentVariable.h"
#include "support/TempFolder.h"

#include "zo/Error.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace {

using testsupport::CEnvironmentVariable;
using testsupport::TempFolder;

// The user's runtime folder, private to the test.
class ServeControl : public ::testing::Test {
protected:
    TempFolder m_runtime;
    CEnvironmentVariable m_runtimeVariable{"XDG_RUNTIME_DIR", m_runtime.path()};
};

TEST_F(ServeControl, SocketOfADiskLiesInTheRuntimeFolderNamedAfterItsAddress)
{
    const std::string local = brick::getControlSocketPath(zo::CURI("/srv/disks/vm"));
    const std::string s3 = brick::getControlSocketPath(zo::CURI("s3://bucket/disks/vm"));
    const std::string ceph = brick::getControlSocketPath(zo::CURI("rados://pool/disks/vm"));
    for (const std::string& path : {local, s3, ceph})
        EXPECT_EQ(std::filesystem::path(path).parent_path().string(), m_runtime.path()) << path;
    EXPECT_NE(local, s3);
    EXPECT_NE(s3, ceph);
    EXPECT_EQ(s3, brick::getControlSocketPath(zo::CURI("s3://bucket/disks/vm")));
}

TEST_F(ServeControl, EverySpellingOfADiskAddressNamesTheSameSocket)
{
    for (const char* disk : {"s3://bucket/disks/vm", "rados://pool/disks/vm", "/srv/disks/vm"}) {
        const std::string text(disk);
        const std::string socket = brick::getControlSocketPath(zo::CURI(disk));
        for (const std::string& spelling : {text + "/", text + "/.", text.substr(0, text.rfind('/')) + "//vm",
                                            text.substr(0, text.rfind('/')) + "/other/../vm"})
            EXPECT_EQ(brick::getControlSocketPath(zo::CURI(zo::String(spelling))), socket) << spelling;
    }
}

TEST_F(ServeControl, ASnapshotRequestWithAnotherSpellingReachesTheServerOfAStoreDisk)
{
    std::vector<std::string> taken;
    const brick::CSnapshotControl control(zo::CURI("s3://bucket/disks/vm"),
                                          [&](const zo::CURI& folder) { taken.push_back(folder.toLocalPath()); });

    const std::optional<std::string> answer =
        brick::requestSnapshotFromServer(zo::CURI("s3://bucket//disks/vm/"), zo::CURI("s3://bucket/disks/snap"));

    ASSERT_TRUE(answer);
    EXPECT_EQ(*answer, "");
    EXPECT_EQ(taken, std::vector<std::string>{"s3://bucket/disks/snap"});
}

TEST_F(ServeControl, NoServerMeansNoAnswer)
{
    EXPECT_FALSE(brick::requestSnapshotFromServer(zo::CURI("s3://bucket/vm"), zo::CURI("s3://bucket/snap")));
}

TEST_F(ServeControl, ServerOfTheDiskTakesTheSnapshotAskedFor)
{
    std::vector<std::string> taken;
    {
        const brick::CSnapshotControl control(zo::CURI("s3://bucket/vm"),
                                              [&](const zo::CURI& folder) { taken.push_back(folder.toLocalPath()); });
        EXPECT_TRUE(std::filesystem::exists(brick::getControlSocketPath(zo::CURI("s3://bucket/vm"))));
        const std::optional<std::string> answer =
            brick::requestSnapshotFromServer(zo::CURI("s3://bucket/vm"), zo::CURI("s3://bucket/snap"));
        ASSERT_TRUE(answer);
        EXPECT_EQ(*answer, "");
        // Another disk's server is not this one.
        EXPECT_FALSE(brick::requestSnapshotFromServer(zo::CURI("s3://bucket/other"), zo::CURI("s3://bucket/x")));
    }
    EXPECT_EQ(taken, std::vector<std::string>{"s3://bucket/snap"});
    EXPECT_FALSE(std::filesystem::exists(brick::getControlSocketPath(zo::CURI("s3://bucket/vm"))));
}

TEST_F(ServeControl, FailedSnapshotAnswersWithItsMessageOnOneLine)
{
    const brick::CSnapshotControl control(zo::CURI("/srv/disks/vm"), [](const zo::CURI&) {
        throw zo::CError("The snapshot folder is not empty.\nTry another.");
    });
    const std::optional<std::string> answer =
        brick::requestSnapshotFromServer(zo::CURI("/srv/disks/vm"), zo::CURI("/srv/disks/snap"));
    ASSERT_TRUE(answer);
    EXPECT_EQ(*answer, "The snapshot folder is not empty. Try another.");
}

TEST_F(ServeControl, SocketLeftByAKilledServerIsReplaced)
{
    const std::string path = brick::getControlSocketPath(zo::CURI("/srv/disks/vm"));
    {
        const brick::CSnapshotControl first(zo::CURI("/srv/disks/vm"), [](const zo::CURI&) {});
    }
    // A killed server leaves its file behind; a plain file stands in for it.
    std::FILE* left = std::fopen(path.c_str(), "w");
    ASSERT_NE(left, nullptr);
    std::fclose(left);
    bool asked = false;
    const brick::CSnapshotControl second(zo::CURI("/srv/disks/vm"), [&](const zo::CURI&) { asked = true; });
    const std::optional<std::string> answer =
        brick::requestSnapshotFromServer(zo::CURI("/srv/disks/vm"), zo::CURI("/srv/disks/snap"));
    ASSERT_TRUE(answer);
    EXPECT_EQ(*answer, "");
    EXPECT_TRUE(asked);
}

} // namespace
