// Random reads and writes of a disk on the S3 test service against a model
// of its bytes, with and without encryption.
#include "S3TestService.h"
#include "support/BrickDiskModel.h"

namespace {

class S3DiskModelTest : public ::testing::TestWithParam<bool> {
protected:
    void TearDown() override { testsupport::removeS3Folder(folder); }

    zo::CURI folder = testsupport::uniqueS3Folder("model");
};

TEST_P(S3DiskModelTest, RandomReadsAndWritesMatchAModelOfTheBytes)
{
    const zo::P<zo::CS3FileSystem> fs(new zo::CS3FileSystem(testsupport::s3TestOptions(4)));
    testsupport::BrickDiskModel().run(fs.get(), folder << "disk", GetParam() ? "model password" : "", "lz4",
                                      GetParam() ? 17u : 29u);
}

INSTANTIATE_TEST_SUITE_P(PlainAndEncrypted, S3DiskModelTest, ::testing::Bool(),
                         [](const auto& info) { return std::string(info.param ? "Encrypted" : "Plain"); });

} // namespace
