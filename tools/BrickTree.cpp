#include "BrickTree.h"

#include <algorithm>

namespace cli {

namespace {

constexpr char kBrickSuffix[] = ".brick";
constexpr char kTemporaryPrefix[] = ".tmp-";

// The tree's naming rule, in one place for building names and for reading them.
class CTreeNames {
public:
    explicit CTreeNames(const brick::CBrickDiskHeader& header)
        : m_perLevel(header.getObjectsPerTreeLevel()), m_levels(header.getTreeLevels())
    {
        // Every digit is padded to the number of hexadecimal digits of the
        // entry count itself.
        for (int rest = m_perLevel; rest > 0; rest >>= 4)
            ++m_digitWidth;
        m_digitWidth = std::max(1, m_digitWidth);
    }

    int levels() const { return m_levels; }
    int perLevel() const { return m_perLevel; }

    // The name of the entry with `digit` at `level` (0: the file).
    std::string name(int level, int digit) const
    {
        static const char kHex[] = "0123456789abcdef";
        // The digits from the last one backwards, padded with '0' to the width.
        char reversed[16];
        int count = 0;
        for (int rest = digit; (rest > 0 || count < m_digitWidth) && count < 16; rest >>= 4)
            reversed[count++] = kHex[rest & 15];
        std::string text;
        if (level > 0)
            text += static_cast<char>('a' + level - 1);
        while (count > 0)
            text += reversed[--count];
        if (level == 0)
            text += kBrickSuffix;
        return text;
    }

    // The digit that `name` stands for at `level`, or -1 when it is no name of
    // the tree.
    int digitOf(int level, const std::string& name) const
    {
        std::string digits = name;
        if (level == 0) {
            const size_t suffixLength = sizeof(kBrickSuffix) - 1;
            if (digits.size() <= suffixLength || digits.compare(digits.size() - suffixLength, suffixLength, kBrickSuffix) != 0)
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
        if (value >= m_perLevel || name != this->name(level, value))
            return -1;
        return value;
    }

private:
    int m_perLevel;
    int m_levels;
    int m_digitWidth = 0;
};

bool isTemporaryName(const std::string& name)
{
    return name.rfind(kTemporaryPrefix, 0) == 0;
}

// Walks one folder of the tree at `level` (the file level is 0); `prefix` is
// the index so far, counted in units of the entries at this level.
void walk(zo::IFileSystem* fs, const CTreeNames& names, const zo::CURI& folder, int level, zo::int64 prefix,
          BrickTreeListing& listing)
{
    for (const zo::String& entry : fs->listFolder(folder)) {
        const std::string name = entry.toUTF8();
        const zo::CURI path = folder << entry;
        const zo::P<zo::IFileInfo> info = fs->getFileInfo(path, false);
        if (!info->exists())
            continue; // removed while we looked, as a finished store's temporary file is
        const int digit = names.digitOf(level, name);
        if (isTemporaryName(name) && !info->isFolder()) {
            listing.temporaryFiles.push_back(path);
        } else if (digit < 0 || info->isFolder() != (level > 0)) {
            listing.unexpectedEntries.push_back(path);
        } else if (level > 0) {
            walk(fs, names, path, level - 1, prefix * names.perLevel() + digit, listing);
        } else {
            listing.bricks.push_back(BrickFile{prefix * names.perLevel() + digit, path, info->getSize()});
        }
    }
}

} // namespace

zo::int64 BrickTreeListing::totalBrickBytes() const
{
    zo::int64 total = 0;
    for (const BrickFile& brick : bricks)
        total += brick.size;
    return total;
}

BrickTreeListing listBrickTree(zo::IFileSystem* fs, const zo::CURI& diskFolder, const brick::CBrickDiskHeader& header)
{
    BrickTreeListing listing;
    const zo::CURI root = diskFolder << "bricks";
    if (!fs->folderExists(root)) {
        if (fs->pathExists(root))
            listing.unexpectedEntries.push_back(root);
        return listing;
    }
    const CTreeNames names(header);
    if (names.levels() > 0)
        walk(fs, names, root, names.levels() - 1, 0, listing);
    std::sort(listing.bricks.begin(), listing.bricks.end(),
              [](const BrickFile& a, const BrickFile& b) { return a.index < b.index; });
    return listing;
}

} // namespace cli
