#include "actions/files/remove_file_actions.h"

#include <cwctype>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "actions/files/remove_file_plan.h"
#include "runtime/exception.h"
#include "runtime/program_log.h"
#include "runtime/throw.h"
#include "services/file_operations.h"
#include "services/path.h"
#include "services/work_folder.h"
#include "services/pending_rename_store.h"

namespace setup {

namespace {

using namespace remove_file;

constexpr wchar_t kTable[] = L"RemoveFileEx";
constexpr wchar_t kQuery[] =
    L"SELECT `RemoveFileEx`, `Component_`, `Path`, `Phase`, `Attributes`, `Condition` FROM `RemoveFileEx`";

std::optional<std::vector<RemoveFileRow>> ReadRows(const Session& session) {
    std::vector<RemoveFileRow> rows;
    const bool exists = session.ActiveDatabase().ForEachRowOfTable(kTable, kQuery, [&](const Record& record) {
        RemoveFileRow row;
        row.id = record.GetString(1);
        if (row.id.empty()) Throw(kFail, L"The id is empty in RemoveFileEx table.");
        row.component = record.GetString(2);
        if (row.component.empty()) Throw(kFail, L"The component is empty in RemoveFileEx row '" + row.id + L"'.");
        row.path = record.GetString(3);
        row.phase = record.GetIntegerOr(4, 0);
        row.attributes = record.GetIntegerOr(5, 0);
        row.condition = record.GetString(6);
        rows.push_back(std::move(row));
    });
    if (!exists) return std::nullopt;
    FormatRowTexts(session, rows, {&RemoveFileRow::path});  // all together: a few installer calls
    for (RemoveFileRow& row : rows) row.path = ResolvePath(row.path);
    for (const RemoveFileRow& row : rows) {
        LogInfo(L"Configured remove files %s, %s, %s, %d, %d, %s.", row.id, row.component, row.path, row.phase,
                row.attributes, row.condition);
    }
    return rows;
}

class InstallerRemoveFileMachine final : public RemoveFileMachine {
public:
    bool IsFolder(const std::wstring& path) override { return FolderExists(path); }
    std::wstring NewUuid() override { return CreateUuidString(); }
};

std::wstring Environment(const wchar_t* name) {
    wchar_t buffer[1024];
    const DWORD n = ::GetEnvironmentVariableW(name, buffer, 1024);
    return n > 0 && n < 1024 ? std::wstring(buffer, n) : std::wstring();
}

// The folders no row may remove, nor a folder above them.
std::vector<std::wstring> ProtectedFolders() {
    std::vector<std::wstring> folders;
    wchar_t buffer[MAX_PATH + 1];
    if (UINT n = ::GetWindowsDirectoryW(buffer, MAX_PATH + 1); n > 0 && n <= MAX_PATH) folders.emplace_back(buffer, n);
    if (UINT n = ::GetSystemDirectoryW(buffer, MAX_PATH + 1); n > 0 && n <= MAX_PATH) folders.emplace_back(buffer, n);
    for (const wchar_t* name : {L"ProgramFiles", L"ProgramFiles(x86)", L"ProgramW6432", L"CommonProgramFiles",
                                L"ProgramData", L"ALLUSERSPROFILE", L"PUBLIC", L"USERPROFILE"}) {
        folders.push_back(Environment(name));
    }
    const std::wstring profile = Environment(L"USERPROFILE");
    if (!profile.empty()) folders.push_back(DirectoryOf(profile));  // the folder of all profiles
    return folders;
}

// The files under `folder` whose names match `pattern`, and with `recursive`
// those of its subfolders, which are listed too (parents first). A link
// (reparse point) is never entered, moved or removed: Wine applies every
// removal and rename of a host link to its target, so the one safe thing to
// do with a link is to leave it where it is; it is listed in `links`.
void Collect(const std::wstring& folder, const std::wstring& pattern, bool recursive, const std::wstring& skip,
             std::vector<std::wstring>& files, std::vector<std::wstring>& folders, std::vector<std::wstring>& links) {
    WIN32_FIND_DATAW data;
    const std::wstring search = JoinPath(folder, L"*");
    HANDLE find = ::FindFirstFileW(search.c_str(), &data);
    if (find == INVALID_HANDLE_VALUE) return;
    do {
        const std::wstring name = data.cFileName;
        if (name == L"." || name == L"..") continue;
        const std::wstring path = JoinPath(folder, name);
        if (path == skip) continue;
        const bool isFolder = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        // Wine's directory listing does not flag a link to a folder; the
        // folder's own attributes do. Asked for folders only (one lookup each).
        const bool link = (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 ||
                          (isFolder && (::GetFileAttributesW(path.c_str()) & FILE_ATTRIBUTE_REPARSE_POINT) != 0);
        if (link) {
            if (recursive || MatchesPattern(name, pattern)) links.push_back(path);
        } else if (isFolder) {
            if (!recursive) continue;
            folders.push_back(path);
            Collect(path, pattern, recursive, skip, files, folders, links);
        } else if (MatchesPattern(name, pattern)) {
            files.push_back(path);
        }
    } while (::FindNextFileW(find, &data));
    ::FindClose(find);
}

bool HasWildcard(const std::wstring& pattern) { return pattern.find_first_of(L"*?") != std::wstring::npos; }

// What one row removes: its files, then (with 0x10) the folders left empty,
// deepest first, the row's own folder last when the path names it.
struct Removal {
    RemovalTarget target;
    std::vector<std::wstring> files;
    std::vector<std::wstring> folders;
};

// Nothing when the row is refused or has nothing to remove (logged).
RemovalTarget ItemTarget(const RemoveFileItem& item) {
    // A deferred row's reading was decided when it was planned: its rollback
    // must find the same folder even after the folder itself is gone.
    const bool folder = item.phase == Deferred ? item.wholeFolder : FolderExists(item.path);
    return TargetOf(item.path, folder);
}

std::optional<Removal> Find(const RemoveFileItem& item) {
    Removal removal;
    removal.target = ItemTarget(item);
    if (const std::wstring why = RemovalProblem(removal.target.folder, ProtectedFolders()); !why.empty()) {
        const std::wstring text = L"Refused to remove files '" + item.id + L"', '" + item.path + L"': " + why + L".";
        if (item.attributes & Strict) Throw(HResultFromWin32(ERROR_ACCESS_DENIED), text);
        LogInfo(L"%s", text);
        return std::nullopt;
    }
    if (!FolderExists(removal.target.folder)) {
        LogInfo(L"Nothing to remove for '%s': the folder '%s' does not exist.", item.id, removal.target.folder);
        return std::nullopt;
    }
    std::vector<std::wstring> folders;
    const bool recursive = (item.attributes & Recursive) != 0;
    std::vector<std::wstring> links;
    if (removal.target.wholeFolder || HasWildcard(removal.target.pattern)) {
        // The backup folder an earlier row of the same folder made is passed over.
        const std::wstring backup =
            item.backup.empty() ? std::wstring() : FindWorkFolder(item.backup, false).value_or(std::wstring());
        Collect(removal.target.folder, removal.target.pattern, recursive, backup, removal.files, folders, links);
    } else {
        const DWORD attributes = ::GetFileAttributesW(item.path.c_str());
        if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT)) {
            links.push_back(item.path);
        } else if (attributes != INVALID_FILE_ATTRIBUTES) {
            removal.files.push_back(item.path);
        }
    }
    for (const std::wstring& link : links) {
        LogInfo(L"Leave the link '%s' in place: a link is never entered or removed, so what it points to is safe.",
                link);
    }
    if (item.attributes & RemoveEmptyFolders) {
        for (auto it = folders.rbegin(); it != folders.rend(); ++it) removal.folders.push_back(*it);
        if (removal.target.wholeFolder) removal.folders.push_back(removal.target.folder);
    }
    if (removal.files.empty() && removal.folders.empty()) LogInfo(L"Nothing to remove for '%s'.", item.id);
    return removal;
}

// A failure of a lenient row: logged, and the entry queued for removal at the next restart.
void FailOrQueue(const RemoveFileItem& item, const std::wstring& path, bool folder, const std::wstring& failure) {
    const DWORD error = ::GetLastError();
    if (item.attributes & Strict) Throw(FailureFromWin32(error), failure);
    LogInfo(L"%s Error 0x%x.", failure, FailureFromWin32(error));
    Leniently([&] { folder ? RemoveDirectoryOnReboot(path) : RemoveFileOnReboot(path); });
}

// Removes for good: immediate, commit and rollback-only rows.
void RemoveNow(const RemoveFileItem& item) {
    const std::optional<Removal> removal = Find(item);
    if (!removal) return;
    for (const std::wstring& file : removal->files) {
        LogInfo(L"Remove file '%s'.", file);
        ::SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_NORMAL);
        if (!::DeleteFileW(file.c_str())) FailOrQueue(item, file, false, L"Failed to remove file " + file);
    }
    for (const std::wstring& folder : removal->folders) {
        if (!FolderIsEmpty(folder)) continue;
        LogInfo(L"Remove folder '%s'.", folder);
        if (!::RemoveDirectoryW(folder.c_str())) FailOrQueue(item, folder, true, L"Failed to remove folder " + folder);
    }
}

