#pragma once
// The system's restart-time rename list (the REG_MULTI_SZ value
// PendingFileRenameOperations) as plain data, and the decisions over it.
//
// Raw form: NUL-terminated strings taken two at a time, source then target,
// both with the NT prefix "\??\" when non-empty; an empty target deletes the
// source at restart; the data ends with one more NUL. Parsing never fails:
// data that is not in this form reads as an empty list.

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/log_sink.h"

namespace setup {

struct PendingRename {
    std::wstring source;  // without "\??\"
    std::wstring target;  // without "\??\"; empty: delete the source
    bool operator==(const PendingRename&) const = default;
};

using PendingRenameList = std::vector<PendingRename>;

std::wstring AddNtPrefix(std::wstring_view path);     // "" stays ""
std::wstring RemoveNtPrefix(std::wstring_view path);  // drops everything up to the first "\??\"

PendingRenameList ParsePendingRenames(std::wstring_view raw);
std::wstring SerializePendingRenames(const PendingRenameList& list);  // "" for an empty list

// The snapshot an immediate action hands to its rollback, in custom action data.
std::wstring EncodePendingRenames(const PendingRenameList& list);
PendingRenameList DecodePendingRenames(std::wstring_view text);

// What rolling back to a snapshot does to the current list.
struct PendingRenameRollback {
    PendingRenameList kept;               // the list to write back
    std::vector<std::wstring> deletions;  // staging files to delete afterwards
    bool rewrite = false;                 // the entry count changed: write `kept`
};

// The first snapshot.size() entries stay as they are (they predate the action);
// of the later ones, an entry whose target is a rollback path goes and its
// source (a staging file) is deleted; an entry whose source is a rollback path
// goes and nothing is deleted; any other entry (another program's) stays.
// A snapshot longer than the current list means someone already trimmed it:
// nothing changes. Logs each dropped entry and each deletion.
PendingRenameRollback PlanPendingRenameRollback(const PendingRenameList& snapshot, const PendingRenameList& current,
                                                const std::set<std::wstring>& rollbackPaths, LogSink& log);

}  // namespace setup
