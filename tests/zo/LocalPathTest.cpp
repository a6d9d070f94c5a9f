// The local file system's path resolution that follows no symbolic link, in
// both its forms: openat2 and the component-by-component walk for kernels
// without it. The helpers are internal to the library, so this test is
// built into brickdisk_internal_tests.
#include "zo/detail/LocalPath.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace zo;

using OpenFunction = int (*)(const std::string&, int, mode_t);

// A fresh folder under the system's temporary folder, removed with all it
// holds.
class CScratchFolder {
public:
    CScratchFolder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "brickdisk-path-XXXXXX").string();
        if (!::mkdtemp(pattern.data()))
            throw std::runtime_error("mkdtemp failed");
        m_path = pattern;
    }
    ~CScratchFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    CScratchFolder(const CScratchFolder&) = delete;
    CScratchFolder& operator=(const CScratchFolder&) = delete;
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

int openWithoutLinks(const std::string& path, int flags, mode_t mode)
{
    return openLocalPathWithoutLinks(path, flags, mode);
}

class LocalPathTest : public ::testing::TestWithParam<OpenFunction> {
protected:
    LocalPathTest()
    {
        std::filesystem::create_directories(temp.path() + "/disk/bricks");
        std::filesystem::create_directories(temp.path() + "/outside");
        std::ofstream(temp.path() + "/disk/bricks/00.brick") << "brick";
        std::ofstream(temp.path() + "/outside/victim") << "precious";
        std::filesystem::create_symlink("../outside", temp.path() + "/disk/linked");
        std::filesystem::create_symlink("../outside/victim", temp.path() + "/disk/record");
    }
    // The errno of a failed open, 0 when it opened.
    int errnoOf(const std::string& relative, int flags, mode_t mode = 0) const
    {
        const CFileDescriptor fd(GetParam()(temp.path() + "/" + relative, flags, mode));
        return fd.isOpen() ? 0 : errno;
    }

    CScratchFolder temp;
};

TEST_P(LocalPathTest, OpensFilesAndFoldersWhosePathHoldsNoLink)
{
    EXPECT_EQ(errnoOf("disk/bricks/00.brick", O_RDONLY), 0);
    EXPECT_EQ(errnoOf("disk/bricks", O_RDONLY | O_DIRECTORY), 0);
    EXPECT_EQ(errnoOf("disk//bricks/../bricks/00.brick", O_RDONLY), 0);
    EXPECT_EQ(errnoOf("disk/bricks/new.brick", O_WRONLY | O_CREAT, 0600), 0);
    EXPECT_TRUE(std::filesystem::exists(temp.path() + "/disk/bricks/new.brick"));
    EXPECT_EQ(errnoOf("disk/bricks/missing.brick", O_RDONLY), ENOENT);
}

TEST_P(LocalPathTest, RefusesALinkOnTheWayWithELOOP)
{
    EXPECT_EQ(errnoOf("disk/linked/victim", O_RDONLY), ELOOP);
    EXPECT_EQ(errnoOf("disk/linked/planted", O_WRONLY | O_CREAT, 0600), ELOOP);
    EXPECT_EQ(errnoOf("disk/linked", O_RDONLY | O_DIRECTORY), ELOOP);
    EXPECT_FALSE(std::filesystem::exists(temp.path() + "/outside/planted"));
}

TEST_P(LocalPathTest, RefusesALinkAsTheFileUnlessAskedForTheLinkItself)
{
    EXPECT_EQ(errnoOf("disk/record", O_RDONLY), ELOOP);
    EXPECT_EQ(errnoOf("disk/record", O_WRONLY | O_TRUNC), ELOOP);
    const CFileDescriptor link(GetParam()(temp.path() + "/disk/record", O_PATH | O_NOFOLLOW, 0));
    ASSERT_TRUE(link.isOpen());
    struct stat info {};
    ASSERT_EQ(::fstat(link.get(), &info), 0);
    EXPECT_TRUE(S_ISLNK(info.st_mode));
    std::ifstream victim(temp.path() + "/outside/victim");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(victim), {}), "precious");
}

TEST_P(LocalPathTest, ResolvesRelativePathsAgainstTheWorkingFolder)
{
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(temp.path() + "/disk");
    const CFileDescriptor fd(GetParam()("bricks/00.brick", O_RDONLY, 0));
    const CFileDescriptor refused(GetParam()("linked/victim", O_RDONLY, 0));
    const int refusedErrno = errno;
    std::filesystem::current_path(before);
    EXPECT_TRUE(fd.isOpen());
    EXPECT_FALSE(refused.isOpen());
    EXPECT_EQ(refusedErrno, ELOOP);
}

INSTANTIATE_TEST_SUITE_P(BothWays, LocalPathTest, ::testing::Values(&openWithoutLinks, &openLocalPathStepByStep),
                         [](const ::testing::TestParamInfo<OpenFunction>& info) {
                             return info.index == 0 ? std::string("Openat2") : std::string("StepByStep");
                         });

} // namespace
