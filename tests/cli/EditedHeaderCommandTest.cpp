// Disks whose header was edited by hand, its framing digest made right again
// (anyone can do so to a header that is not authenticated): export, info and
// check end with a message that names the field and its value, and a
// non-zero exit status, instead of dividing by zero, running for hours or
// reading an empty disk.
#include "CliTestFixture.h"

#include "brick/chain/BrickDisk.h"
#include "brick/format/BrickDiskHeader.h"
#include "seal/Digest.h"
#include "zo/LocalFileSystem.h"

#include <functional>
#include <string>
#include <vector>

namespace {

using clitest::RunResult;

class EditedHeaderCommandTest : public clitest::CliTest {
protected:
    // Loads the header of disk `name`, lets `edit` change it and stores it
    // again, both copies with their digests.
    void editHeader(const std::string& name, const std::function<void(brick::CBrickDiskHeader&)>& edit) const
    {
        const zo::P<zo::CLocalFileSystem> fs(new zo::CLocalFileSystem());
        const zo::CURI folder(path(name));
        brick::CBrickDiskHeader header;
        header.load(fs.get(), folder);
        edit(header);
        header.store(fs.get(), folder);
    }

    // Makes an unencrypted disk of 1 MiB with 64 KiB bricks.
    void createUnencryptedDisk(const std::string& name) const
    {
        const RunResult created =
            clitest::run({"create", path(name), "--size", "1M", "--brick-size", "64K", "--no-encryption"});
        ASSERT_EQ(created.exitStatus, 0) << created.err;
    }

    // Runs export, info and check on the disk and expects each to fail
    // with `message` on stderr.
    void expectEveryCommandFails(const std::string& name, const std::string& message) const
    {
        const std::vector<std::vector<std::string>> commands{
            {"export", path(name), path("image")}, {"info", path(name)}, {"check", path(name)}};
        for (const std::vector<std::string>& command : commands) {
            SCOPED_TRACE(command[0]);
            clitest::RunOptions options;
            options.passwordVariable = kPassword;
            const RunResult result = clitest::run(command, options);
            EXPECT_EQ(result.exitStatus, 1) << result.err;
            EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
        }
    }
};

TEST_F(EditedHeaderCommandTest, BrickSizeZeroIsNamedByEveryCommand)
{
    createDisk("disk", "1M");
    editHeader("disk", [](brick::CBrickDiskHeader& h) { h.setBrickSize(0); });
    expectEveryCommandFails("disk", "Invalid brick size: 0 (");
}

TEST_F(EditedHeaderCommandTest, BrickSizeOfAGibibyteIsNamedByEveryCommand)
{
    createUnencryptedDisk("disk");
    editHeader("disk", [](brick::CBrickDiskHeader& h) { h.setBrickSize(1 << 30); });
    expectEveryCommandFails("disk", "Invalid brick size: 1073741824 (");
}

TEST_F(EditedHeaderCommandTest, DiskSizesOfZeroMinusOneAndTwoToThe62AreNamedByEveryCommand)
{
    for (const zo::int64 size : {zo::int64(0), zo::int64(-1), zo::int64(1) << 62}) {
        SCOPED_TRACE(size);
        const std::string disk = "disk" + std::to_string(size);
        createUnencryptedDisk(disk);
        editHeader(disk, [size](brick::CBrickDiskHeader& h) { h.setDiskSize(size); });
        expectEveryCommandFails(disk, "Invalid disk size: " + std::to_string(size) + " (");
    }
}

TEST_F(EditedHeaderCommandTest, LargestIterationCountIsNamedByEveryCommand)
{
    createDisk("disk", "1M");
    editHeader("disk", [](brick::CBrickDiskHeader& h) { h.setCipherKeyDerivationIterations(2147483647); });
    expectEveryCommandFails("disk", "Invalid key derivation iteration count: 2147483647 (");
}

TEST_F(EditedHeaderCommandTest, CompressorIDWithANegativeLevelIsNamedByEveryCommand)
{
    createUnencryptedDisk("disk");
    editHeader("disk", [](brick::CBrickDiskHeader& h) { h.setCompressID("zlib--1"); });
    expectEveryCommandFails("disk", "Invalid compressor ID: \"zlib--1\" (");
}

// A cost within the format's limits but above the allowed one: refused
// unless --allow-expensive-kdf, then the disk exports as it is.
TEST_F(EditedHeaderCommandTest, CostlyKeyDerivationNeedsAllowExpensiveKdf)
{
    createDisk("disk", "1M");
    // The key for 1000001 iterations, so that the password still opens the
    // disk (which holds no brick yet).
    editHeader("disk", [](brick::CBrickDiskHeader& h) {
        h.setCipherKeyDerivationIterations(1000001);
        zo::TCryptBuffer<zo::uint8> key;
        brick::CBrickDisk::deriveCipherKey(key, kPassword, h);
        const zo::P<seal::IDigestContext> digest = seal::CDigestManager().getType(h.getCryptoHashID())->createContext();
        digest->update(key.getData(), key.getUsed());
        digest->finish();
        h.setCipherKeyHash(zo::TBuffer<zo::uint8>(digest->getDigest(), digest->getSize()));
    });

    const RunResult refused = runWithPassword({"export", path("disk"), path("refused")});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_NE(refused.err.find("The key derivation of the disk costs more than allowed."), std::string::npos)
        << refused.err;

    const RunResult allowed = runWithPassword({"export", path("disk"), path("allowed"), "--allow-expensive-kdf"});
    ASSERT_EQ(allowed.exitStatus, 0) << allowed.err;
    EXPECT_EQ(clitest::readFile(path("allowed")), std::string(1024 * 1024, '\0'));
}

} // namespace
