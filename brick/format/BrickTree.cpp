#include "brick/format/BrickTree.h"

#include "zo/FileSystemQueries.h"
#include "zo/String.h"

#include <algorithm>
#include <future>
#include <vector>

namespace brick {

namespace {

constexpr char kRootFolder[] = "bricks";
constexpr char kBrickSuffix[] = ".brick";
constexpr char kTemporaryPrefix[] = ".tmp-";

// Number of hexadecimal digits of `objectsPerTreeLevel` itself, the minimum
// width of every name part of the brick tree.
int hexDigitWidthFor(int objectsPerTreeLevel)
{
    int width = 1;
    for (int q = objectsPerTreeLevel / 16; q != 0; q >>= 4)
        ++width;
    return width;
}

bool isTemporaryName(const std::string& name)
{
    return name.rfind(kTemporaryPrefix, 0) == 0;
}

// A folder of the tree still to list: its path, its level (the file level
// is 0) and the index so far, counted in units of the entries at its level.
struct TreeFolder {
    zo::CURI path;
    int level;
    zo::int64 prefix;
};

// What the listing of one folder of the tree found.
struct FolderFound {
    std::vector<TreeFolder> folders;
    CBrickTree::Listing listing;
};

// Lists one folder of the tree. One listing with the kinds and sizes (over
// an object store one request, not one per entry); an entry removed
// meanwhile, as a finished store's temporary file is, is left out.
FolderFound listTreeFolder(zo::IFileSystem* fs, const CBrickDiskHeader& header, const TreeFolder& folder)
{
    FolderFound found;
    for (const zo::FolderEntry& entry : zo::listFolderWithInfo(fs, folder.path)) {
        const std::string name = entry.name.toUTF8();
        const zo::CURI path = folder.path << entry.name;
        const int digit = CBrickTree::parseEntryName(header, folder.level, name);
        const zo::int64 index = folder.prefix * header.getObjectsPerTreeLevel() + digit;
        if (isTemporaryName(name) && !entry.isFolder)
            found.listing.temporaryFiles.push_back(path);
        else if (digit < 0 || entry.isFolder != (folder.level > 0))
            found.listing.unexpectedEntries.push_back(path);
        else if (folder.level > 0)
            found.folders.push_back(TreeFolder{path, folder.level - 1, index});
        else
            found.listing.bricks.push_back(CBrickTree::BrickFile{index, path, entry.size, entry.contentTag});
    }
    return found;
}

// Lists `folders`, up to `atOnce` at a time, each on a thread of its own
// when more than one; the first error is thrown once all have ended. The
// answers are in the order of `folders`.
std::vector<FolderFound> listTreeFolders(zo::IFileSystem* fs, const CBrickDiskHeader& header,
                                         const std::vector<TreeFolder>& folders, int atOnce)
{
    std::vector<FolderFound> found;
    found.reserve(folders.size());
    if (atOnce <= 1) {
        for (const TreeFolder& folder : folders)
            found.push_back(listTreeFolder(fs, header, folder));
        return found;
    }
    for (std::size_t first = 0; first < folders.size(); first += static_cast<std::size_t>(atOnce)) {
        const std::size_t end = std::min(folders.size(), first + static_cast<std::size_t>(atOnce));
        std::vector<std::future<FolderFound>> listings;
        for (std::size_t i = first; i < end; ++i)
            listings.push_back(std::async(std::launch::async, [fs, &header, &folder = folders[i]] {
                return listTreeFolder(fs, header, folder);
            }));
        for (std::future<FolderFound>& listing : listings)
            listing.wait();
        for (std::future<FolderFound>& listing : listings)
            found.push_back(listing.get());
    }
    return found;
}

bool byPath(const zo::CURI& a, const zo::CURI& b)
{
    return a.toString(true).toUTF8() < b.toString(true).toUTF8();
}

} // namespace

zo::int64 CBrickTree::Listing::totalBrickBytes() const
{
    zo::int64 total = 0;
    for (const BrickFile& brick : bricks)
        total += brick.size;
    return total;
}

CBrickTree::Listing CBrickTree::list(zo::IFileSystem* fs, const zo::CURI& diskFolder, const CBrickDiskHeader& header,
                                     int foldersListedAtOnce)
{
    Listing listing;
    const zo::CURI root = diskFolder << kRootFolder;
    if (!fs->folderExists(root)) {
        if (fs->pathExists(root))
            listing.unexpectedEntries.push_back(root);
        return listing;
    }
    // Level by level from the root: the folders of one level are listed
    // together, as over an object store each listing mostly waits on the
    // store's answer.
    std::vector<TreeFolder> level;
    if (header.getTreeLevels() > 0)
        level.push_back(TreeFolder{root, header.getTreeLevels() - 1, 0});
    while (!level.empty()) {
        std::vector<TreeFolder> below;
        for (FolderFound& found : listTreeFolders(fs, header, level, foldersListedAtOnce)) {
            below.insert(below.end(), found.folders.begin(), found.folders.end());
            for (BrickFile& brick : found.listing.bricks)
                listing.bricks.push_back(std::move(brick));
            listing.temporaryFiles.insert(listing.temporaryFiles.end(), found.listing.temporaryFiles.begin(),
                                          found.listing.temporaryFiles.end());
            listing.unexpectedEntries.insert(listing.unexpectedEntries.end(), found.listing.unexpectedEntries.begin(),
                                             found.listing.unexpectedEntries.end());
        }
        level.swap(below);
    }
    std::sort(listing.bricks.begin(), listing.bricks.end(),
              [](const BrickFile& a, const BrickFile& b) { return a.index < b.index; });
    std::sort(listing.temporaryFiles.begin(), listing.temporaryFiles.end(), byPath);
    std::sort(listing.unexpectedEntries.begin(), listing.unexpectedEntries.end(), byPath);
    return listing;
}

zo::CURI CBrickTree::getRelativeBrickURI(const CBrickDiskHeader& header, zo::int64 brickIndex)
{
    const int levels = std::max(0, header.getTreeLevels());
    const zo::int64 perLevel = header.getObjectsPerTreeLevel();
    std::vector<int> digits(static_cast<size_t>(levels));
    zo::int64 n = brickIndex;
    for (int level = 0; level < levels; ++level) {
        digits[static_cast<size_t>(level)] = static_cast<int>(n % perLevel);
        n /= perLevel;
    }
    zo::CURI uri{zo::String(kRootFolder)};
    for (int level = levels - 1; level >= 0; --level)
        uri = uri << getEntryName(header, level, digits[static_cast<size_t>(level)]);
    return uri;
}

zo::String CBrickTree::getEntryName(const CBrickDiskHeader& header, int level, int digit)
{
    const int hexDigitWidth = hexDigitWidthFor(header.getObjectsPerTreeLevel());
    const zo::String hex = zo::toHexString(digit);
    zo::String name;
    if (level > 0)
        name += static_cast<wchar_t>(0x60 + level);
    for (size_t i = hex.getLength(); i < static_cast<size_t>(hexDigitWidth); ++i)
        name += "0";
    name += hex;
    if (level == 0)
        name += kBrickSuffix;
    return name;
}

int CBrickTree::parseEntryName(const CBrickDiskHeader& header, int level, const std::string& name)
{
    std::string digits = name;
    if (level == 0) {
        const size_t suffixLength = sizeof(kBrickSuffix) - 1;
        if (digits.size() <= suffixLength ||
            digits.compare(digits.size() - suffixLength, suffixLength, kBrickSuffix) != 0)
            return -1;
        digits.resize(digits.size() - suffixLength);
    } else {
        if (digits.empty() || digits[0] != 'a' + level - 1)
            return -1;
        digits.erase(0, 1);
    }
    if (digits.empty() || digits.size() > 8)
        return -1;
    int value = 0;
    for (const char c : digits) {
        const int nibble = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        if (nibble < 0)
            return -1;
        value = value * 16 + nibble;
    }
    // Only the one spelling that the tree writes counts (no other padding).
    if (value >= header.getObjectsPerTreeLevel() || zo::String(name) != getEntryName(header, level, value))
        return -1;
    return value;
}

} // namespace brick
