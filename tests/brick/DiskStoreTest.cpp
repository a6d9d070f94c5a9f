// Opening the store of a disk from the disk's name: a local folder, a folder
// in a Ceph pool (rados://) or in an S3 bucket (s3://), with the settings the
// caller gives passed on to the file system.
#include "brick/chain/DiskStore.h"

#include "support/EnvironmentVariable.h"

#include "zo/Error.h"
#include "zo/LocalFileSystem.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using brick::StoreKind;
using testsupport::CEnvironmentVariable;

// S3 keys in the environment, as S3 tools find them; nothing is contacted.
class DiskStoreS3 : public ::testing::Test {
protected:
    CEnvironmentVariable m_key{"AWS_ACCESS_KEY_ID", "DISKSTORETESTKEY"};
    CEnvironmentVariable m_secret{"AWS_SECRET_ACCESS_KEY", "diskstoretestsecret"};
    CEnvironmentVariable m_endpoint{"AWS_ENDPOINT_URL", "http://127.0.0.1:1"};
};

TEST(DiskStore, KindFollowsTheSchemeOfTheName)
{
    EXPECT_EQ(brick::getStoreKind("rados://pool/disks/vm"), StoreKind::Ceph);
    EXPECT_EQ(brick::getStoreKind("s3://bucket/disks/vm"), StoreKind::S3);
    EXPECT_EQ(brick::getStoreKind("/srv/disks/vm"), StoreKind::LocalFolder);
    EXPECT_EQ(brick::getStoreKind("./s3:/bucket"), StoreKind::LocalFolder);
    EXPECT_EQ(brick::getStoreKind("relative/rados://pool"), StoreKind::LocalFolder);
}

TEST(DiskStore, SameStoreMeansTheSameKindOfStore)
{
    EXPECT_TRUE(brick::isSameStore(zo::CURI("s3://a/disk"), zo::CURI("s3://b/child")));
    EXPECT_TRUE(brick::isSameStore(zo::CURI("/srv/disk"), zo::CURI("/tmp/child")));
    EXPECT_FALSE(brick::isSameStore(zo::CURI("rados://pool/disk"), zo::CURI("s3://pool/disk")));
    EXPECT_FALSE(brick::isSameStore(zo::CURI("/srv/disk"), zo::CURI("rados://pool/disk")));
}

TEST(DiskStore, LocalFolderOpensTheLocalFileSystemWithSyncAsAsked)
{
    for (const bool sync : {true, false}) {
        const zo::P<zo::IFileSystem> fs = brick::openStore(zo::CURI("/srv/disks/vm"), brick::StoreSettings(), sync, 2);
        const auto* local = dynamic_cast<zo::CLocalFileSystem*>(fs.get());
        ASSERT_NE(local, nullptr);
        EXPECT_EQ(local->isSyncEnabled(), sync);
    }
}

TEST(DiskStore, UnknownSchemeIsRefusedNamingTheLocalFolderSpelling)
{
    for (const std::string name : {"s3:/bucket/disk", "S3://bucket/disk", "file:///srv/disk", "rados:/pool/disk"}) {
        SCOPED_TRACE(name);
        try {
            brick::openStore(zo::CURI(zo::String(name)), brick::StoreSettings(), true, 1);
            FAIL() << "opened a store of an unknown scheme";
        } catch (const zo::CError& e) {
            const std::string message = e.getMessage().toUTF8();
            const std::string scheme = name.substr(0, name.find(':') + 1);
            EXPECT_EQ(message.rfind("Unknown storage scheme \"" + scheme + "\" in " + name + ":", 0), 0u) << message;
            EXPECT_NE(message.find("a local folder of that name is given as ./" + name + "."), std::string::npos)
                << message;
            EXPECT_EQ(e.getProps().lookup("scheme").toUTF8(), scheme);
            EXPECT_EQ(e.getProps().lookup("diskFolder").toUTF8(), name);
        }
    }
}

TEST(DiskStore, FoldersWithoutASchemePassTheSchemeCheck)
{
    for (const std::string name : {"/srv/disks/vm", "disks/vm", "./s3:/bucket", "1a:/x", "disk:name"})
        EXPECT_NO_THROW(brick::checkStoreScheme(name)) << name;
}

#ifdef BRICKDISK_HAVE_RADOS
TEST(DiskStore, CephSettingsReachTheRadosOptions)
{
    brick::CephClusterSettings settings;
    settings.configFile = "/etc/ceph/test.conf";
    settings.clientId = "brickdisk";
    settings.lockLeaseSeconds = 7;
    settings.operationTimeoutSeconds = 11;
    const zo::RadosOptions options = brick::makeRadosOptions(settings, 5);
    EXPECT_EQ(options.configFile.toUTF8(), "/etc/ceph/test.conf");
    EXPECT_EQ(options.clientId.toUTF8(), "brickdisk");
    EXPECT_EQ(options.lockLeaseSeconds, 7);
    EXPECT_EQ(options.operationTimeoutSeconds, 11);
    EXPECT_EQ(options.threadCount, 5);
}
#endif

#ifdef BRICKDISK_HAVE_S3
TEST_F(DiskStoreS3, S3FolderOpensTheS3FileSystem)
{
    const zo::P<zo::IFileSystem> fs =
        brick::openStore(zo::CURI("s3://bucket/disks/vm"), brick::StoreSettings(), true, 1);
    EXPECT_NE(dynamic_cast<zo::CS3FileSystem*>(fs.get()), nullptr);
}

TEST_F(DiskStoreS3, S3SettingsReachTheS3Options)
{
    brick::S3ServiceSettings settings;
    settings.endpoint = "http://s3.example:9000";
    settings.virtualHost = true;
    settings.noConditionalPut = true;
    settings.lockLeaseSeconds = 9;
    settings.attempts = 3;
    const zo::S3Options options = brick::makeS3Options(settings, 12);
    EXPECT_EQ(options.endpoint, "http://s3.example:9000");
    EXPECT_TRUE(options.virtualHostStyle);
    EXPECT_FALSE(options.conditionalWrites);
    EXPECT_EQ(options.lockLeaseSeconds, 9);
    EXPECT_EQ(options.maxAttempts, 3);
    EXPECT_EQ(options.threadCount, 12);
    EXPECT_EQ(options.accessKeyId, "DISKSTORETESTKEY");
}

TEST_F(DiskStoreS3, S3DefaultsKeepTheEnvironmentsEndpointAndEnoughThreads)
{
    const zo::S3Options options = brick::makeS3Options(brick::S3ServiceSettings(), 1);
    EXPECT_EQ(options.endpoint, "http://127.0.0.1:1");
    EXPECT_FALSE(options.virtualHostStyle);
    EXPECT_TRUE(options.conditionalWrites);
    EXPECT_EQ(options.lockLeaseSeconds, 30);
    EXPECT_EQ(options.maxAttempts, 8);
    EXPECT_EQ(options.threadCount, 8);
}
#endif

} // namespace
