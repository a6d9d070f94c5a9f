// What is particular to S3 services: listings longer than one answer, the
// errors of a missing bucket and of wrong keys, and stores that must not
// replace an object with and without conditional PUTs.
#include "S3TestService.h"

#include "zo/BufferStream.h"
#include "zo/Signal.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

using namespace zo;

namespace {

// Keeps the outcome of one operation.
class COutcome : public CBase, public IDoneListener {
public:
    void onDone(const CError* error) override
    {
        {
            std::lock_guard lock(m_mutex);
            m_error = error ? error->clone() : P<CError>();
        }
        m_done.set();
    }
    // Waits for the outcome and throws its error.
    void check()
    {
        m_done.wait(-1);
        std::lock_guard lock(m_mutex);
        if (m_error)
            m_error->throwClone();
    }

private:
    std::mutex m_mutex;
    P<CError> m_error;
    CSignal m_done;
};

P<COutcome> beginStore(IFileSystem& fs, const CURI& file, const std::string& content, bool overwrite)
{
    P<CBufferStream> source(new CBufferStream(nullptr, 2.0));
    source->write(content.data(), static_cast<int>(content.size()));
    source->seek(0);
    P<COutcome> outcome(new COutcome());
    fs.beginStoreFile(file, static_cast<int>(content.size()), source.get(), overwrite, outcome.get());
    return outcome;
}

std::string readAll(IFileSystem& fs, const CURI& file)
{
    const P<IIOStream> stream = fs.openStream(file, IIOStream::AccessRead, IIOStream::OptionNone);
    std::string bytes(static_cast<size_t>(stream->getSize()), '\0');
    if (!bytes.empty())
        bytes.resize(static_cast<size_t>(stream->readLax(bytes.data(), static_cast<int>(bytes.size()))));
    return bytes;
}

class S3ServiceTest : public ::testing::Test {
protected:
    void TearDown() override { testsupport::removeS3Folder(folder); }

    P<CS3FileSystem> makeFileSystem(const S3Options& options) { return P<CS3FileSystem>(new CS3FileSystem(options)); }

    // Stores `count` small files "f<n>" in `folder`, all at once.
    void storeFiles(IFileSystem& fs, int count)
    {
        std::vector<P<COutcome>> outcomes;
        for (int i = 0; i < count; ++i)
            outcomes.push_back(
                beginStore(fs, folder << String::fromUTF8("f" + std::to_string(i)), "file " + std::to_string(i), true));
        for (const P<COutcome>& outcome : outcomes)
            outcome->check();
    }

    // The problem of the error that `call` throws, -1 when it throws none.
    template <class Call>
    static int problemOf(Call call)
    {
        try {
            call();
        } catch (const CError& e) {
            return CFileSystemError::getProblem(e.getProps());
        }
        return -1;
    }

