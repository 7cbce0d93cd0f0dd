#include "actions/registry/registry_ex_actions.h"

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "actions/files/text_file_actions.h"
#include "actions/registry/registry_access.h"
#include "actions/registry/registry_ex_plan.h"
#include "actions/registry/registry_notation.h"
#include "runtime/exception.h"
#include "runtime/installer_calls.h"
#include "runtime/program_log.h"
#include "runtime/string_buffer.h"
#include "runtime/throw.h"
#include "services/file_operations.h"
#include "services/path.h"

namespace setup {

namespace {

constexpr wchar_t kTable[] = L"RegistryEx";
constexpr wchar_t kQuery[] =
    L"SELECT `RegistryEx`, `Root`, `Key`, `Name`, `Value`, `Component_`, `Attributes`, `Condition`, `File` FROM "
    L"`RegistryEx`";
constexpr wchar_t kComponentIdQuery[] = L"SELECT `ComponentId` FROM `Component` WHERE `Component` = ?";

// The table's rows read and resolved, or nothing when the package has no such
// table. Every row is read and logged, whatever this installation does to its
// component: the per-row lines are the table's contract.
std::optional<std::vector<RegistryExRow>> ReadRows(const Session& session, SessionComponentStates& components,
                                                   LogSink& log) {
    const Database database = session.ActiveDatabase();
    if (!database.TableExists(kTable)) {
        log.Info(L"There is no 'RegistryEx' table.");
        return std::nullopt;
    }
    const std::wstring forceInstall = session.GetProperty(L"ForceInstallRegFileComponents");
    RegistryExReading reading;
    reading.wow64 = IsWow64();
    reading.system64 = sizeof(void*) == 8 || reading.wow64;
    LogRegistryExReading(reading, log);
    reading.withoutRollback = session.GetProperty(L"RegFileComponentsWithoutRollback");
    reading.ignoreFile = !session.GetProperty(L"IgnoreRegistryExFileAttribute").empty();
    reading.forceInstall = forceInstall;
    std::vector<RegistryExRow> rows;
    database.ForEachRow(kQuery, [&](const Record& record) {
        RegistryExRow row;
        row.id = record.GetString(1);
        row.root = record.GetIntegerOr(2, 0);
        row.key = record.GetString(3);  // formatted below, all rows together
        row.name = record.GetString(4);
        row.value = record.GetString(5);
        row.component = record.GetString(6);
        row.attributes = record.GetIntegerOr(7, 0);
        row.condition = record.GetString(8);
        row.file = record.GetString(9);
        ApplyReadingRules(row, reading, log);
        rows.push_back(std::move(row));
    });
    FormatRowTexts(session, rows,
                   {&RegistryExRow::key, &RegistryExRow::name, &RegistryExRow::value, &RegistryExRow::file});
    for (RegistryExRow& row : rows) {
        row.secret = HoldsLogSecret(row.value) || HoldsLogSecret(row.name) || HoldsLogSecret(row.key);
    }
    ResolveComponentStates(rows, components, reading.forceInstall, log);
    return rows;
}

// Where the installer finds the component on this machine, for any product
// (MsiLocateComponentW over the component's GUID): 3 or more when present.
int LocateComponent(const Session& session, const std::wstring& component) {
    View view = session.ActiveDatabase().OpenView(kComponentIdQuery);
    Record parameter = Record::Create(1);
    parameter.SetString(1, component);
    view.Execute(parameter);
    const std::optional<Record> row = view.Fetch();
    if (!row) return install_state::Unknown;
    const std::wstring guid = row->GetString(1);
    DWORD size = 0;
    return InstallerCall(::MsiLocateComponentW, guid.c_str(), nullptr, &size);
}

class MachineRegistry final : public RegistryReader {
public:
    int ExistingDepth(int root, const std::wstring& key, std::uint32_t view) override {
        return snapshot_.ExistingDepth(root, key, view);
    }
    std::optional<RegistryValue> Value(int root, const std::wstring& key, const std::wstring& name,
                                       std::uint32_t view) override {
        return snapshot_.Value(root, key, name, view);
    }
    std::vector<std::pair<std::wstring, std::vector<RegistryValue>>> Tree(int root, const std::wstring& key,
                                                                          std::uint32_t view) override {
        std::vector<std::pair<std::wstring, std::vector<RegistryValue>>> tree;
        for (std::wstring& path : CollectKeyTree(root, key, view)) {
            std::vector<RegistryValue> values = GetValues(root, path, view);
            tree.emplace_back(std::move(path), std::move(values));
        }
        return tree;
    }

private:
    RegistrySnapshotReader snapshot_;
};

// Schedules the direct rows: rollback with what the registry holds now (for
// the rows that keep a rollback), then the work itself.
void ScheduleDirect(const Session& session, const std::vector<RegistryExRow>& work, const wchar_t* rollbackAction,
                    const wchar_t* deferredAction, LogSink& log) {
    if (work.empty()) return;
    MachineRegistry registry;
    std::vector<RegistryExRow> rollback;
    for (const RegistryExRow& row : work) {
        if (row.attributes & kRegExDisableRollback) continue;
        for (RegistryExRow& undo : CaptureRollback(row, registry, log)) {
            undo.secret = row.secret;  // on uninstall, the old value is the secret itself
            rollback.push_back(std::move(undo));
        }
    }
    if (std::any_of(work.begin(), work.end(), [](const RegistryExRow& row) { return row.secret; })) {
        HideActionData(session, {rollbackAction, deferredAction});
    }
    if (!rollback.empty()) session.ScheduleDeferred(rollbackAction, EncodeRegistryRows(rollback));
    session.ScheduleDeferred(deferredAction, EncodeRegistryRows(work));
}

// The last installed version of a registry file: the file as it stands, read
// as UTF-16LE text (its byte-order mark dropped); empty when there is none.
std::wstring ReadLastVersion(const std::wstring& path) {
    FileHandle file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) return {};
    LARGE_INTEGER size{};
    ThrowLastErrorIf(!::GetFileSizeEx(file.Get(), &size), L"Failed to read registry file '" + path + L"'.");
    if (size.QuadPart > 64 * 1024 * 1024) Throw(kInvalidArgument, L"The registry file '" + path + L"' is too large.");
    std::wstring text(static_cast<std::size_t>(size.QuadPart) / 2, L'\0');
    DWORD read = 0;
    ThrowLastErrorIf(!text.empty() && !::ReadFile(file.Get(), text.data(), static_cast<DWORD>(text.size() * 2), &read,
                                                  nullptr),
                     L"Failed to read registry file '" + path + L"'.");
    text.resize(read / 2);
    if (!text.empty() && text.front() == 0xFEFF) text.erase(0, 1);
    return text;
}

// One text-file item per registry file, its text merged with the last version.
std::vector<TextFileItem> PlanRegFiles(const Session& session, const std::vector<RegistryExRow>& chosen,
                                       LogSink& log) {
    // One file whatever the letter case of its path: the first row's spelling names it.
    std::map<std::wstring, std::pair<std::wstring, std::vector<RegistryExRow>>> byPath;
    for (const RegistryExRow& row : chosen) {
        if (row.file.empty()) continue;
        auto& [spelling, rows] = byPath[PathKey(row.file)];
        if (rows.empty()) spelling = row.file;
        rows.push_back(row);
    }
    std::map<std::wstring, std::vector<RegistryExRow>> files;
    for (auto& [key, file] : byPath) files[file.first] = std::move(file.second);
    if (files.empty()) return {};
    log.Info(L"Generating registry content...");
    bool redirect32 = IsWow64();
    if (redirect32 && session.GetProperty(L"Wow64RegFileRedirectionDisabled") == L"1") {
        log.Info(L"Wow64 regfile redirection disabled.");
        redirect32 = false;
    }
    InstallerTextFileMachine machine(session);
    std::vector<TextFileItem> items;
    for (const auto& [path, rows] : files) {
        log.Info(L"Configuring registry file %s.", path);
        std::wstring last;
        if (FileExists(path)) {
            log.Info(L"Reading content of '%s' file (last version of '%s').", path, path);
            last = ReadLastVersion(path);
        }
        TextFileItem item = NewTextFileItem(path, RegFileText(rows, redirect32, last), machine);
        if (machine.LogContentInFull()) {
            log.Info(L"Generated registry file content:\n%s", WithoutBrackets(item.content));
        } else {
            log.Info(L"Generated registry file content: %u characters (verbose logging shows it).",
                     item.content.size());
        }
        log.Info(L"The registry file %s (%d) was successfully configured.", item.path, item.atr);
        items.push_back(std::move(item));
    }
    return items;
}

// The common body of the four direct actions. `strict`: a failed write fails
// the action; otherwise every row is tried and failures are logged.
void ApplyRows(const Session& session, bool strict) {
    std::vector<RegistryExRow> removals, writes;
    for (RegistryExRow& row : DecodeRegistryRows(session.CustomActionData())) {
        const std::wstring problem = RegistryRowProblem(row);
        if (!problem.empty()) {
            const std::wstring text = L"The registry row '" + row.id + L"' in the action data is malformed: " +
                                      problem + L".";
            if (strict) Throw(kInvalidArgument, text);
            LogInfo(L"%s", text);
            continue;
        }
        ((row.attributes & kRegExDeleteOnInstall) ? removals : writes).push_back(std::move(row));
    }
    const auto byKey = [](const RegistryExRow& a, const RegistryExRow& b) { return a.key < b.key; };
    std::stable_sort(removals.begin(), removals.end(), byKey);
    std::stable_sort(writes.begin(), writes.end(), byKey);
    RegistryValueRemover remover(!strict);
    for (const RegistryExRow& row : removals) {
        const std::uint32_t view = RowView(row);
        const KeyMarker marker = RowKeyMarker(row);
        if (marker == KeyMarker::None) {
            remover.Remove(row.root, row.key, row.name, view, row.keep);
            continue;
        }
        remover.Close();
        switch (marker) {
        case KeyMarker::Key:
        case KeyMarker::Remove:
        case KeyMarker::CreateAndRemove: {
            if (RemoveKeyTree(row.root, row.key, view) == ERROR_SUCCESS) {
                LogInfo(L"Remove registry key: Key '%s'.", row.key);
            }
            const std::size_t cut = row.key.rfind(L'\\');
            if (cut != std::wstring::npos) RemoveEmptyKeys(row.root, row.key.substr(0, cut), view, row.keep, !strict);
            break;
        }
        case KeyMarker::Create: RemoveEmptyKeys(row.root, row.key, view, row.keep, !strict); break;
        case KeyMarker::None: break;
        }
    }
    RegistryValueWriter writer;
    for (const RegistryExRow& row : writes) {
        const auto write = [&] {
            if (RowKeyMarker(row) != KeyMarker::None) CreateKey(row.root, row.key, RowView(row));
            else writer.Write(row.root, row.key, ParseValueNotation(row.name, row.value), RowView(row), row.secret);
        };
        if (strict) write();
        else Leniently(write);
    }
}

}  // namespace

