#include "actions/files/move_file_actions.h"

#include <shlwapi.h>

#include <cwctype>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "actions/files/move_file_plan.h"
#include "runtime/exception.h"
#include "runtime/program_log.h"
#include "runtime/throw.h"
#include "services/file_operations.h"
#include "services/file_restore.h"
#include "services/file_write.h"
#include "services/path.h"
#include "services/pending_rename_store.h"

namespace setup {

namespace {

using namespace move_file;

constexpr wchar_t kTable[] = L"MoveFileEx";
constexpr wchar_t kQuery[] =
    L"SELECT `MoveFileEx`, `Component_`, `Source`, `Destination`, `Attributes`, `Condition` FROM `MoveFileEx`";

// The table's rows with their paths formatted, or nothing when the package has
// no such table. Every row is read and logged: the per-row lines are the
// table's contract.
std::optional<std::vector<MoveFileRow>> ReadRows(const Session& session) {
    std::vector<MoveFileRow> rows;
    const bool exists = session.ActiveDatabase().ForEachRowOfTable(kTable, kQuery, [&](const Record& record) {
        MoveFileRow row;
        row.id = record.GetString(1);
        if (row.id.empty()) Throw(kFail, L"The id is empty in MoveFileEx table.");
        row.component = record.GetString(2);
        if (row.component.empty()) Throw(kFail, L"The component is empty in MoveFileEx row '" + row.id + L"'.");
        row.source = record.GetString(3);
        row.destination = record.GetString(4);
        row.attributes = record.GetIntegerOr(5, 0);
        row.condition = record.GetString(6);
        rows.push_back(std::move(row));
    });
    if (!exists) return std::nullopt;
    // All paths formatted together: a few installer calls instead of two a row.
    FormatRowTexts(session, rows, {&MoveFileRow::source, &MoveFileRow::destination});
    for (MoveFileRow& row : rows) {
        // The row as the table gives it; every later step sees the path as Windows resolves it.
        LogInfo(L"Configured move file %s, %s, %s, %s, %s, %d.", row.id, row.component, row.source, row.destination,
                row.condition, row.attributes);
        row.source = ResolvePath(row.source);
        row.destination = ResolvePath(row.destination);
    }
    return rows;
}

class InstallerMoveFileMachine final : public MoveFileMachine {
public:
    bool FileExists(const std::wstring& path) override { return setup::FileExists(path); }
    // Asked once per drive letter: the answer is the drive's, and each call
    // costs 0.16 ms under Wine (it asks the mount manager).
    bool IsNetworkPath(const std::wstring& path) override {
        if (path.size() < 2 || path[1] != L':' || !std::iswalpha(path[0])) {
            return ::PathIsNetworkPathW(path.c_str()) != FALSE;
        }
        const wchar_t drive = static_cast<wchar_t>(std::towupper(path[0]));
        if (const auto known = network_.find(drive); known != network_.end()) return known->second;
        return network_.emplace(drive, ::PathIsNetworkPathW(path.c_str()) != FALSE).first->second;
    }
    // Asked once per folder: planning changes nothing, and rows share their folders.
    int MissingFolders(const std::wstring& path) override {
        const std::wstring start = DirectoryOf(path);
        const auto known = missing_.find(start);
        if (known != missing_.end()) return known->second;
        int missing = 0;
        for (std::wstring folder = start; !folder.empty() && folder.back() != L':' && !FolderExists(folder);
             folder = DirectoryOf(folder)) {
            ++missing;
        }
        missing_.emplace(start, missing);
        return missing;
    }
    std::wstring NewUuid() override { return CreateUuidString(); }

private:
    std::map<std::wstring, int> missing_;  // folder -> how many folders from it up are missing
    std::map<wchar_t, bool> network_;      // drive letter -> on the network
};

std::wstring RowText(const MoveFileItem& item) {
    return L"'" + item.id + L"', '" + item.source + L"'->'" + item.destination + L"'";
}

// Carries out one row's copy or move, after backing up its destination.
// `queued`: the restart-time rename list, read once per phase at the first
// restart move that needs it, and kept up to date with the moves queued since.
void CarryOut(const MoveFileItem& item, std::optional<PendingRenameList>& queued) {
    const std::wstring& from = item.source;
    const std::wstring& to = item.destination;
    if (const std::wstring problem = MoveFilePathProblem(from, to); !problem.empty()) {
        Throw(kInvalidArgument, L"Cannot move files " + RowText(item) + L": " + problem + L".");
    }
    if (!FileExists(from)) {
        if (FolderExists(from)) {
            Throw(HResultFromWin32(ERROR_DIRECTORY), L"The source '" + from + L"' is a folder: only files are copied or moved.");
        }
        if (item.attributes & SourceOptional) {
            LogInfo(L"Skip move files %s. The source does not exist and the row allows it (0x10).", RowText(item));
            return;
        }
        Throw(HResultFromWin32(ERROR_FILE_NOT_FOUND), L"The source file '" + from + L"' does not exist.");
    }
    // One look at the destination serves every question about it (each look
    // costs a directory lookup, which a folder of thousands of files makes dear).
    const DWORD target = ::GetFileAttributesW(to.c_str());
    const bool exists = target != INVALID_FILE_ATTRIBUTES;
    if (exists && (target & FILE_ATTRIBUTE_DIRECTORY)) {
        Throw(HResultFromWin32(ERROR_DIRECTORY), L"The destination '" + to + L"' is a folder: it is never replaced by a file.");
    }
    if (exists && (target & FILE_ATTRIBUTE_REPARSE_POINT)) CheckNotLink(to);  // refuses it
    if (!exists) CreateFolders(DirectoryOf(to));
    bool atRestart = (item.attributes & AtRestart) != 0;
    if (!atRestart && exists && IsFileInUse(to)) {
        // It could not be replaced now anyway; it stays as it is until the
        // restart, so there is nothing to back up (rollback takes back the
        // queued replacement).
        LogInfo(L"The destination is in use: the row is carried out at the next restart.");
        atRestart = true;
    }
    if (!atRestart && !item.backup.empty() && exists) {
        LogInfo(L"Backing up file '%s' -> '%s'.", to, item.backup);
        if (item.attributes & Move) {
            // A move replaces the destination: the file itself goes aside (a
            // rename in its folder), so rollback puts back the very file.
            ThrowLastErrorIf(!::MoveFileExW(to.c_str(), item.backup.c_str(), 0), L"Failed to back up file '" + to + L"'.");
            if (::MoveFileExW(from.c_str(), to.c_str(), 0)) {
                LogInfo(L"Move file '%s' -> '%s'.", from, to);
                return;
            }
            // Not now (another volume, say): the destination comes back, and
            // the move takes its usual way, at the next restart.
            ThrowLastErrorIf(!::MoveFileExW(item.backup.c_str(), to.c_str(), 0),
                             L"Failed to restore file '" + to + L"'.");
            return MoveFileWithFallback(from, to, true);
        }
        CopyToNewFile(to, item.backup);
    }
    if (atRestart) LogInfo(L"Need to move files on reboot %s.", RowText(item));
    if (item.attributes & Move) {
        if (!atRestart) return MoveFileWithFallback(from, to, true);
        if (!queued) queued = ReadPendingRenamesLeniently();
        if (HasPendingRename(*queued, from, to)) {
            LogInfo(L"Move file on reboot already scheduled '%s' -> '%s'.", from, to);
            return;
        }
        MoveFileOnReboot(from, to);
        queued->push_back({from, to});
        return;
    }
    if (atRestart) return CopyFileOnReboot(from, to);
    CopyFileWithFallback(from, to, true);
}

// Carries out the rows of one phase in order. A row that continues on error
// becomes a warning (logged, and appended to the warnings file); any other
// failure ends the phase.
void CarryOutRows(const std::vector<MoveFileItem>& items, const std::wstring& warningsFile) {
    std::vector<std::wstring> warnings;
    std::optional<PendingRenameList> queued;
    for (const MoveFileItem& item : items) {
        try {
            CarryOut(item, queued);
        } catch (const Exception& e) {
            if (!(item.attributes & ContinueOnError)) {
                WriteWarnings(warningsFile, warnings);
                throw;
            }
            warnings.push_back(Format(L"Warning: %s Error 0x%x.", e.Message(), e.Code()));
            LogLine(warnings.back());
        }
    }
    WriteWarnings(warningsFile, warnings);
}

// Removes, from the destination's folder upwards, the folders a row created
// when they are empty again.
void RemoveNewFolders(const MoveFileItem& item) {
    std::wstring folder = DirectoryOf(item.destination);
    for (int level = 0; level < item.newFolders && !folder.empty(); ++level, folder = DirectoryOf(folder)) {
        if (!FolderExists(folder)) continue;
        if (!::RemoveDirectoryW(folder.c_str())) return;  // not empty: someone else's files are in it
        LogInfo(L"Remove folder '%s'.", folder);
    }
}

// Takes back what `items` did, latest first: the restart-time renames they
// queued, a moved file back to its source, the destination from its backup or,
// when it did not exist, removed; then the folders they created.
void UndoRows(const std::vector<MoveFileItem>& items, const PendingRenameSnapshot& snapshot) {
    if (items.empty()) return;
    std::set<std::wstring> pendingPaths;
    std::set<std::wstring> movedSources;
    for (const MoveFileItem& item : items) {
        pendingPaths.insert(item.destination);
        if (item.attributes & Move) movedSources.insert(item.source);
    }
    // First, so that a restart-time step queued below is not taken back with them.
    LogInfo(L"Rollback pending rename operations.");
    Leniently([&] { RollbackPendingRenames(snapshot, pendingPaths, movedSources); });
    for (auto it = items.rbegin(); it != items.rend(); ++it) {
        const MoveFileItem& item = *it;
        const std::wstring& to = item.destination;
        if (item.attributes & AtRestart) continue;  // only queued; taken back above
        if (item.source.empty() || to.empty()) continue;
        const bool backedUp = !item.backup.empty() && FileExists(item.backup);
        bool movedBack = false;
        if ((item.attributes & Move) && FileExists(to) && !FileExists(item.source) && (item.backup.empty() || backedUp)) {
            LogInfo(L"Move file '%s' -> '%s'.", to, item.source);
            movedBack = ::MoveFileExW(to.c_str(), item.source.c_str(), 0) != FALSE;
            if (!movedBack) {
                // The moved file stays where it is, and so does the backup: nothing is lost.
                LogInfo(L"Failed to move file '%s' -> '%s'. Error 0x%x.", to, item.source, FailureFromWin32(::GetLastError()));
                continue;
            }
        }
        if (backedUp) {
            Leniently([&] { RestoreFileFromBackup(to, item.backup); });
        } else if (!item.backup.empty()) {
            LogInfo(L"Need to rollback pending rename operations of '%s'.", to);
        } else if (!movedBack && FileExists(to)) {
            Leniently([&] { RemoveFileWithFallback(to, true); });
        }
        RemoveNewFolders(item);
    }
}

void Schedule(const Session& session, const wchar_t* action, const MoveFileActionData& data) {
    session.ScheduleDeferred(action, EncodeMoveFileActionData(data));
}

}  // namespace

void MoveFilesEx(Session& session) {
    Wow64FsRedirectionGuard redirection;
    SessionComponentStates states(session);
    const std::optional<std::vector<MoveFileRow>> rows = ReadRows(session);
    if (!rows) return;
    InstallerMoveFileMachine machine;
    ProgramLogSink log;
    MoveFilePhases phases = PlanMoveFiles(*rows, states, machine, log);

    // In the order they run: immediate, then the impersonated deferred action, then the other.
    std::vector<MoveFileItem> undoable = phases.immediate;
    undoable.insert(undoable.end(), phases.deferredUser.begin(), phases.deferredUser.end());
    undoable.insert(undoable.end(), phases.deferred.begin(), phases.deferred.end());
    const bool work = !undoable.empty() || !phases.rollback.empty() || !phases.commit.empty();
    if (!work) {
        LogNothingToSchedule(rows->size(), L"MoveFileEx", L"installed, reinstalled or removed in a phase it names");
        return;
    }

    MoveFileActionData data;
    data.warningsFile = session.GetProperty(L"InstallationWarningsFilePath");
    // Any row may fall back to the restart-time rename list; rollback takes
    // back what was added to it since now.
    if (!undoable.empty()) data.snapshot = TakePendingRenameSnapshot();

    // Carried out before anything is scheduled: the installer runs no rollback
    // for a failure while the script is being built, so a failing row takes
    // back the immediate rows itself.
    try {
        CarryOutRows(phases.immediate, data.warningsFile);
    } catch (...) {
        LogInfo(L"Rolling back the immediate rows.");
        UndoRows(phases.immediate, data.snapshot);
        throw;
    }

    MoveFileActionData rollback = data;
    rollback.items = std::move(phases.rollback);
    rollback.undo = undoable;
    if (!rollback.items.empty() || !rollback.undo.empty()) Schedule(session, L"MoveFilesExRollback", rollback);
    data.snapshot = {};  // only rollback needs it
    if (!phases.deferredUser.empty()) {
        data.items = std::move(phases.deferredUser);
        Schedule(session, L"MoveFilesExDeferredUser", data);
    }
    if (!phases.deferred.empty()) {
        data.items = std::move(phases.deferred);
        Schedule(session, L"MoveFilesExDeferred", data);
    }
    MoveFileActionData commit;
    commit.warningsFile = data.warningsFile;
    commit.items = std::move(phases.commit);
    for (const MoveFileItem& item : undoable) {
        if (!item.backup.empty()) commit.undo.push_back(item);
    }
    if (!commit.items.empty() || !commit.undo.empty()) Schedule(session, L"MoveFilesExFinalize", commit);
}

void MoveFilesExDeferred(Session& session) {
    Wow64FsRedirectionGuard redirection;
    const MoveFileActionData data = DecodeMoveFileActionData(session.CustomActionData());
    CarryOutRows(data.items, data.warningsFile);
}

void MoveFilesExFinalize(Session& session) {
    Wow64FsRedirectionGuard redirection;
    const MoveFileActionData data = DecodeMoveFileActionData(session.CustomActionData());
    for (const MoveFileItem& item : data.undo) {
        if (item.backup.empty() || !FileExists(item.backup)) continue;
        LogInfo(L"Cleanup file '%s'.", item.backup);
        Leniently([&] { RemoveBackupFile(item.backup); });
    }
    CarryOutRows(data.items, data.warningsFile);
}

void MoveFilesExRollback(Session& session) {
    Wow64FsRedirectionGuard redirection;
    const MoveFileActionData data = DecodeMoveFileActionData(session.CustomActionData());
    UndoRows(data.undo, data.snapshot);
    CarryOutRows(data.items, data.warningsFile);
}

}  // namespace setup