    CURI folder = testsupport::uniqueS3Folder("service");
};

TEST_F(S3ServiceTest, ListingMoreThanOneAnswerHoldsFollowsTheContinuation)
{
    S3Options options = testsupport::s3TestOptions(8);
    const P<CS3FileSystem> fs = makeFileSystem(options);
    fs->createFolder(folder, 0x1ff);
    storeFiles(*fs, 1100);
    EXPECT_EQ(fs->listFolder(folder).size(), 1100u);

    options.listPageSize = 7;
    EXPECT_EQ(makeFileSystem(options)->listFolder(folder).size(), 1100u);
}

TEST_F(S3ServiceTest, VirtualHostAddressingPutsTheBucketInTheHostNameAndReachesTheSameObjects)
{
    // The test service answers BUCKET.localhost (curl resolves any
    // *.localhost to this machine).
    S3Options options = testsupport::s3TestOptions();
    const size_t host = options.endpoint.find("127.0.0.1");
    ASSERT_NE(host, std::string::npos) << options.endpoint;
    options.endpoint.replace(host, std::string("127.0.0.1").size(), "localhost");
    options.virtualHostStyle = true;
    const P<CS3FileSystem> virtualHost = makeFileSystem(options);
    const P<CS3FileSystem> pathStyle = makeFileSystem(testsupport::s3TestOptions());

    virtualHost->createFolder(folder, 0);
    beginStore(*virtualHost, folder << String::fromUTF8("a b+c"), "by the host name", false)->check();
    EXPECT_EQ(readAll(*pathStyle, folder << String::fromUTF8("a b+c")), "by the host name");
    beginStore(*pathStyle, folder << String::fromUTF8("second"), "by the path", false)->check();
    // Another program, as the first one remembers its folder's files.
    const P<CS3FileSystem> otherVirtualHost = makeFileSystem(options);
    EXPECT_EQ(readAll(*otherVirtualHost, folder << String::fromUTF8("second")), "by the path");
    const TList<String> names = otherVirtualHost->listFolder(folder);
    std::vector<std::string> listed;
    for (const String& name : names)
        listed.push_back(name.toUTF8());
    EXPECT_EQ(listed, (std::vector<std::string>{"a b+c", "second"}));
}

TEST_F(S3ServiceTest, AMissingBucketIsNamedAsSuch)
{
    const P<CS3FileSystem> fs = makeFileSystem(testsupport::s3TestOptions());
    try {
        fs->fileExists(CURI("s3://brickdisk-no-such-bucket/disk/disk.brickdisk"));
        FAIL() << "no error";
    } catch (const CFileSystemError& e) {
        EXPECT_EQ(e.getProblem(), CFileSystemError::NotFound);
        EXPECT_EQ(e.getMessage().toUTF8(), "The bucket does not exist.");
        EXPECT_EQ(e.getProps().lookup("bucket").toUTF8(), "brickdisk-no-such-bucket");
    }
}

TEST_F(S3ServiceTest, WrongKeysAreRefusedAsSuch)
{
    S3Options options = testsupport::s3TestOptions();
    options.secretAccessKey = "not the secret";
    try {
        makeFileSystem(options)->folderExists(folder);
        FAIL() << "no error";
    } catch (const CFileSystemError& e) {
        EXPECT_EQ(e.getProblem(), CFileSystemError::AccessDenied);
        EXPECT_NE(e.getMessage().toUTF8().find("refused the credentials"), std::string::npos)
            << e.getMessage().toUTF8();
        EXPECT_EQ(e.getProps().lookup("httpStatus").toUTF8(), "403");
    }
}

TEST_F(S3ServiceTest, StoreWithoutOverwriteKeepsTheObjectWithAndWithoutConditionalPuts)
{
    for (const bool conditional : {true, false}) {
        S3Options options = testsupport::s3TestOptions();
        options.conditionalWrites = conditional;
        const P<CS3FileSystem> fs = makeFileSystem(options);
        const CURI sub = folder << (conditional ? "conditional" : "checked");
        fs->createFolder(sub, 0x1ff);
        const auto store = [&](const std::string& content, bool overwrite) {
            beginStore(*fs, sub << "f", content, overwrite)->check();
        };
        store("first", false);
        EXPECT_EQ(problemOf([&] { store("second", false); }), CFileSystemError::AlreadyExists);
        EXPECT_EQ(fs->getFileInfo(sub << "f", true)->getSize(), 5);
        store("replaced", true);
        EXPECT_EQ(fs->getFileInfo(sub << "f", true)->getSize(), 8);
    }
}

TEST_F(S3ServiceTest, AServiceThatDoesNotAnswerGivesAnErrorAfterTheRetries)
{
    S3Options options = testsupport::s3TestOptions();
    options.endpoint = "http://127.0.0.1:9"; // the discard port: nothing listens
    options.maxAttempts = 3;
    options.firstRetryDelayMs = 10;
    try {
        makeFileSystem(options)->folderExists(folder);
        FAIL() << "no error";
    } catch (const CFileSystemError& e) {
        EXPECT_EQ(e.getMessage().toUTF8(), "The S3 service did not answer.");
        EXPECT_EQ(e.getProps().lookup("attempts").toUTF8(), "3");
        EXPECT_FALSE(e.getProps().lookup("transportError").isEmpty());
    }
}

} // namespace
