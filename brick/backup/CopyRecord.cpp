#include "brick/backup/CopyRecord.h"

#include "brick/detail/WaitingListener.h"

#include "seal/Digest.h"
#include "zo/Buffer.h"
#include "zo/Error.h"
#include "zo/LocalFileSystem.h"
#include "zo/Log.h"

#include <cstdlib>
#include <optional>
#include <sstream>
#include <string_view>
#include <vector>

namespace brick {

namespace {

constexpr char kFirstLine[] = "brickdisk copy record 1";
constexpr char kDestinationField[] = "destination ";
constexpr char kCheckField[] = "check ";
// Longer tags are not kept; S3's are 32 to 40 characters.
constexpr std::size_t kMaxTagLength = 256;
// A record's entries hold at most this many last bytes each.
constexpr std::size_t kMaxTailSize = 64;
// A file longer than this is no record (one holds about 100 bytes a brick
// file of the destination).
constexpr zo::int64 kMaxRecordSize = 256 * 1024 * 1024;
// A record tells what a user's destinations hold: their folder is theirs.
constexpr int kRecordFolderMode = 0700;

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

// The bytes of lower-case hexadecimal `hex`; nothing when it is not that.
std::optional<std::string> fromHex(std::string_view hex)
{
    if (hex.size() % 2 != 0)
        return std::nullopt;
    std::string bytes;
    for (std::size_t at = 0; at < hex.size(); at += 2) {
        const int high = hexValue(hex[at]);
        const int low = hexValue(hex[at + 1]);
        if (high < 0 || low < 0)
            return std::nullopt;
        bytes += static_cast<char>(high * 16 + low);
    }
    return bytes;
}

std::string sha256Hex(std::string_view text)
{
    const zo::P<seal::IDigestContext> context = seal::CDigestManager().getType("sha256")->createContext();
    context->update(text.data(), static_cast<int>(text.size()));
    context->finish();
    return zo::toHexDigits(context->getDigest(), static_cast<std::size_t>(context->getSize()));
}

bool isRecordableTag(const std::string& tag)
{
    if (tag.empty() || tag.size() > kMaxTagLength)
        return false;
    for (const char c : tag)
        if (static_cast<unsigned char>(c) <= ' ' || c == 127)
            return false;
    return true;
}

std::string destinationName(const zo::CURI& destination)
{
    return destination.toNormalized().toString(true).toUTF8();
}

zo::CError recordError(const std::string& message, const zo::CURI& file)
{
    return zo::CError(zo::String::fromUTF8(message), zo::String(), -1,
                      zo::CProps().add("recordFile", file.toString(true)));
}

// The text of the file `file`, nothing when it is missing.
std::optional<std::string> readRecordText(zo::IFileSystem* fs, const zo::CURI& file)
{
    const zo::P<zo::IFileInfo> info = fs->getFileInfo(file, false);
    if (!info->exists())
        return std::nullopt;
    if (info->isFolder() || info->getSize() > kMaxRecordSize)
        throw recordError("The record is no file of a record.", file);
    const zo::P<zo::IIOStream> stream = fs->openStream(file, zo::IIOStream::AccessRead, zo::IIOStream::OptionNone);
    std::string text(static_cast<std::size_t>(stream->getLength()), '\0');
    stream->read(text.data(), static_cast<int>(text.size()));
    return text;
}

} // namespace

CCopyRecord::CCopyRecord(const zo::CURI& destination) : m_destination(destination.toNormalized())
{}

zo::CURI CCopyRecord::getFileURI(const zo::CURI& folder, const zo::CURI& destination)
{
    return folder << zo::String::fromUTF8("copy-" + sha256Hex(destinationName(destination)).substr(0, 32));
}

CCopyRecord CCopyRecord::load(const zo::CURI& folder, const zo::CURI& destination)
{
    CCopyRecord record(destination);
    const zo::CURI file = getFileURI(folder, destination);
    try {
        const zo::P<zo::IFileSystem> fs(new zo::CLocalFileSystem(1));
        const std::optional<std::string> text = readRecordText(fs.get(), file);
        if (!text)
            return record;
        std::vector<std::string> lines;
        std::istringstream stream(*text);
        for (std::string line; std::getline(stream, line);)
            lines.push_back(line);
        const std::size_t checked = text->rfind(kCheckField);
        const bool checks = lines.size() >= 3 && checked != std::string::npos &&
            (checked == 0 || (*text)[checked - 1] == '\n') &&
            lines.back() == kCheckField + sha256Hex(std::string_view(*text).substr(0, checked)) && text->back() == '\n';
        if (!checks || lines[0] != kFirstLine)
            throw recordError("The record of earlier copies is damaged.", file);
        if (lines[1] != kDestinationField + destinationName(destination))
            throw recordError("The record was made for another destination.", file);
        for (std::size_t at = 2; at + 1 < lines.size(); ++at) {
            std::istringstream fields(lines[at]);
            std::string tag;
            std::string size;
            std::string hex;
            std::string more;
            fields >> tag >> size >> hex;
            char* end = nullptr;
            const long long length = std::strtoll(size.c_str(), &end, 10);
            const std::optional<std::string> tail = fromHex(hex);
            if (!(fields >> more).fail() || !isRecordableTag(tag) || size.empty() || *end != '\0' || length < 0 ||
                !tail || tail->size() > kMaxTailSize)
                throw recordError("The record of earlier copies is damaged.", file);
            record.m_entries[tag] = Entry{static_cast<zo::int64>(length), *tail};
        }
    } catch (const std::exception& e) {
        zo::logError(e,
                     "Ignoring the record of earlier copies; this copy compares every brick file with the "
                     "destination's.",
                     zo::String());
        return CCopyRecord(destination);
    }
    return record;
}

void CCopyRecord::store(const zo::CURI& folder) const
{
    std::string text = std::string(kFirstLine) + "\n" + kDestinationField + destinationName(m_destination) + "\n";
    for (const auto& [tag, entry] : m_entries)
        text +=
            tag + " " + std::to_string(entry.size) + " " + zo::toHexDigits(entry.tail.data(), entry.tail.size()) + "\n";
    text += kCheckField + sha256Hex(text) + "\n";
    const zo::CURI file = getFileURI(folder, m_destination);
    try {
        const zo::P<zo::IFileSystem> fs(new zo::CLocalFileSystem(1));
        fs->createFolder(folder, kRecordFolderMode);
        detail::replaceFileAndWait(
            fs.get(), file,
            zo::TBuffer<zo::uint8>(reinterpret_cast<const zo::uint8*>(text.data()), static_cast<int>(text.size())));
    } catch (zo::CError& e) {
        e.getProps().add("recordFile", file.toString(true));
        throw;
    }
}

const CCopyRecord::Entry* CCopyRecord::find(const std::string& tag) const
{
    const auto found = m_entries.find(tag);
    return found == m_entries.end() ? nullptr : &found->second;
}

void CCopyRecord::note(const std::string& tag, zo::int64 size, const std::string& tail)
{
    if (!isRecordableTag(tag) || tail.size() > kMaxTailSize || size < 0)
        return;
    const auto found = m_entries.find(tag);
    if (found != m_entries.end() && found->second.size == size && found->second.tail == tail)
        return;
    m_entries[tag] = Entry{size, tail};
    m_changed = true;
}

void CCopyRecord::keepOnly(const std::set<std::string>& tags)
{
    for (auto it = m_entries.begin(); it != m_entries.end();) {
        if (tags.count(it->first) > 0) {
            ++it;
            continue;
        }
        it = m_entries.erase(it);
        m_changed = true;
    }
}

} // namespace brick