// The place of `path` (under `folder`) inside the backup folder `backup`.
std::wstring InBackup(const std::wstring& backup, const std::wstring& folder, const std::wstring& path) {
    return path.size() > folder.size() ? JoinPath(backup, path.substr(folder.size() + 1)) : backup;
}

// A deferred row's backup folder: made new by the deferred action (`item.backup`
// is only the token it is recorded under; rows that share it share the folder).
std::wstring MakeBackupFolder(const RemoveFileItem& item) {
    return CreateWorkFolder(DirectoryOf(item.backup), L"~rfx", item.backup, false);
}

// Removes undoably: each file is renamed into the row's backup folder (same
// volume), each emptied folder recorded there before it goes.
void RemoveIntoBackup(const RemoveFileItem& item) {
    const std::optional<Removal> removal = Find(item);
    if (!removal || (removal->files.empty() && removal->folders.empty())) return;
    const std::wstring backup = MakeBackupFolder(item);
    const std::wstring& base = removal->target.folder;
    for (const std::wstring& file : removal->files) {
        if (PathKey(file) == PathKey(backup)) continue;
        const std::wstring kept = InBackup(backup, base, file);
        LogInfo(L"Remove file '%s'.", file);
        CreateFolders(DirectoryOf(kept));
        if (!::MoveFileExW(file.c_str(), kept.c_str(), 0)) FailOrQueue(item, file, false, L"Failed to remove file " + file);
    }
    for (const std::wstring& folder : removal->folders) {
        if (!FolderIsEmpty(folder)) continue;
        LogInfo(L"Remove folder '%s'.", folder);
        if (PathKey(folder) == PathKey(backup)) continue;
        CreateFolders(InBackup(backup, base, folder));
        if (!::RemoveDirectoryW(folder.c_str())) FailOrQueue(item, folder, true, L"Failed to remove folder " + folder);
    }
}

