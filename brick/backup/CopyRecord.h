// CCopyRecord: what copies into one destination learned of its brick files,
// kept in a local folder between copies (CChainCopier::Options::recordFolder)
// so that a later copy need not ask the destination for the outer digest of
// each brick file it holds: for each content tag that the destination's
// listing gave a brick file (zo::FolderEntry::contentTag), the size of that
// file and the last bytes it ends with (its outer digest).
//
// A record is only a hint. Each entry states a fact about bytes, not about a
// place: a tag that the store derives from an object's bytes (S3's ETag, the
// MD5 of an object stored by one PUT) names those bytes wherever they lie, so
// an old record still tells the truth about each tag it holds, and a file
// replaced since has another tag, which the record does not hold or holds
// with the new file's digest. A record that is missing, does not read, is
// damaged (its check line does not match its lines) or was made for another
// destination loads as empty: a copy then compares each file with the
// destination's, as it does without a record.
//
// The file holds text lines: "brickdisk copy record 1", "destination URI",
// one line "TAG SIZE HEX" per entry (HEX: the last bytes in hexadecimal),
// then "check HEX", the SHA-256 of every line before it.
//
// A record is a value; one thread at a time may use it.
#pragma once

#include "zo/Base.h"
#include "zo/Export.h"
#include "zo/URI.h"

#include <cstddef>
#include <map>
#include <set>
#include <string>

namespace brick {

class BRICKDISK_EXPORT CCopyRecord {
public:
    struct Entry {
        // The brick file's length in bytes.
        zo::int64 size = 0;
        // Its last bytes, which hold its outer digest.
        std::string tail;
    };

    // An empty record of `destination` (kept normalised).
    explicit CCopyRecord(const zo::CURI& destination);

    // The file of the record of `destination` in the local folder `folder`:
    // "copy-" and the first 32 hexadecimal digits of the SHA-256 of the
    // destination's normalised name, so every spelling of one destination
    // finds one record.
    static zo::CURI getFileURI(const zo::CURI& folder, const zo::CURI& destination);

    // The record of `destination` in the local folder `folder`. A missing
    // file gives an empty record; so does one that does not read, is damaged
    // or names another destination, which is logged. Never throws.
    static CCopyRecord load(const zo::CURI& folder, const zo::CURI& destination);

    // Writes the record into the local folder `folder`, made with its
    // missing parents (mode 0700: a record tells what a user's destinations
    // hold), replacing the file atomically and durably. Throws the file
    // system's errors, with the property "recordFile".
    void store(const zo::CURI& folder) const;

    // The entry of `tag`; null when the record has none. Valid until the
    // record changes.
    const Entry* find(const std::string& tag) const;
    // Notes that a brick file with the content tag `tag`, of `size` bytes,
    // ends with `tail`. A tag that a line cannot hold (empty, longer than 256
    // bytes, with a space or a control character) is not noted.
    void note(const std::string& tag, zo::int64 size, const std::string& tail);
    // Drops the entries whose tags are not in `tags`.
    void keepOnly(const std::set<std::string>& tags);

    // True when an entry was noted or dropped since the record was made or
    // loaded.
    bool isChanged() const { return m_changed; }
    std::size_t getEntryCount() const { return m_entries.size(); }
    const zo::CURI& getDestination() const { return m_destination; }

private:
    zo::CURI m_destination;
    std::map<std::string, Entry> m_entries;
    bool m_changed = false;
};

} // namespace brick