void InstallRegFiles(Session& session) {
    Wow64FsRedirectionGuard redirection;
    ProgramLogSink log;
    SessionComponentStates states(session);
    const std::optional<std::vector<RegistryExRow>> rows = ReadRows(session, states, log);
    if (!rows) return;
    const std::vector<RegistryExRow> chosen = PlanRegistryInstall(*rows, states, log);
    if (chosen.empty()) LogNothingToSchedule(rows->size(), L"RegistryEx", L"installed or reinstalled");
    std::vector<RegistryExRow> direct;
    for (const RegistryExRow& row : chosen) {
        if (!row.file.empty()) continue;
        if (std::optional<RegistryExRow> work = InstallWork(row)) direct.push_back(std::move(*work));
    }
    ScheduleTextFileItems(session, PlanRegFiles(session, chosen, log),
                          {L"InstallRegFilesRollback", L"InstallRegFilesDeferred", L"InstallRegFilesCommit"});
    ScheduleDirect(session, direct, L"InstallRegistryRollback", L"InstallRegistryDeferred", log);
}

void UninstallRegFiles(Session& session) {
    ProgramLogSink log;
    // Asked once per component, whatever the number of its rows.
    std::map<std::wstring, int> locatedStates;
    const LocatedState located = [&session, &locatedStates](const std::wstring& component) {
        auto it = locatedStates.find(component);
        if (it == locatedStates.end()) it = locatedStates.emplace(component, LocateComponent(session, component)).first;
        return it->second;
    };
    SessionComponentStates states(session);
    const std::optional<std::vector<RegistryExRow>> rows = ReadRows(session, states, log);
    if (!rows) return;
    std::vector<RegistryExRow> direct;
    for (const RegistryExRow& row : PlanRegistryUninstall(*rows, states, located, log)) {
        if (row.file.empty()) direct.push_back(UninstallWork(row));
    }
    if (direct.empty()) LogNothingToSchedule(rows->size(), L"RegistryEx", L"removed");
    ScheduleDirect(session, direct, L"UninstallRegistryRollback", L"UninstallRegistryDeferred", log);
}

void InstallRegistryDeferred(Session& session) { ApplyRows(session, true); }
void InstallRegistryRollback(Session& session) { ApplyRows(session, false); }
void UninstallRegistryDeferred(Session& session) { ApplyRows(session, true); }
void UninstallRegistryRollback(Session& session) { ApplyRows(session, false); }

}  // namespace setup