// Queues the row's files, then its emptied folders, for removal at the next restart.
void RemoveAtRestart(const RemoveFileItem& item) {
    const std::optional<Removal> removal = Find(item);
    if (!removal) return;
    for (const std::wstring& file : removal->files) RemoveFileOnReboot(file);
    for (const std::wstring& folder : removal->folders) RemoveDirectoryOnReboot(folder);
}

// Puts back everything under `kept` (a backup folder or one of its folders)
// at `original`: folders first, then their files.
void RestoreTree(const std::wstring& kept, const std::wstring& original) {
    if (!FolderExists(original)) {
        LogInfo(L"Create folder '%s'.", original);
        Leniently([&] { CreateFolders(original); });
    }
    WIN32_FIND_DATAW data;
    HANDLE find = ::FindFirstFileW(JoinPath(kept, L"*").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE) return;
    std::vector<std::pair<std::wstring, bool>> entries;
    do {
        const std::wstring name = data.cFileName;
        if (name == L"." || name == L"..") continue;
        const bool realFolder = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) &&
                                !(data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT);
        entries.emplace_back(name, realFolder);
    } while (::FindNextFileW(find, &data));
    ::FindClose(find);
    for (const auto& [name, realFolder] : entries) {
        const std::wstring from = JoinPath(kept, name);
        const std::wstring to = JoinPath(original, name);
        if (realFolder) {
            RestoreTree(from, to);
            ::RemoveDirectoryW(from.c_str());
            continue;
        }
        LogInfo(L"Move file '%s' -> '%s'.", from, to);
        if (!::MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING)) {
            LogInfo(L"Failed to move file '%s' -> '%s'. Error 0x%x.", from, to, FailureFromWin32(::GetLastError()));
        }
    }
}

bool Under(const std::wstring& path, const std::wstring& folder) {
    if (path.size() <= folder.size()) return false;
    for (std::size_t i = 0; i < folder.size(); ++i) {
        if (std::towlower(path[i]) != std::towlower(folder[i])) return false;
    }
    return path[folder.size()] == L'\\' || folder.back() == L'\\';
}

