#include "support/DiskTestHelpers.h"

#include "brick/format/BrickDiskError.h"
#include "brick/format/BrickDiskLink.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace testsupport {

void createDisk(zo::IFileSystem* fs, const zo::CURI& folder, zo::int64 diskSize, const zo::String& password,
                const zo::String& compressorID, int brickSize)
{
    brick::CBrickDisk::create(fs, folder, diskSize, 1, password, compressorID, brickSize);
}

zo::P<brick::CBrickDisk> openDisk(zo::IFileSystem* fs, const zo::CURI& folder, const zo::String& password,
                                  zo::IIOStream::Access access, int maxBackgroundOps)
{
    return zo::P<brick::CBrickDisk>(new brick::CBrickDisk(fs, folder, password, access, maxBackgroundOps));
}

zo::TCryptBuffer<zo::uint8> diskKey(zo::IFileSystem* fs, const zo::CURI& folder, const zo::String& password)
{
    zo::TCryptBuffer<zo::uint8> key;
    EXPECT_TRUE(brick::CBrickDisk::isEncryptPasswordCorrect(fs, folder, password, &key))
        << folder.toString(true).toUTF8();
    return key;
}

void createKeyWrappedDisk(zo::IFileSystem* fs, const zo::CURI& folder, zo::int64 diskSize, const zo::String& password)
{
    brick::CBrickDisk::createAuthenticated(fs, folder, diskSize, 1, password, "lz4", kDiskTestBrickSize, kTestKdfCost);
}

void createKeyWrappedChain(zo::IFileSystem* fs, const std::vector<const char*>& folders, zo::int64 diskSize,
                           const zo::String& password, unsigned seed)
{
    createKeyWrappedDisk(fs, zo::CURI(folders.front()), diskSize, password);
    for (size_t i = 1; i < folders.size(); ++i)
        createLinkedChild(fs, zo::CURI(folders[i]), zo::CURI(folders[i - 1]), password);
    for (size_t i = 0; i < folders.size(); ++i) {
        const zo::P<brick::CBrickDisk> disk = openDisk(fs, zo::CURI(folders[i]), password);
        disk->setAllowWritingWithParentDisk(true);
        writeAt(*disk, static_cast<zo::int64>(i) * kDiskTestBrickSize,
                patternBytes(kDiskTestBrickSize, seed + static_cast<unsigned>(i)));
    }
}

bool opensWith(zo::IFileSystem* fs, const zo::CURI& folder, const zo::String& password)
{
    try {
        openDisk(fs, folder, password, zo::IIOStream::AccessRead);
        return true;
    } catch (const brick::CBrickDiskError& e) {
        if (e.getCode() != brick::CBrickDiskError::IncorrectPassword)
            throw;
        return false;
    }
}

void createLinkedChild(zo::IFileSystem* fs, const zo::CURI& child, const zo::CURI& parent, const zo::String& password)
{
    brick::CBrickDisk::createChild(fs, child, parent, brick::CBrickDisk::linkedChild, diskKey(fs, parent, password));
}

Bytes readAt(brick::CBrickDisk& disk, zo::int64 position, int size)
{
    Bytes bytes(size);
    disk.seek(position);
    disk.read(bytes.getData(), size);
    return bytes;
}

void writeAt(brick::CBrickDisk& disk, zo::int64 position, const Bytes& bytes)
{
    disk.seek(position);
    disk.write(bytes.getData(), bytes.getUsed());
}

Bytes readWholeDisk(brick::CBrickDisk& disk)
{
    return readAt(disk, 0, static_cast<int>(disk.getSize()));
}

Bytes overlay(const Bytes& bytes, zo::int64 offset, const Bytes& part)
{
    Bytes result(bytes);
    if (part.getUsed() > 0)
        std::memcpy(result.getData() + offset, part.getData(), static_cast<size_t>(part.getUsed()));
    return result;
}

zo::CURI brickFileOf(const brick::CBrickDisk& disk, const zo::CURI& folder, zo::int64 index)
{
    const zo::P<brick::CBrick> object = disk.newStandAloneBrickObject();
    object->seek(index, 0);
    return folder << object->getRelativeBrickURI();
}

namespace {

void collectFiles(zo::IFileSystem* fs, const zo::CURI& folder, const std::string& prefix,
                  std::vector<std::string>& files)
{
    for (const zo::String& name : fs->listFolder(folder)) {
        const zo::CURI path = folder << name;
        const std::string relative = prefix + name.toUTF8();
        if (fs->folderExists(path))
            collectFiles(fs, path, relative + "/", files);
        else
            files.push_back(relative);
    }
}

} // namespace

std::vector<std::string> filesBelow(zo::IFileSystem* fs, const zo::CURI& folder)
{
    std::vector<std::string> files;
    collectFiles(fs, folder, "", files);
    std::sort(files.begin(), files.end());
    return files;
}

std::map<std::string, Bytes> fileContentsBelow(zo::CMemoryFileSystem* fs, const zo::CURI& folder)
{
    std::map<std::string, Bytes> contents;
    for (const std::string& file : filesBelow(fs, folder))
        contents[file] = *fs->getFileData(folder << zo::CURI(zo::String(file)));
    return contents;
}

std::string linkTarget(zo::IFileSystem* fs, const zo::CURI& folder, const char* fileName)
{
    brick::CBrickDiskLink link;
    link.load(fs, folder, fileName);
    return link.getTargetURI().toString(true).toUTF8();
}

void writeLink(zo::IFileSystem* fs, const zo::CURI& folder, const char* fileName, const zo::CURI& target)
{
    brick::CBrickDiskLink link;
    link.setTargetURI(target);
    link.store(fs, folder, fileName);
}

std::vector<std::pair<std::string, std::string>> propsOf(const zo::CError& error)
{
    std::vector<std::pair<std::string, std::string>> props;
    for (const auto& [name, value] : error.getProps())
        props.emplace_back(name.toUTF8(), value.toUTF8());
    return props;
}

std::string messageOf(const zo::CError& error)
{
    return error.getMessage().toUTF8();
}

} // namespace testsupport
