// The brickdisk program on disks in the Ceph test cluster: what every object
// store serves, and the errors of a wrong pool and a wrong user's key.
#include "../RadosTestCluster.h"
#include "objectstore/StoreCommandsContract.h"

#include <cstdlib>

namespace {

using clitest::readFile;
using clitest::RunResult;
using clitest::writeFile;

struct CephStore {
    static constexpr const char* kLockLeaseOption = "--ceph-lock-lease";
    static zo::CURI uniqueFolder(const std::string& label) { return testsupport::uniqueRadosFolder(label); }
    static void removeFolder(const zo::CURI& folder) { testsupport::removeRadosFolder(folder); }
    // The program finds the cluster through CEPH_CONF.
    static void prepareEnvironment() {}
};

INSTANTIATE_TYPED_TEST_SUITE_P(Ceph, StoreCommandsContractTest, ::testing::Types<CephStore>);

using CephCommandsTest = StoreCommandsTest<CephStore>;

TEST_F(CephCommandsTest, AMissingPoolIsReportedWithItsName)
{
    const RunResult result = runWithPassword({"create", "rados://no-such-pool/disk", "--size", "1M"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("no-such-pool"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("No such file or directory"), std::string::npos) << result.err;
}

TEST_F(CephCommandsTest, AWrongKeyIsRefusedWithAClearError)
{
    const std::string conf = readFile(std::getenv("CEPH_CONF"));
    writeFile(path("keyring"), "[client.admin]\n\tkey = AQBLAAAAAAAAABAAm8uF6mJZ3PX9vWg0rUbj3A==\n");
    std::string wrongConf = conf;
    const size_t keyring = wrongConf.find("keyring = ");
    ASSERT_NE(keyring, std::string::npos);
    wrongConf.replace(keyring, wrongConf.find('\n', keyring) - keyring, "keyring = " + path("keyring"));
    writeFile(path("ceph.conf"), wrongConf);

    // The key comes from the configuration's keyring only when CEPH_KEYRING
    // names none.
    const std::string keyringVariable = std::getenv("CEPH_KEYRING") ? std::getenv("CEPH_KEYRING") : "";
    ::unsetenv("CEPH_KEYRING");
    const RunResult result = runWithPassword({"--ceph-conf", path("ceph.conf"), "create", disk, "--size", "1M"});
    if (!keyringVariable.empty())
        ::setenv("CEPH_KEYRING", keyringVariable.c_str(), 1);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("connect to the Ceph cluster failed: Permission denied"), std::string::npos)
        << result.err;
}

} // namespace
