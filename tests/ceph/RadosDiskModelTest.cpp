// Random reads and writes of a disk on the Ceph test cluster against a model
// of its bytes, with and without encryption.
#include "RadosTestCluster.h"
#include "support/BrickDiskModel.h"

namespace {

class RadosDiskModelTest : public ::testing::TestWithParam<bool> {
protected:
    void TearDown() override { testsupport::removeRadosFolder(folder); }

    zo::CURI folder = testsupport::uniqueRadosFolder("model");
};

TEST_P(RadosDiskModelTest, RandomReadsAndWritesMatchAModelOfTheBytes)
{
    const zo::P<zo::CRadosFileSystem> fs(new zo::CRadosFileSystem(testsupport::cephTestOptions(4)));
    testsupport::BrickDiskModel().run(fs.get(), folder << "disk", GetParam() ? "model password" : "", "lz4",
                                      GetParam() ? 17u : 29u);
}

INSTANTIATE_TEST_SUITE_P(PlainAndEncrypted, RadosDiskModelTest, ::testing::Bool(),
                         [](const auto& info) { return std::string(info.param ? "Encrypted" : "Plain"); });

} // namespace