// Takes back the restart-time removals the rows queued (theirs: added since
// the snapshot, a deletion of something under a row's folder).
void RollbackRestartRemovals(const std::vector<RemoveFileItem>& items, const PendingRenameSnapshot& snapshot) {
    std::vector<std::wstring> folders;
    for (const RemoveFileItem& item : items) folders.push_back(ItemTarget(item).folder);
    const PendingRenameList current = ReadPendingRenamesLeniently();
    std::set<std::wstring> paths;
    for (std::size_t i = snapshot.entries.size(); i < current.size(); ++i) {
        if (!current[i].target.empty()) continue;
        const std::wstring source = RemoveNtPrefix(current[i].source);
        for (const std::wstring& folder : folders) {
            if (source == folder || Under(source, folder)) paths.insert(source);
        }
    }
    if (paths.empty()) return;
    LogInfo(L"Rollback pending rename operations.");
    Leniently([&] { RollbackPendingRenames(snapshot, paths); });
}

}  // namespace

void RemoveFilesEx(Session& session) {
    Wow64FsRedirectionGuard redirection;
    const std::optional<std::vector<RemoveFileRow>> rows = ReadRows(session);
    if (!rows) return;
    SessionComponentStates states(session);
    InstallerRemoveFileMachine machine;
    ProgramLogSink log;
    const bool upgrading = !session.GetProperty(L"UPGRADINGPRODUCTCODE").empty();
    RemoveFilePhases phases = PlanRemoveFiles(*rows, states, upgrading, machine, log);
    if (phases.immediate.empty() && phases.deferred.empty() && phases.rollback.empty() && phases.commit.empty()) {
        LogNothingToSchedule(rows->size(), L"RemoveFileEx", L"installed, reinstalled or removed in a phase it names");
        return;
    }
    for (const RemoveFileItem& item : phases.immediate) RemoveNow(item);

    RemoveFileActionData rollback;
    rollback.items = std::move(phases.rollback);
    rollback.undo = phases.deferred;
    if (!rollback.undo.empty()) rollback.snapshot = TakePendingRenameSnapshot();
    if (!rollback.items.empty() || !rollback.undo.empty()) {
        session.ScheduleDeferred(L"RemoveFilesExRollback", EncodeRemoveFileActionData(rollback));
    }
    if (!phases.deferred.empty()) {
        RemoveFileActionData deferred;
        deferred.mode = L"deferred";
        deferred.items = phases.deferred;
        session.ScheduleDeferred(L"RemoveFilesExDeferred", EncodeRemoveFileActionData(deferred));
    }
    RemoveFileActionData commit;
    commit.mode = L"commit";
    commit.items = std::move(phases.commit);
    for (const RemoveFileItem& item : phases.deferred) {
        if (!item.backup.empty()) commit.undo.push_back(item);
    }
    if (!commit.items.empty() || !commit.undo.empty()) {
        session.ScheduleDeferred(L"RemoveFilesExCommit", EncodeRemoveFileActionData(commit));
    }
}

void RemoveFilesExFinalize(Session& session) {
    Wow64FsRedirectionGuard redirection;
    const RemoveFileActionData data = DecodeRemoveFileActionData(session.CustomActionData());
    if (data.mode == L"commit") {
        for (const RemoveFileItem& item : data.undo) RemoveWorkFolder(item.backup, false);
        for (const RemoveFileItem& item : data.items) Leniently([&] { RemoveNow(item); });
        return;
    }
    for (const RemoveFileItem& item : data.items) {
        if (item.phase == AtRestart) {
            RemoveAtRestart(item);
        } else {
            RemoveIntoBackup(item);
        }
    }
}

void RemoveFilesExRollback(Session& session) {
    Wow64FsRedirectionGuard redirection;
    const RemoveFileActionData data = DecodeRemoveFileActionData(session.CustomActionData());
    RollbackRestartRemovals(data.undo, data.snapshot);
    for (auto it = data.undo.rbegin(); it != data.undo.rend(); ++it) {
        const RemoveFileItem& item = *it;
        if (item.backup.empty()) continue;
        const std::optional<std::wstring> backup = FindWorkFolder(item.backup, false);
        if (!backup) continue;  // the deferred step never made it, or it is no longer its own
        const RemovalTarget target = ItemTarget(item);
        LogInfo(L"Restore files of '%s' from '%s'.", item.id, *backup);
        RestoreTree(*backup, target.folder);
    }
    for (const RemoveFileItem& item : data.undo) {
        if (!item.backup.empty()) RemoveWorkFolder(item.backup, false);
    }
    for (const RemoveFileItem& item : data.items) Leniently([&] { RemoveNow(item); });
}

}  // namespace setup
