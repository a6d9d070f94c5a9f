// The fixture of the command-line tests: a temporary folder with a password
// file, which also holds the programs' cache folder ("cache", given to them
// as XDG_CACHE_HOME), helpers that make images and disks in it, and helpers
// that look at the files of a disk folder the way a user would.
#pragma once

#include "ProgramRunner.h"
#include "support/TempFolder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace clitest {

class CliTest : public ::testing::Test {
protected:
    static constexpr int kBrickSize = 64 * 1024;
    static constexpr const char* kPassword = "correct horse battery";

    CliTest();

    // A path inside the test's folder.
    std::string path(const std::string& name) const;

    // The arguments that give the password through the password file.
    std::vector<std::string> passwordArgs() const;

    // Runs `brickdisk command args... --password-file <file>`.
    RunResult runWithPassword(std::vector<std::string> args, const RunOptions& options = {}) const;

    // Creates an encrypted disk of `size` with 64 KiB bricks; fails the test
    // when that does not work. The disk's key is derived from the password
    // ("--kdf pbkdf2") unless `extra` holds "--kdf".
    void createDisk(const std::string& name, const std::string& size = "4M",
                    const std::vector<std::string>& extra = {}) const;

    // Options that make a new key (of "create", "key add", "passwd", "copy
    // --rekey") cheap to derive, so that the tests do not spend half a second
    // on every opening.
    static const std::vector<std::string>& cheapKdfArgs();
    // The options of "create" for a key-wrapped disk with such a key.
    static const std::vector<std::string>& cheapKeyWrappedDiskArgs();

    // Runs `brickdisk args...` with `password` in the password variable.
    RunResult withPassword(const std::vector<std::string>& args, const std::string& password) const;
    // True when `password` opens the disk `name` and every brick reads back
    // ("check --read-data" succeeds).
    bool opensWith(const std::string& name, const std::string& password) const;
    // The bytes of the disk `name` as export writes them with `password`;
    // fails the test when the export fails.
    std::string exportWith(const std::string& name, const std::string& password);

    // Imports and exports and asserts success.
    void importImage(const std::string& disk, const std::string& image) const;
    std::string exportImage(const std::string& disk) const;

    // Brick files under a disk folder's "bricks", sorted.
    std::vector<std::string> brickFiles(const std::string& disk) const;

    testsupport::TempFolder m_folder;

private:
    int m_exports = 0;
};

// `size` bytes that look like a disk image: runs of random bytes, of text and
// of zeros, drawn from `seed`.
std::string makeImage(size_t size, unsigned seed);

// Writes and reads whole files.
void writeFile(const std::string& path, const std::string& bytes);
std::string readFile(const std::string& path);

// The number of times `needle` occurs in `text`.
size_t countOf(const std::string& text, const std::string& needle);

} // namespace clitest
