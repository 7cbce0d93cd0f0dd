#include "actions/files/text_file_actions.h"

#include <optional>
#include <set>
#include <utility>

#include "actions/files/text_file_plan.h"
#include "runtime/ca_runtime.h"
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

constexpr wchar_t kTable[] = L"TextFile";
constexpr wchar_t kQuery[] = L"SELECT `TextFile`, `File`, `Text`, `Component_`, `Condition` FROM `TextFile`";

// The table's rows, or nothing when the package has no such table.
std::optional<std::vector<TextFileRow>> ReadRows(const Session& session) {
    std::vector<TextFileRow> rows;
    const bool exists = session.ActiveDatabase().ForEachRowOfTable(kTable, kQuery, [&](const Record& record) {
        TextFileRow row;
        row.id = record.GetString(1);
        if (row.id.empty()) Throw(kFail, L"The id is empty");
        row.file = record.GetString(2);
        row.text = record.GetString(3);
        row.component = record.GetString(4);
        if (row.component.empty()) Throw(kFail, L"The component is empty in " + row.id);
        row.condition = record.GetString(5);
        rows.push_back(std::move(row));
    });
    if (!exists) return std::nullopt;
    return rows;
}

}  // namespace

InstallerTextFileMachine::InstallerTextFileMachine(const Session& session) : session_(session) {}
bool InstallerTextFileMachine::FileExists(const std::wstring& path) { return setup::FileExists(path); }
std::wstring InstallerTextFileMachine::NewUuid() { return CreateUuidString(); }
std::wstring InstallerTextFileMachine::LockFilesOnUpdate() {
    // Read once per action: the property does not change while it runs.
    if (!lock_) lock_ = session_.GetProperty(L"LOCKFILESONUPDATE");
    return *lock_;
}
bool InstallerTextFileMachine::LogContentInFull() { return CaIsVerbose(); }
std::vector<std::wstring> InstallerTextFileMachine::FormatAll(const std::vector<std::wstring>& texts) {
    return session_.FormatTexts(texts);
}

void ScheduleTextFileItems(const Session& session, std::vector<TextFileItem> items, const TextFileActionNames& names) {
    if (items.empty()) return;
    TextFileActionData data;
    data.items = std::move(items);
    if (NeedsPendingRenames(data.items)) data.snapshot = TakePendingRenameSnapshot();
    const std::wstring encoded = EncodeTextFileActionData(data);
    session.ScheduleDeferred(names.rollback, encoded);
    session.ScheduleDeferred(names.deferred, encoded);
    session.ScheduleDeferred(names.commit, encoded);
}

void InstallTextFiles(Session& session) {
    Wow64FsRedirectionGuard redirection;
    const std::optional<std::vector<TextFileRow>> rows = ReadRows(session);
    if (!rows) return;
    SessionComponentStates states(session);
    InstallerTextFileMachine machine(session);
    ProgramLogSink log;
    std::vector<TextFileItem> items = PlanTextFiles(*rows, states, machine, log);
    if (items.empty()) LogNothingToSchedule(rows->size(), L"TextFile", L"installed or reinstalled");
    ScheduleTextFileItems(session, std::move(items),
                          {L"InstallTextFilesRollback", L"InstallTextFilesDeferred", L"InstallTextFilesCommit"});
}

void InstallTextFilesDeferred(Session& session) {
    Wow64FsRedirectionGuard redirection;
    const TextFileActionData data = DecodeTextFileActionData(session.CustomActionData());
    for (const TextFileItem& item : data.items) {
        CheckWritablePath(item.path);
        if (!item.rbf.empty() && FileExists(item.path)) {
            LogInfo(L"Backing up file '%s' -> '%s'.", item.path, item.rbf);
            CheckWritablePath(item.rbf);
            CopyToNewFile(item.path, item.rbf);
        }
        if (!(item.atr & kTextFileReplaceAtReboot)) {
            LogInfo(L"Write to file '%s'.", item.path);
            WriteUtf16File(item.path, item.content);
            continue;
        }
        // The target keeps its content until the restart; a link there is
        // refused now, not followed then.
        CheckNotLink(item.path);
        NewFile staged = CreateStagingFile(DirectoryOf(item.path), L"TMP");
        LogInfo(L"Write to file '%s'.", staged.path);
        WriteUtf16(staged, item.content);
        staged.handle.Reset();
        MoveFileOnReboot(staged.path, item.path);
    }
}

void InstallTextFilesRollback(Session& session) {
    Wow64FsRedirectionGuard redirection;
    const TextFileActionData data = DecodeTextFileActionData(session.CustomActionData());
    std::set<std::wstring> pendingPaths;
    std::vector<std::pair<std::wstring, std::wstring>> restores;  // (target, backup)
    for (const TextFileItem& item : data.items) {
        if (item.atr & kTextFileReplaceAtReboot) {
            // The target itself was never written; its staged file and the
            // queued replacement are taken back below.
            LogInfo(L"Need to rollback pending rename operations of '%s'.", item.path);
            pendingPaths.insert(item.path);
        }
        if (item.rbf.empty()) {
            if (!(item.atr & kTextFileReplaceAtReboot) && FileExists(item.path)) {
                LogInfo(L"Delete file '%s'.", item.path);
                Leniently([&] { RemoveFileWithFallback(item.path, true); });
            }
            continue;
        }
        if (::GetFileAttributesW(item.rbf.c_str()) == INVALID_FILE_ATTRIBUTES) continue;  // never backed up
        restores.emplace_back(item.path, item.rbf);
    }
    if (!pendingPaths.empty()) Leniently([&] { RollbackPendingRenames(data.snapshot, pendingPaths); });
    // A target that equals its backup was never changed and is left alone;
    // any other is replaced by its backup in one step.
    for (const auto& [path, backup] : restores) Leniently([&] { RestoreFileFromBackup(path, backup); });
}

void InstallTextFilesCommit(Session& session) {
    Wow64FsRedirectionGuard redirection;
    const TextFileActionData data = DecodeTextFileActionData(session.CustomActionData());
    for (const TextFileItem& item : data.items) {
        if (item.rbf.empty() || !FileExists(item.rbf)) continue;
        LogInfo(L"Cleanup file '%s'.", item.rbf);
        Leniently([&] { RemoveBackupFile(item.rbf); });
    }
}

}  // namespace setup
