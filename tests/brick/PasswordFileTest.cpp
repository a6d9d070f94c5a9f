// Reading a password from a file or a descriptor, as every program of the
// system reads it.
#include "brick/format/PasswordFile.h"

#include "support/TempFolder.h"

#include "zo/Error.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <utility>

#include <unistd.h>

namespace {

using testsupport::TempFolder;

std::string writeFile(const TempFolder& folder, const std::string& name, const std::string& content)
{
    const std::string path = folder.path() + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

TEST(PasswordFile, OneTrailingNewlineIsNotPartOfThePassword)
{
    const TempFolder folder;
    EXPECT_EQ(brick::readPasswordFile(writeFile(folder, "unix", "secret\n")), "secret");
    EXPECT_EQ(brick::readPasswordFile(writeFile(folder, "dos", "secret\r\n")), "secret");
    EXPECT_EQ(brick::readPasswordFile(writeFile(folder, "lines", "line one\nline two\n\n")), "line one\nline two\n");
}

TEST(PasswordFile, UnusableFileIsRefusedNamingIt)
{
    const TempFolder folder;
    const std::string empty = writeFile(folder, "empty", "\n");
    for (const auto& [path, ending] : {std::pair<std::string, std::string>{empty, "' is empty."},
                                       {folder.path(), "' is a folder, not a file."},
                                       {folder.path() + "/missing", "'."}}) {
        try {
            brick::readPasswordFile(path);
            FAIL() << "read a password from " << path;
        } catch (const zo::CError& e) {
            const std::string message = e.getMessage().toUTF8();
            EXPECT_NE(message.find("he password file '" + path + ending), std::string::npos) << message;
            EXPECT_EQ(e.getProps().lookup("passwordFile").toUTF8(), path);
        }
    }
}

TEST(PasswordFile, DescriptorGivesAllItHoldsAndStaysOpen)
{
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const std::string password = "pass\nwith newline\n";
    ASSERT_EQ(::write(ends[1], password.data(), password.size()), static_cast<ssize_t>(password.size()));
    ::close(ends[1]);
    EXPECT_EQ(brick::readPasswordFrom(ends[0], "the pipe"), password);
    EXPECT_EQ(::close(ends[0]), 0);
}

TEST(PasswordFile, EmptyDescriptorHoldsNoPassword)
{
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    ::close(ends[1]);
    try {
        brick::readPasswordFrom(ends[0], "the descriptor password-fd=7");
        FAIL() << "read a password from an empty pipe";
    } catch (const zo::CError& e) {
        EXPECT_EQ(e.getMessage().toUTF8(), "The descriptor password-fd=7 holds no password.");
    }
    ::close(ends[0]);
}

} // namespace
