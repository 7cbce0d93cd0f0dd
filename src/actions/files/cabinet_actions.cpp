#include "actions/files/cabinet_actions.h"

#include <algorithm>
#include <optional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "actions/files/cabinet_extract.h"
#include "actions/files/cabinet_plan.h"
#include "runtime/exception.h"
#include "runtime/program_log.h"
#include "runtime/throw.h"
#include "runtime/unique_handle.h"
#include "services/file_operations.h"
#include "services/file_write.h"
#include "services/path.h"
#include "services/record_heirs.h"
#include "services/record_store.h"
#include "services/work_folder.h"

namespace setup {

namespace {

using namespace cabinet;

constexpr wchar_t kTable[] = L"CabPackage";
constexpr wchar_t kQuery[] =
    L"SELECT `CabPackage`, `Cabinet`, `Target`, `Attributes`, `Component_`, `Condition` FROM `CabPackage`";


std::optional<std::vector<CabinetRow>> ReadRows(const Session& session) {
    std::vector<CabinetRow> rows;
    const bool exists = session.ActiveDatabase().ForEachRowOfTable(kTable, kQuery, [&](const Record& record) {
        CabinetRow row;
        row.id = record.GetString(1);
        if (row.id.empty()) Throw(kFail, L"The id is empty in CabPackage table.");
        row.cabinet = record.GetString(2);
        row.target = record.GetString(3);
        row.attributes = record.GetIntegerOr(4, 0);
        row.component = record.GetString(5);
        if (row.component.empty()) Throw(kFail, L"The component is empty in CabPackage row '" + row.id + L"'.");
        row.condition = record.GetString(6);
        rows.push_back(std::move(row));
    });
    if (!exists) return std::nullopt;
    FormatRowTexts(session, rows, {&CabinetRow::cabinet, &CabinetRow::target});  // a few installer calls
    for (CabinetRow& row : rows) {
        row.cabinet = ResolvePath(row.cabinet);
        row.target = ResolvePath(row.target);
    }
    for (const CabinetRow& row : rows) {
        LogInfo(L"Configured cabinet %s, %s, %s, %d, %s, %s.", row.id, row.cabinet, row.target, row.attributes,
                row.component, row.condition);
    }
    return rows;
}

// --- The record of what a row placed ---

RecordStore Records(const CabinetItem& item) {
    return RecordStore::ForProduct(L"CabPackage", item.product, (item.attributes & PerUser) != 0);
}

std::optional<CabinetRecord> ReadRecord(const CabinetItem& item) {
    const std::optional<std::wstring> text = Records(item).Read(item.id);
    if (!text) return std::nullopt;
    return DecodeCabinetRecord(*text);
}

// Writes the record's text, or deletes it (and the keys it leaves empty) when `text` is empty.
void WriteRecord(const CabinetItem& item, const std::wstring& text) {
    const RecordStore records = Records(item);
    if (text.empty()) {
        records.Remove(item.id);
        return;
    }
    const CabinetRecord record = DecodeCabinetRecord(text);
    LogInfo(L"Record the %u files and %u folders of cabinet '%s' under '%s'.", record.files.size(),
            record.folders.size(), item.id, records.Key());
    records.Write(item.id, text);
}

// What the records of other products hold in the same hive: after a major
// upgrade that removes the old product last, the new product's extraction
// placed the same files, and they stay until the last record goes.
struct OtherRecords {
    std::set<std::wstring> files;  // lower case
    std::vector<std::wstring> folders;
};

OtherRecords ReadOtherRecords(const CabinetItem& item) {
    OtherRecords others;
    for (const RecordStore& product : Records(item).Siblings()) {
        for (const auto& [id, text] : product.ReadAll()) {
            const CabinetRecord record = DecodeCabinetRecord(text);
            for (const std::wstring& file : record.files) others.files.insert(PathKey(file));
            others.folders.insert(others.folders.end(), record.folders.begin(), record.folders.end());
        }
    }
    return others;
}

// The other products' records, read once per action and hive: only this
// product's own records change while the action runs.
class OtherRecordsCache {
public:
    const OtherRecords& For(const CabinetItem& item) {
        const std::wstring key = Records(item).Key() + ((item.attributes & PerUser) ? L"|user" : L"");
        auto it = cache_.find(key);
        if (it == cache_.end()) it = cache_.emplace(key, ReadOtherRecords(item)).first;
        return it->second;
    }

private:
    std::map<std::wstring, OtherRecords> cache_;
};

class InstallerCabinetMachine final : public CabinetMachine {
public:
    std::wstring NewUuid() override { return CreateUuidString(); }
    std::optional<CabinetRecord> ReadRecord(const CabinetItem& item) override { return setup::ReadRecord(item); }
};

// --- The journal of a row's steps ---

bool PerUserItem(const CabinetItem& item) { return (item.attributes & PerUser) != 0; }

// The row's work folder: made new by the deferred action beside the target
// (`item.work` is only the token it is recorded under).
std::wstring MakeWorkFolder(const CabinetItem& item) {
    return CreateWorkFolder(DirectoryOf(item.work), L"~cab", item.work, PerUserItem(item));
}

// The row's journal in its work folder, open for appending.
class Journal {
public:
    explicit Journal(const std::wstring& work) : path_(JoinPath(work, L"journal")) {
        file_.Reset(::CreateFileW(LongPathForm(path_).c_str(), FILE_APPEND_DATA, FILE_SHARE_READ, nullptr,
                                  CREATE_NEW, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
        ThrowLastErrorIf(!file_, L"Failed to write file '" + path_ + L"'.");
    }

    void Write(JournalEntry::Kind kind, const std::wstring& path, const std::wstring& kept = {}) {
        const std::wstring line = EncodeJournalEntry({kind, path, kept});
        DWORD written = 0;
        const DWORD size = static_cast<DWORD>(line.size() * sizeof(wchar_t));
        ThrowLastErrorIf(!::WriteFile(file_.Get(), line.data(), size, &written, nullptr) || written != size,
                         L"Failed to write file '" + path_ + L"'.");
    }

private:
    std::wstring path_;
    FileHandle file_;
};

std::vector<JournalEntry> ReadJournal(const std::wstring& work) {
    FileHandle file(::CreateFileW(LongPathForm(JoinPath(work, L"journal")).c_str(), GENERIC_READ,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
    if (!file) return {};
    std::wstring text;
    wchar_t buffer[4096];
    DWORD read = 0;
    while (::ReadFile(file.Get(), buffer, sizeof buffer, &read, nullptr) && read > 0) {
        text.append(buffer, read / sizeof(wchar_t));
    }
    return DecodeJournal(text);
}

// --- Small file steps on long paths ---

DWORD Attributes(const std::wstring& path) {
    // "\\?\C:" names no folder; "\\?\C:\" does.
    return ::GetFileAttributesW(LongPathForm(IsRootPath(path) ? path + L"\\" : path).c_str());
}
bool Exists(const std::wstring& path) { return Attributes(path) != INVALID_FILE_ATTRIBUTES; }

void Rename(const std::wstring& from, const std::wstring& to, const std::wstring& failure) {
    ThrowLastErrorIf(!::MoveFileExW(LongPathForm(from).c_str(), LongPathForm(to).c_str(), 0), failure);
}

bool DeleteFileNow(const std::wstring& path) {
    ::SetFileAttributesW(LongPathForm(path).c_str(), FILE_ATTRIBUTE_NORMAL);
    return ::DeleteFileW(LongPathForm(path).c_str()) != FALSE;
}

// The folders from the first missing one down to `folder`, top first.
std::vector<std::wstring> MissingFolders(const std::wstring& folder) {
    std::vector<std::wstring> missing;
    for (std::wstring f = folder; !f.empty() && !IsRootPath(f) && !Exists(f); f = DirectoryOf(f)) {
        missing.push_back(f);
    }
    std::reverse(missing.begin(), missing.end());
    return missing;
}

// Creates the missing folders down to `folder`, each written to the journal
// first; returns them.
std::vector<std::wstring> CreateMissingFolders(Journal& journal, const std::wstring& folder) {
    const std::vector<std::wstring> missing = MissingFolders(folder);
    for (const std::wstring& f : missing) {
        journal.Write(JournalEntry::Folder, f);
        ThrowLastErrorIf(!::CreateDirectoryW(LongPathForm(f).c_str(), nullptr) &&
                             ::GetLastError() != ERROR_ALREADY_EXISTS,
                         L"Failed to create folder '" + f + L"'.");
    }
    return missing;
}

// --- Carrying out a row ---

constexpr std::size_t kKeptPerFolder = 256;

void Extract(const CabinetItem& item, OtherRecordsCache& otherRecords, CabinetLibrary& cabinets) {
    if (const std::wstring why = CabinetTargetProblem(item.target); !why.empty()) {
        Throw(kInvalidArgument, L"Refused to extract cabinet '" + item.id + L"' into '" + item.target + L"': " + why +
                                    L".");
    }
    if (!FileExists(item.cabinet)) {
        Throw(HResultFromWin32(ERROR_FILE_NOT_FOUND),
              L"Failed to extract cabinet '" + item.cabinet + L"': the file does not exist.");
    }
    // The folders above the target first: the work folder lives beside it.
    const std::vector<std::wstring> above = MissingFolders(DirectoryOf(item.target));
    CreateFolders(LongPathForm(DirectoryOf(item.target)));
    const std::wstring work = MakeWorkFolder(item);
    Journal journal(work);
    CabinetRecord added{item.target, {}, {}};
    for (const std::wstring& f : above) {
        journal.Write(JournalEntry::Folder, f);
        added.folders.push_back(f);
    }
    for (const std::wstring& f : CreateMissingFolders(journal, item.target)) added.folders.push_back(f);

    LogInfo(L"Extract cabinet '%s' into '%s'.", item.cabinet, work);
    const std::wstring staging = JoinPath(work, L"new");
    const std::vector<std::wstring> names = cabinets.Extract(item.cabinet, staging);
    // A file an earlier extraction placed is replaced even without 0x1: this
    // row's own (a repair), or another product's (a major upgrade: both
    // records then hold it, and it stays until the last one goes).
    const std::optional<CabinetRecord> earlier = ReadRecord(item);
    const OtherRecords& others = otherRecords.For(item);
    std::set<std::wstring> placedBefore = others.files;
    if (earlier) {
        for (const std::wstring& file : earlier->files) placedBefore.insert(PathKey(file));
    }
    for (const std::wstring& name : names) {
        const std::wstring from = JoinPath(staging, name);
        const std::wstring to = JoinPath(item.target, name);
        for (const std::wstring& f : CreateMissingFolders(journal, DirectoryOf(to))) added.folders.push_back(f);
        const DWORD attributes = Attributes(to);
        if (attributes == INVALID_FILE_ATTRIBUTES) {
            journal.Write(JournalEntry::Placed, to);
            LogInfo(L"Extract file '%s'.", to);
            Rename(from, to, L"Failed to move file '" + from + L"' -> '" + to + L"'.");
        } else {
            if (attributes & FILE_ATTRIBUTE_REPARSE_POINT) {
                Throw(HResultFromWin32(ERROR_ACCESS_DENIED), L"Refused to write '" + to + L"': it is a link (reparse point).");
            }
            if (attributes & FILE_ATTRIBUTE_DIRECTORY) {
                Throw(HResultFromWin32(ERROR_ALREADY_EXISTS),
                      L"Failed to extract '" + name + L"' from cabinet '" + item.cabinet + L"': '" + to +
                          L"' is a folder.");
            }
            if (!(item.attributes & Overwrite) && placedBefore.count(PathKey(to)) == 0) {
                LogInfo(L"Keep the existing file '%s': the row does not overwrite files (0x1).", to);
                continue;
            }
            const std::wstring kept = JoinPath(JoinPath(work, L"old"), name);
            CreateFolders(LongPathForm(DirectoryOf(kept)));
            journal.Write(JournalEntry::Replaced, to, kept);
            LogInfo(L"Replace file '%s'.", to);
            Rename(to, kept, L"Failed to back up file '" + to + L"'.");
            Rename(from, to, L"Failed to move file '" + from + L"' -> '" + to + L"'.");
        }
        added.files.push_back(to);
    }
    // The folders another product created for the same files are this row's too.
    const std::wstring inside = PathKey(item.target);
    for (const std::wstring& folder : others.folders) {
        const std::wstring lower = PathKey(folder);
        if (lower == inside || lower.rfind(inside + L"\\", 0) == 0) added.folders.push_back(folder);
    }
    journal.Write(JournalEntry::Record, earlier ? EncodeCabinetRecord(*earlier) : std::wstring());
    WriteRecord(item, EncodeCabinetRecord(MergeCabinetRecords(earlier.value_or(CabinetRecord{}), added)));
}

// Uninstall: the recorded files go into the work folder, then the recorded
// folders left empty, deepest first, then the record.
void Remove(const CabinetItem& item, OtherRecordsCache& otherRecords) {
    if (!Exists(DirectoryOf(item.target))) {
        LogInfo(L"Nothing to remove for cabinet '%s': the folder '%s' is gone.", item.id, item.target);
        WriteRecord(item, {});
        return;
    }
    const std::wstring work = MakeWorkFolder(item);
    Journal journal(work);
    const std::set<std::wstring>& shared = otherRecords.For(item).files;
    for (std::size_t i = 0; i < item.record.files.size(); ++i) {
        const std::wstring& path = item.record.files[i];
        const DWORD attributes = Attributes(path);
        if (attributes == INVALID_FILE_ATTRIBUTES) {
            LogInfo(L"The file '%s' is already gone.", path);
            continue;
        }
        if (shared.count(PathKey(path)) != 0) {
            LogInfo(L"Leave '%s' in place: the cabinet of another product placed it too.", path);
            continue;
        }
        if (attributes & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY)) {
            LogInfo(L"Leave '%s' in place: it is no longer the file the cabinet placed.", path);
            continue;
        }
        // A few hundred to a folder: Wine looks a new name up by reading its
        // whole folder, so one folder of every removed file would cost N^2.
        const std::wstring kept =
            JoinPath(JoinPath(JoinPath(work, L"old"), std::to_wstring(i / kKeptPerFolder)), std::to_wstring(i));
        CreateFolders(LongPathForm(DirectoryOf(kept)));
        journal.Write(JournalEntry::Removed, path, kept);
        LogInfo(L"Remove file '%s'.", path);
        Rename(path, kept, L"Failed to remove file '" + path + L"'.");
    }
    std::vector<std::wstring> folders = item.record.folders;
    std::stable_sort(folders.begin(), folders.end(),
                     [](const std::wstring& a, const std::wstring& b) { return a.size() > b.size(); });
    for (const std::wstring& folder : folders) {
        if (!FolderIsEmpty(LongPathForm(folder))) continue;
        journal.Write(JournalEntry::RemovedFolder, folder);
        LogInfo(L"Remove folder '%s'.", folder);
        if (!::RemoveDirectoryW(LongPathForm(folder).c_str())) {
            LogInfo(L"Failed to remove folder '%s'. Error 0x%x.", folder, FailureFromWin32(::GetLastError()));
        }
    }
    journal.Write(JournalEntry::Record, EncodeCabinetRecord(item.record));
    WriteRecord(item, {});
}

// Takes a row back from its journal, latest step first; the work folder goes,
// then the folders the row created, when they are empty.
void RollbackItem(const CabinetItem& item) {
    const std::optional<std::wstring> work = FindWorkFolder(item.work, PerUserItem(item));
    if (!work) {
        RemoveWorkFolder(item.work, PerUserItem(item));  // drops a record that is left
        return;  // the deferred step never began, or its folder is no longer its own
    }
    LogInfo(L"Rollback cabinet '%s' from '%s'.", item.id, *work);
    const std::vector<JournalEntry> entries = ReadJournal(*work);
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        const JournalEntry& entry = *it;
        switch (entry.kind) {
        case JournalEntry::Placed:
            if (Exists(entry.path)) {
                LogInfo(L"Remove file '%s'.", entry.path);
                if (!DeleteFileNow(entry.path)) Leniently([&] { RemoveFileOnReboot(entry.path); });
            }
            break;
        case JournalEntry::Replaced:
        case JournalEntry::Removed:
            if (!Exists(entry.kept)) break;  // the step was never taken
            if (entry.kind == JournalEntry::Replaced && Exists(entry.path)) DeleteFileNow(entry.path);
            LogInfo(L"Restore file '%s'.", entry.path);
            Leniently([&] { Rename(entry.kept, entry.path, L"Failed to restore file '" + entry.path + L"'."); });
            break;
        case JournalEntry::RemovedFolder:
            LogInfo(L"Create folder '%s'.", entry.path);
            Leniently([&] { CreateFolders(LongPathForm(entry.path)); });
            break;
        case JournalEntry::Record:
            Leniently([&] { WriteRecord(item, entry.path); });
            break;
        case JournalEntry::Folder: break;
        }
    }
    RemoveWorkFolder(item.work, PerUserItem(item));
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        if (it->kind != JournalEntry::Folder || !FolderIsEmpty(LongPathForm(it->path))) continue;
        LogInfo(L"Remove folder '%s'.", it->path);
        ::RemoveDirectoryW(LongPathForm(it->path).c_str());
    }
}

// Carries out the rows in order. A row that only warns is taken back at once
// when it fails, and the failure becomes a warning; any other failure ends the
// action (the installer's rollback then takes back every row).
void CarryOut(const CabinetActionData& data) {
    std::vector<std::wstring> warnings;
    OtherRecordsCache otherRecords;
    CabinetLibrary cabinets;
    for (const CabinetItem& item : data.items) {
        try {
            item.remove ? Remove(item, otherRecords) : Extract(item, otherRecords, cabinets);
        } catch (const Exception& e) {
            if (!(item.attributes & WarnOnFailure)) {
                WriteWarnings(data.warningsFile, warnings);
                throw;
            }
            warnings.push_back(Format(L"Warning: %s Error 0x%x.", e.Message(), e.Code()));
            LogLine(warnings.back());
            RollbackItem(item);
        }
    }
    CarryOutHandovers(L"CabPackage", data.product, data.handovers, &MergeCabinetRecordTexts);
    WriteWarnings(data.warningsFile, warnings);
}

void Plan(Session& session, bool uninstalling) {
    std::optional<std::vector<CabinetRow>> rows = ReadRows(session);
    if (!rows) return;
    SessionComponentStates states(session);
    InstallerCabinetMachine machine;
    ProgramLogSink log;
    const std::wstring product = session.GetProperty(L"ProductCode");
    CabinetActionData system, user;
    system.product = user.product = product;
    if (uninstalling) {
        // Records that pass to another product are not taken back here.
        std::vector<RecordRow> recorded;
        for (const CabinetRow& row : *rows) recorded.push_back({row.id, row.component, (row.attributes & PerUser) != 0});
        InstallerRecordHeirs heirs(session, L"CabPackage");
        for (RecordHandover& handover :
             PlanRecordHandovers(recorded, states, ProductRemovalOf(session), heirs, L"cabinet", log)) {
            std::erase_if(*rows, [&](const CabinetRow& row) { return row.id == handover.id; });
            (handover.perUser ? user : system).handovers.push_back(std::move(handover));
        }
    }
    const std::vector<CabinetItem> items = PlanCabinets(*rows, states, uninstalling, product, machine, log);
    for (const CabinetItem& item : items) ((item.attributes & PerUser) ? user : system).items.push_back(item);
    if (items.empty() && system.handovers.empty() && user.handovers.empty()) {
        LogNothingToSchedule(rows->size(), L"CabPackage", uninstalling ? L"removed" : L"installed or reinstalled");
        return;
    }
    const std::wstring warnings = session.GetProperty(L"InstallationWarningsFilePath");
    system.warningsFile = user.warningsFile = warnings;
    // The rollback first: it must be in the script before the work it takes back.
    for (const auto& [data, suffix] : {std::pair{&system, L""}, std::pair{&user, L"User"}}) {
        if (!data->items.empty() || !data->handovers.empty()) {
            session.ScheduleDeferred(std::wstring(L"InstallCabsRollback") + suffix, EncodeCabinetActionData(*data));
        }
    }
    for (const auto& [data, suffix] : {std::pair{&system, L""}, std::pair{&user, L"User"}}) {
        if (data->items.empty() && data->handovers.empty()) continue;
        const std::wstring text = EncodeCabinetActionData(*data);
        session.ScheduleDeferred(std::wstring(L"InstallCabsDeferred") + suffix, text);
        session.ScheduleDeferred(std::wstring(L"InstallCabsCommit") + suffix, text);
    }
}

}  // namespace

void InstallCabs(Session& session) { Plan(session, false); }

void UninstallCabs(Session& session) { Plan(session, true); }

void InstallCabsDeferred(Session& session) {
    Wow64FsRedirectionGuard redirection;
    CarryOut(DecodeCabinetActionData(session.CustomActionData()));
}

void InstallCabsDeferredUser(Session& session) { InstallCabsDeferred(session); }

void InstallCabsRollback(Session& session) {
    Wow64FsRedirectionGuard redirection;
    const CabinetActionData data = DecodeCabinetActionData(session.CustomActionData());
    RollbackHandovers(L"CabPackage", data.product, data.handovers);
    for (auto it = data.items.rbegin(); it != data.items.rend(); ++it) RollbackItem(*it);
}

void InstallCabsCommit(Session& session) {
    Wow64FsRedirectionGuard redirection;
    const CabinetActionData data = DecodeCabinetActionData(session.CustomActionData());
    for (const CabinetItem& item : data.items) {
        RemoveWorkFolder(item.work, PerUserItem(item));
        if (!item.remove && (item.attributes & DeleteOnCommit) && FileExists(item.cabinet)) {
            LogInfo(L"Remove cabinet '%s'.", item.cabinet);
            Leniently([&] { RemoveFileWithFallback(item.cabinet, true); });
        }
    }
}

}  // namespace setup
