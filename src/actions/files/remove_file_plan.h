#pragma once
// Planning of the RemoveFileEx table: which rows count, in which phase each
// is carried out, which paths are never removed, and how the work travels to
// the scheduled actions. Plain functions over plain data.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/component_decision.h"
#include "runtime/log_sink.h"
#include "services/pending_rename_list.h"

namespace setup {

namespace remove_file {
// Phase column.
enum Phase : int { Deferred = 0, Immediate = 1, Commit = 2, RollbackOnly = 3, AtRestart = 4 };
// Attributes bits.
enum : int {
    OnInstall = 0x1,
    OnUninstall = 0x2,
    OnReinstall = 0x4,
    Recursive = 0x8,
    RemoveEmptyFolders = 0x10,
    Strict = 0x20,
    DuringUpgrade = 0x40,
};
inline constexpr int kKnownBits = 0x7F;
}  // namespace remove_file

struct RemoveFileRow {
    std::wstring id;
    std::wstring component;
    std::wstring path;  // formatted
    int phase = 0;
    int attributes = 0;
    std::wstring condition;
};

// One row's work: the path, and for an undoable removal the backup folder
// (beside the folder the removal starts from) that keeps what it removed.
struct RemoveFileItem {
    std::wstring id;
    std::wstring path;
    int phase = 0;
    int attributes = 0;
    std::wstring backup;
    bool wholeFolder = false;  // deferred rows: the path names a folder (decided when planned)
    bool operator==(const RemoveFileItem&) const = default;
};

// A path split into the folder the removal starts from and the name pattern
// of the files it removes there ("*" for a whole folder).
struct RemovalTarget {
    std::wstring folder;
    std::wstring pattern;
    bool wholeFolder = false;  // the path names the folder itself
};

// `path` read as a folder when `isFolder` or when it ends with a separator,
// else as a file or a folder\pattern.
RemovalTarget TargetOf(const std::wstring& path, bool isFolder);

// Wildcard match of a file name: '*' any run, '?' one character, letter case ignored.
bool MatchesPattern(std::wstring_view name, std::wstring_view pattern);

// Why the library refuses to remove under `folder`, or empty: a relative
// path, a drive or share root, or one of `protectedFolders` (the Windows
// folder, Program Files, the profile roots) or a folder above one of them.
std::wstring RemovalProblem(const std::wstring& folder, const std::vector<std::wstring>& protectedFolders);

// The decision for one row: a component with nothing to do, the condition,
// then the task against the bits 0x1 (install), 0x2 (uninstall), 0x4
// (reinstall); while a major upgrade removes the product, only rows with 0x40.
Decision DecideRemoveFile(ComponentStates& states, const RemoveFileRow& row, bool upgrading, LogSink& log);

// The chosen rows by phase. A deferred row gets a fresh backup folder: inside
// the folder it removes files from (its removal passes it over), or beside the
// folder when the path names the folder itself (which may go with 0x10).
struct RemoveFilePhases {
    std::vector<RemoveFileItem> immediate;
    std::vector<RemoveFileItem> deferred;  // deferred and restart-time rows, in table order
    std::vector<RemoveFileItem> commit;
    std::vector<RemoveFileItem> rollback;  // rollback-only rows
};

class RemoveFileMachine {
public:
    virtual ~RemoveFileMachine() = default;
    virtual bool IsFolder(const std::wstring& path) = 0;
    virtual std::wstring NewUuid() = 0;
};

RemoveFilePhases PlanRemoveFiles(const std::vector<RemoveFileRow>& rows, ComponentStates& states, bool upgrading,
                                 RemoveFileMachine& machine, LogSink& log);

// The data of the scheduled actions: "mode" (deferred or commit, for the
// entry point that serves both), "files", "undo" (rollback: the deferred rows
// to take back), and the restart-time rename list as it stood ("pfr", "pfe").
struct RemoveFileActionData {
    std::wstring mode;
    std::vector<RemoveFileItem> items;
    std::vector<RemoveFileItem> undo;
    PendingRenameSnapshot snapshot;
};

std::wstring EncodeRemoveFileActionData(const RemoveFileActionData& data);
RemoveFileActionData DecodeRemoveFileActionData(std::wstring_view text);

}  // namespace setup
