#include "brick/format/BrickTree.h"

#include "zo/FileSystemQueries.h"
#include "zo/String.h"

#include <algorithm>
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

// Walks one folder of the tree at `level` (the file level is 0); `prefix` is
// the index so far, counted in units of the entries at this level.
void walk(zo::IFileSystem* fs, const CBrickDiskHeader& header, const zo::CURI& folder, int level, zo::int64 prefix,
          CBrickTree::Listing& listing)
{
    // One listing of the folder with the kinds and sizes (over an object
    // store one request, not one per entry); an entry removed meanwhile, as
    // a finished store's temporary file is, is left out.
    for (const zo::FolderEntry& entry : zo::listFolderWithInfo(fs, folder)) {
        const std::string name = entry.name.toUTF8();
        const zo::CURI path = folder << entry.name;
        const int digit = CBrickTree::parseEntryName(header, level, name);
        if (isTemporaryName(name) && !entry.isFolder) {
            listing.temporaryFiles.push_back(path);
        } else if (digit < 0 || entry.isFolder != (level > 0)) {
            listing.unexpectedEntries.push_back(path);
        } else if (level > 0) {
            walk(fs, header, path, level - 1, prefix * header.getObjectsPerTreeLevel() + digit, listing);
        } else {
            listing.bricks.push_back(CBrickTree::BrickFile{prefix * header.getObjectsPerTreeLevel() + digit, path,
                                                           entry.size, entry.contentTag});
        }
    }
}

} // namespace

zo::int64 CBrickTree::Listing::totalBrickBytes() const
{
    zo::int64 total = 0;
    for (const BrickFile& brick : bricks)
        total += brick.size;
    return total;
}

CBrickTree::Listing CBrickTree::list(zo::IFileSystem* fs, const zo::CURI& diskFolder, const CBrickDiskHeader& header)
{
    Listing listing;
    const zo::CURI root = diskFolder << kRootFolder;
    if (!fs->folderExists(root)) {
        if (fs->pathExists(root))
            listing.unexpectedEntries.push_back(root);
        return listing;
    }
    if (header.getTreeLevels() > 0)
        walk(fs, header, root, header.getTreeLevels() - 1, 0, listing);
    std::sort(listing.bricks.begin(), listing.bricks.end(),
              [](const BrickFile& a, const BrickFile& b) { return a.index < b.index; });
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
