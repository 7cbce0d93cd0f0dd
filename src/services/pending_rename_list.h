#pragma once
// The system's restart-time rename list (the REG_MULTI_SZ value
// PendingFileRenameOperations) as plain data, and the decisions over it.
//
// Raw form: NUL-terminated strings taken two at a time, source then target,
// both with the NT prefix "\??\" when non-empty (a target may also carry the
// "!" marker of a replacing rename); an empty target deletes the source at
// restart; the data ends with one more NUL.
//
// The list belongs to the whole machine. Entries are held exactly as they are
// stored, so that writing the list back never changes an entry of another
// program; the "\??\" prefix is applied only when looking for our own entries.
// A value that does not read as pairs is not ours to interpret: parsing says
// so, and such a value is never rewritten.

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/log_sink.h"

namespace setup {

struct PendingRename {
    std::wstring source;  // as stored, prefix included
    std::wstring target;  // as stored; empty: delete the source
    bool operator==(const PendingRename&) const = default;
};

using PendingRenameList = std::vector<PendingRename>;

std::wstring AddNtPrefix(std::wstring_view path);     // "" stays ""
std::wstring RemoveNtPrefix(std::wstring_view path);  // drops everything up to the first "\??\"

// The list in `raw` (the value's characters), or nullopt when it is not a
// list of pairs: no closing NUL, a string without its NUL, an odd number of
// strings. An empty value, or one holding only the closing NUL, is an empty list.
std::optional<PendingRenameList> ParsePendingRenames(std::wstring_view raw);
std::wstring SerializePendingRenames(const PendingRenameList& list);  // "" for an empty list

// The list as it stood when an immediate action scheduled its work: whether
// the value existed, and its entries. Rollback restores an absent value as absent.
struct PendingRenameSnapshot {
    bool exists = false;
    PendingRenameList entries;
    bool operator==(const PendingRenameSnapshot&) const = default;
};

// The snapshot's entries as a record list, and whether the value existed, as
// the two custom action data values "pfr" and "pfe".
std::wstring EncodePendingRenames(const PendingRenameList& list);
PendingRenameList DecodePendingRenames(std::wstring_view text);

enum class PendingRenameWrite {
    None,    // leave the value exactly as it is
    Write,   // write `kept`
    Remove,  // remove the value: it did not exist before and nothing is left
};

// What rolling back to a snapshot does to the current list.
struct PendingRenameRollback {
    PendingRenameList kept;               // the list to write back
    std::vector<std::wstring> deletions;  // staging files to delete afterwards (sources of renames onto ours)
    PendingRenameWrite write = PendingRenameWrite::None;
};

// The first snapshot.entries.size() entries stay as they are (they predate
// the action); of the later ones, a rename onto a rollback path goes and its
// source (a staging file) is deleted; the deletion of a rollback path goes;
// any other entry (another program's) stays, byte for byte. A snapshot longer
// than the current list means someone already trimmed it: nothing changes.
// Logs each dropped entry and each deletion. A rename whose source is in
// `keptSources` goes without its source being deleted: a move queued for the
// restart renames the user's own file, not a staging copy.
PendingRenameRollback PlanPendingRenameRollback(const PendingRenameSnapshot& snapshot,
                                                const PendingRenameList& current,
                                                const std::set<std::wstring>& rollbackPaths, LogSink& log,
                                                const std::set<std::wstring>& keptSources = {});

// True when the list holds the rename of `source` onto `destination`
// (prefixes and a replacing marker aside, letter case ignored).
bool HasPendingRename(const PendingRenameList& list, std::wstring_view source, std::wstring_view destination);

}  // namespace setup
