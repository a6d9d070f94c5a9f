#include "CliTestFixture.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

namespace clitest {

CliTest::CliTest()
{
    writeFile(path("pw"), std::string(kPassword) + "\n");
    // The program keeps its records (those of copies) in the test's folder,
    // never in the user's own cache folder.
    ::setenv("XDG_CACHE_HOME", path("cache").c_str(), 1);
}

std::string CliTest::path(const std::string& name) const
{
    return m_folder.path() + "/" + name;
}

std::vector<std::string> CliTest::passwordArgs() const
{
    return {"--password-file", path("pw")};
}

RunResult CliTest::runWithPassword(std::vector<std::string> args, const RunOptions& options) const
{
    for (const std::string& arg : passwordArgs())
        args.push_back(arg);
    return run(args, options);
}

const std::vector<std::string>& CliTest::cheapKdfArgs()
{
    static const std::vector<std::string> args{"--kdf-memory", "64K", "--kdf-passes", "1"};
    return args;
}

const std::vector<std::string>& CliTest::cheapKeyWrappedDiskArgs()
{
    static const std::vector<std::string> args{"--kdf", "argon2id", "--kdf-memory", "64K", "--kdf-passes", "1"};
    return args;
}

RunResult CliTest::withPassword(const std::vector<std::string>& args, const std::string& password) const
{
    RunOptions options;
    options.passwordVariable = password;
    return run(args, options);
}

bool CliTest::opensWith(const std::string& name, const std::string& password) const
{
    return withPassword({"check", path(name), "--read-data"}, password).exitStatus == 0;
}

std::string CliTest::exportWith(const std::string& name, const std::string& password)
{
    const std::string out = path("export-" + std::to_string(m_exports++) + ".img");
    const RunResult result = withPassword({"export", path(name), out}, password);
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    return readFile(out);
}

void CliTest::createDisk(const std::string& name, const std::string& size, const std::vector<std::string>& extra) const
{
    std::vector<std::string> args{"create", path(name), "--size", size, "--brick-size", "64K"};
    // Disks in the format with a password-derived key and SHA-256 digests
    // unless a test chooses the key derivation itself.
    if (std::find(extra.begin(), extra.end(), "--kdf") == extra.end())
        args.insert(args.end(), {"--kdf", "pbkdf2"});
    args.insert(args.end(), extra.begin(), extra.end());
    const RunResult result = runWithPassword(args);
    ASSERT_EQ(result.exitStatus, 0) << result.err;
}

void CliTest::importImage(const std::string& disk, const std::string& image) const
{
    const RunResult result = runWithPassword({"import", path(disk), path(image)});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
}

std::string CliTest::exportImage(const std::string& disk) const
{
    const std::string image = path(disk + ".exported");
    std::filesystem::remove(image);
    const RunResult result = runWithPassword({"export", path(disk), image});
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    return readFile(image);
}

std::vector<std::string> CliTest::brickFiles(const std::string& disk) const
{
    std::vector<std::string> files;
    const std::filesystem::path root = path(disk) + "/bricks";
    if (!std::filesystem::exists(root))
        return files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        if (entry.is_regular_file() && entry.path().extension() == ".brick")
            files.push_back(entry.path().string());
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string makeImage(size_t size, unsigned seed)
{
    static const char kWords[] = "the quick brown fox jumps over the lazy dog while bricks are stored ";
    std::mt19937 random(seed);
    std::string image;
    image.reserve(size);
    while (image.size() < size) {
        const size_t run = std::min<size_t>(size - image.size(), 4096 + random() % 60000);
        switch (random() % 3) {
        case 0:
            for (size_t i = 0; i < run; ++i)
                image += static_cast<char>(random());
            break;
        case 1:
            for (size_t i = 0; i < run; ++i)
                image += kWords[(i + seed) % (sizeof kWords - 1)];
            break;
        default:
            image.append(run, '\0');
        }
    }
    return image;
}

void writeFile(const std::string& path, const std::string& bytes)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

size_t countOf(const std::string& text, const std::string& needle)
{
    size_t count = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + needle.size()))
        ++count;
    return count;
}

} // namespace clitest
