#pragma once
// Planning of the MoveFileEx table: which rows count, in which phases each is
// carried out, and how the work travels to the scheduled actions. Plain
// functions over plain data; the actions feed them the rows and the machine's
// answers.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/component_decision.h"
#include "runtime/log_sink.h"
#include "services/pending_rename_list.h"

namespace setup {

// The Attributes bits of a row.
namespace move_file {
enum : int {
    OnInstall = 0x1,
    OnReinstall = 0x2,
    OnUninstall = 0x4,
    SourceOptional = 0x10,  // a missing source is a logged skip, not a failure
    Move = 0x20,            // move instead of copy
    Immediate = 0x100,      // while the script is built
    Deferred = 0x200,       // in the script (a network source: impersonated)
    Commit = 0x400,         // once the installation has succeeded
    Rollback = 0x800,       // only when it is rolled back
    AtRestart = 0x1000,     // queued in the restart-time rename list
    ContinueOnError = 0x2000,
};
inline constexpr int kPhases = Immediate | Deferred | Commit | Rollback;
}  // namespace move_file

// One row as read from the package, its paths already formatted.
struct MoveFileRow {
    std::wstring id;
    std::wstring component;
    std::wstring source;
    std::wstring destination;
    int attributes = 0;
    std::wstring condition;
};

// One row's work in one phase.
struct MoveFileItem {
    std::wstring id;
    std::wstring source;
    std::wstring destination;
    std::wstring backup;  // where the destination is copied first; empty: no backup
    int attributes = 0;
    int newFolders = 0;   // folders above the destination that did not exist when planned
    bool operator==(const MoveFileItem&) const = default;
};

// The rows of each phase, in table order.
struct MoveFilePhases {
    std::vector<MoveFileItem> immediate;
    std::vector<MoveFileItem> deferred;
    std::vector<MoveFileItem> deferredUser;  // deferred rows whose source is on the network
    std::vector<MoveFileItem> commit;
    std::vector<MoveFileItem> rollback;
};

// What the planner asks of the machine.
class MoveFileMachine {
public:
    virtual ~MoveFileMachine() = default;
    virtual bool FileExists(const std::wstring& path) = 0;  // a file, not a folder
    virtual bool IsNetworkPath(const std::wstring& path) = 0;
    // How many folders above `path` are missing (0: its folder exists).
    virtual int MissingFolders(const std::wstring& path) = 0;
    virtual std::wstring NewUuid() = 0;
};

// The decision for one row, in this order: a component with nothing to do, the
// row's condition, an uninstall that only removes files (FileAbsent), then the
// task against the row's bits 0x1 (install), 0x2 (reinstall) and 0x4 (uninstall).
Decision DecideMoveFile(ComponentStates& states, const MoveFileRow& row, LogSink& log);

// Why a row with these paths cannot be carried out at all (an empty or
// malformed path), or empty when it can.
std::wstring MoveFilePathProblem(std::wstring_view source, std::wstring_view destination);

// The chosen rows sorted into every phase their bits name, one log line per
// phase. Rows that change the destination while the installation can still be
// rolled back (immediate and deferred ones, not those queued for the restart)
// get a backup path beside their destination whenever it exists. A chosen row
// that cannot be carried out throws, unless it continues on error: then it is
// kept and fails, as a warning, where it runs.
MoveFilePhases PlanMoveFiles(const std::vector<MoveFileRow>& rows, ComponentStates& states,
                             MoveFileMachine& machine, LogSink& log);

// The action data of one scheduled action: "files" (the rows it carries out),
// "undo" (the rows whose effects rollback takes back, and whose backups commit
// removes), "wrn" (the warnings file) and the restart-time rename list as it
// stood when the work was planned ("pfr", and "pfe": whether the value existed).
struct MoveFileActionData {
    std::vector<MoveFileItem> items;
    std::vector<MoveFileItem> undo;
    std::wstring warningsFile;
    PendingRenameSnapshot snapshot;
};

std::wstring EncodeMoveFileActionData(const MoveFileActionData& data);
MoveFileActionData DecodeMoveFileActionData(std::wstring_view text);

}  // namespace setup
