#include "brick/cache/detail/CacheLayout.h"

#include "seal/Digest.h"
#include "seal/Random.h"

#include <sstream>

namespace brick::detail {

namespace {

constexpr char kOwnerMagic[] = "brickdisk cache 1";
constexpr char kRecordMagic[] = "brickdisk cache record 1";

// The rest of `line` after `word` and a space; false when it does not start
// so.
bool valueAfter(const std::string& line, const std::string& word, std::string& value)
{
    if (line.rfind(word + " ", 0) != 0)
        return false;
    value = line.substr(word.size() + 1);
    return true;
}

} // namespace

std::string sha256Hex(const std::string& text)
{
    const zo::P<seal::IDigestContext> context = seal::CDigestManager().getType("sha256")->createContext();
    context->update(text.data(), static_cast<int>(text.size()));
    context->finish();
    return zo::toHexDigits(context->getDigest(), static_cast<size_t>(context->getSize()));
}

std::string readCacheText(zo::IFileSystem* fs, const zo::CURI& file)
{
    const zo::P<zo::IIOStream> stream = fs->openStream(file, zo::IIOStream::AccessRead, 0);
    std::string text(static_cast<size_t>(stream->getLength()), '\0');
    if (!text.empty())
        stream->read(text.data(), static_cast<int>(text.size()));
    return text;
}

zo::CURI cachedFileOf(const zo::CURI& folder, const std::string& key)
{
    // Each path is built by appending: GCC 12 at -O3 warns falsely about
    // std::string's replace and insert (-Wrestrict).
    std::string path;
    const size_t scheme = key.find("://");
    if (scheme != std::string::npos)
        path.append(key, 0, scheme).append("/").append(key, scheme + 3);
    else if (!key.empty() && key[0] == '/')
        path.append("local").append(key);
    else
        path.append("relative/").append(key);
    return zo::CURI(folder << kCacheFilesFolder, zo::String(path));
}

std::string formatOwnerRecord(const OwnerRecord& owner)
{
    return std::string(kOwnerMagic) + "\ndisk " + owner.disk + "\nheader " + owner.headerDigest + "\nid " + owner.id +
        "\nmark " + owner.expectedMark + "\n";
}

bool parseOwnerRecord(const std::string& text, OwnerRecord& owner)
{
    std::istringstream lines(text);
    std::string magic, line;
    std::getline(lines, magic);
    std::getline(lines, line);
    if (magic != kOwnerMagic || !valueAfter(line, "disk", owner.disk))
        return false;
    owner.headerDigest.clear();
    owner.id.clear();
    owner.expectedMark.clear();
    while (std::getline(lines, line)) {
        if (!valueAfter(line, "header", owner.headerDigest) && !valueAfter(line, "id", owner.id))
            valueAfter(line, "mark", owner.expectedMark);
    }
    return true;
}

std::string newCacheFolderId()
{
    unsigned char bytes[16];
    seal::fillRandomBytes(bytes, sizeof(bytes));
    return zo::toHexDigits(bytes, sizeof(bytes));
}

std::string formatJournalRecord(const std::string& key, bool deletion)
{
    const std::string body = std::string(kRecordMagic) + "\n" + (deletion ? "delete" : "store") + "\n" + key + "\n";
    return body + sha256Hex(body) + "\n";
}

bool parseJournalRecord(const std::string& text, std::string& key, bool& deletion)
{
    const size_t end = text.size() > 1 ? text.rfind('\n', text.size() - 2) : std::string::npos;
    if (end == std::string::npos || text.back() != '\n' ||
        text.substr(end + 1) != sha256Hex(text.substr(0, end + 1)) + "\n")
        return false;
    std::istringstream lines(text);
    std::string magic, change;
    std::getline(lines, magic);
    std::getline(lines, change);
    std::getline(lines, key);
    if (magic != kRecordMagic || (change != "store" && change != "delete"))
        return false;
    deletion = change == "delete";
    return true;
}

} // namespace brick::detail
