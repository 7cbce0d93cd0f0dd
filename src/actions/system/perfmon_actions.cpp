#include "actions/system/perfmon_actions.h"

#include <optional>
#include <string>
#include <vector>

#include "actions/registry/registry_access.h"
#include "actions/system/perfmon_plan.h"
#include "runtime/exception.h"
#include "runtime/program_log.h"
#include "runtime/throw.h"
#include "runtime/unique_handle.h"
#include "services/file_operations.h"
#include "services/path.h"
#include "services/process_runner.h"

namespace setup {

namespace {

using namespace perfmon;

constexpr wchar_t kTable[] = L"PerfmonEx";
constexpr wchar_t kQuery[] =
    L"SELECT `PerfmonEx`, `Component_`, `Name`, `File`, `Library`, `ResourceDir`, `Attributes`, `Condition` "
    L"FROM `PerfmonEx`";
constexpr int kMachine = 2;  // HKEY_LOCAL_MACHINE
constexpr std::uint32_t kView = KEY_WOW64_64KEY;  // counters live in the 64-bit view
constexpr wchar_t kServices[] = L"SYSTEM\\CurrentControlSet\\Services\\";
constexpr wchar_t kProviders[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Perflib\\_V2Providers";

std::optional<std::vector<PerfmonRow>> ReadRows(const Session& session) {
    std::vector<PerfmonRow> rows;
    const bool exists = session.ActiveDatabase().ForEachRowOfTable(kTable, kQuery, [&](const Record& record) {
        PerfmonRow row;
        row.id = record.GetString(1);
        if (row.id.empty()) Throw(kFail, L"The id is empty in PerfmonEx table.");
        row.component = record.GetString(2);
        if (row.component.empty()) Throw(kFail, L"The component is empty in PerfmonEx row '" + row.id + L"'.");
        row.name = record.GetString(3);
        row.file = record.GetString(4);
        row.library = record.GetString(5);
        row.resourceDir = record.GetString(6);
        row.attributes = record.GetIntegerOr(7, 0);
        row.condition = record.GetString(8);
        rows.push_back(std::move(row));
    });
    if (!exists) return std::nullopt;
    FormatRowTexts(session, rows, {&PerfmonRow::name, &PerfmonRow::file, &PerfmonRow::library, &PerfmonRow::resourceDir});
    for (const PerfmonRow& row : rows) {
        LogInfo(L"Configured performance counters %s, %s, %s, %s, %s, %s, %d, %s.", row.id, row.component, row.name,
                row.file, row.library, row.resourceDir, row.attributes, row.condition);
    }
    return rows;
}

std::wstring PerformanceKey(const std::wstring& name) { return kServices + name + L"\\Performance"; }

KeyCapture Capture(const std::wstring& key) {
    KeyCapture capture;
    const std::vector<std::wstring> tree = CollectKeyTree(kMachine, key, kView);
    capture.existed = !tree.empty();
    for (const std::wstring& path : tree) {
        capture.keys.emplace_back(path.substr(key.size()), GetValues(kMachine, path, kView));
    }
    return capture;
}

// The key exactly as captured: what is there now goes, what was there comes back.
void Restore(const std::wstring& key, const KeyCapture& capture) {
    if (Capture(key) == capture) return;
    LogInfo(L"Restore registry key '%s' as it was.", key);
    RemoveKeyTree(kMachine, key, kView);
    for (const auto& [path, values] : capture.keys) {
        CreateKey(kMachine, key + path, kView);
        for (const RegistryValue& value : values) WriteValue(kMachine, key + path, value, kView);
    }
}

std::wstring SystemTool(const wchar_t* name) { return JoinPath(SystemDirectory(), name); }

// --- loadperf.dll, looked up when a row needs it ---

using PerfTextFn = DWORD(WINAPI*)(LPWSTR, BOOL);

DWORD CallLoadperf(const char* function, const std::wstring& command) {
    LogInfo(L"Call %S(%s).", function, command);
    ModuleHandle module(::LoadLibraryW(L"loadperf.dll"));
    ThrowLastErrorIf(!module, L"Failed to load loadperf.dll.");
    const auto call = GetProcedure<PerfTextFn>(module.Get(), function);
    if (!call) Throw(FailureFromWin32(ERROR_PROC_NOT_FOUND), Format(L"loadperf.dll has no %S.", function));
    std::wstring text = command;
    return call(text.data(), TRUE);
}

std::wstring ReadText(const std::wstring& path) {
    FileHandle file(::CreateFileW(LongPathForm(path).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                  FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    ThrowLastErrorIf(!file, L"Failed to read file '" + path + L"'.");
    std::string bytes;
    char buffer[4096];
    DWORD read = 0;
    while (::ReadFile(file.Get(), buffer, sizeof(buffer), &read, nullptr) && read > 0 && bytes.size() < (1u << 22)) {
        bytes.append(buffer, read);
    }
    if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFF && static_cast<unsigned char>(bytes[1]) == 0xFE) {
        return std::wstring(reinterpret_cast<const wchar_t*>(bytes.data() + 2), (bytes.size() - 2) / 2);
    }
    const int size = ::MultiByteToWideChar(CP_ACP, 0, bytes.data(), static_cast<int>(bytes.size()), nullptr, 0);
    std::wstring text(static_cast<std::size_t>(size), L'\0');
    ::MultiByteToWideChar(CP_ACP, 0, bytes.data(), static_cast<int>(bytes.size()), text.data(), size);
    return text;
}

// --- The work ---

// A failure of a row with 0x4 is a logged warning; otherwise it fails the action.
template <class Step>
void Guarded(const PerfmonItem& item, const wchar_t* what, Step step) {
    try {
        step();
    } catch (const Exception& e) {
        const std::wstring text = Format(L"Failed to %s performance counters '%s'. %s", what, item.id, e.Message());
        if (!(item.attributes & WarnOnFailure)) Throw(e.Code(), text);
        LogInfo(L"Warning: %s Error 0x%x.", text, e.Code());
    }
}

void CheckReturn(DWORD code, const wchar_t* function) {
    if (code != ERROR_SUCCESS) Throw(FailureFromWin32(code), Format(L"%s returned %u.", function, code));
}

void Unload(const PerfmonItem& item) {
    if (item.attributes & Manifest) {
        ProcessRunner().RunProcess(ManifestUnloadCommand(SystemTool(L"unlodctr.exe"), item.file));
        return;
    }
    const DWORD code = CallLoadperf("UnloadPerfCounterTextStringsW", UnloadCommand(item.name));
    if (code == ERROR_FILE_NOT_FOUND || code == ERROR_BADKEY) {
        LogInfo(L"The performance counters of '%s' are not registered: nothing to unload.", item.name);
        return;
    }
    CheckReturn(code, L"UnloadPerfCounterTextStringsW");
}

void Load(const PerfmonItem& item) {
    if (item.attributes & Manifest) {
        ProcessRunner().RunProcess(ManifestLoadCommand(SystemTool(L"lodctr.exe"), item.file, item.resourceDir));
        return;
    }
    CheckReturn(CallLoadperf("LoadPerfCounterTextStringsW", LoadCommand(item.file)), L"LoadPerfCounterTextStringsW");
}

bool Registered(const PerfmonItem& item) {
    if (item.attributes & Manifest) {
        const std::wstring guid = ManifestProviderGuid(ReadText(item.file));
        return !guid.empty() && !CollectKeyTree(kMachine, std::wstring(kProviders) + L"\\" + guid, kView).empty();
    }
    return ReadValue(kMachine, item.key, L"First Counter", kView).has_value();
}

void Register(const PerfmonItem& item) {
    if (!(item.attributes & Manifest)) {
        const std::wstring service = kServices + item.name;
        if (CollectKeyTree(kMachine, service, kView).empty()) {
            if (!(item.attributes & CreateServiceKey)) {
                Throw(FailureFromWin32(ERROR_FILE_NOT_FOUND),
                      L"The service key '" + service + L"' does not exist (0x2 creates it).");
            }
            CreateKey(kMachine, service, kView);
        }
        const std::wstring ini = ReadText(item.file);
        const std::wstring symbolFile = PerfIniSymbolFile(ini);
        const std::wstring symbols = symbolFile.empty() ? std::wstring() : ReadText(JoinPath(DirectoryOf(item.file), symbolFile));
        if (const std::wstring why = PerfIniProblem(ini, item.name, symbols); !why.empty()) {
            Throw(kInvalidArgument, L"Refused to load '" + item.file + L"': " + why + L".");
        }
        if (!item.library.empty()) {
            for (const RegistryValue& value : LibraryValues(item.library)) WriteValue(kMachine, item.key, value, kView);
        }
    }
    if (Registered(item)) {
        LogInfo(L"The performance counters '%s' are registered already: unload them first.", item.name);
        Unload(item);
    }
    Load(item);
}

void Unregister(const PerfmonItem& item) {
    Unload(item);
    if (!(item.attributes & Manifest) && !item.library.empty()) {
        for (const RegistryValue& value : LibraryValues(item.library)) DeleteValue(kMachine, item.key, value.name, kView);
        RemoveEmptyKeys(kMachine, item.key, kView, KeyDepth(item.key) - 1, true);
    }
}

void Schedule(Session& session, bool unregister) {
    const std::optional<std::vector<PerfmonRow>> rows = ReadRows(session);
    if (!rows) return;
    SessionComponentStates states(session);
    ProgramLogSink log;
    PerfmonActionData data;
    for (const PerfmonRow& row : *rows) {
        if (!DecidePerfmon(states, row, unregister, log).Chosen()) continue;
        if (const std::wstring why = PerfmonRowProblem(row); !why.empty()) {
            Throw(kInvalidArgument, L"The PerfmonEx row '" + row.id + L"' cannot act: " + why + L".");
        }
        if (unregister && (row.attributes & Permanent)) {
            LogInfo(L"Skip unregister performance counters '%s'. They are permanent (0x8).", row.id);
            continue;
        }
        const std::wstring key = (row.attributes & Manifest) ? std::wstring(kProviders) : PerformanceKey(row.name);
        data.items.push_back({row.id, row.name, row.file, row.library, row.resourceDir, row.attributes, key,
                              Capture(key)});
    }
    if (data.items.empty()) {
        LogNothingToSchedule(rows->size(), kTable, unregister ? L"removed or reinstalled" : L"installed or reinstalled");
        return;
    }
    PerfmonActionData rollback = data;
    rollback.rollback = true;
    session.ScheduleDeferred(unregister ? L"UnregisterPerfmonExRollback" : L"RegisterPerfmonExRollback",
                             EncodePerfmonActionData(rollback));
    session.ScheduleDeferred(unregister ? L"UnregisterPerfmonExDeferred" : L"RegisterPerfmonExDeferred",
                             EncodePerfmonActionData(data));
}

}  // namespace

void RegisterPerfmonEx(Session& session) { Schedule(session, false); }
void UnregisterPerfmonEx(Session& session) { Schedule(session, true); }

// Registers, or, as the rollback of an unregistration, puts the captured key
// back and loads again.
void RegisterPerfmonExDeferred(Session& session) {
    const PerfmonActionData data = DecodePerfmonActionData(session.CustomActionData());
    for (const PerfmonItem& item : data.items) {
        if (data.rollback) {
            Leniently([&] { Restore(item.key, item.capture); });
            Leniently([&] { Load(item); });
            continue;
        }
        Guarded(item, L"register", [&] { Register(item); });
    }
}

// Unregisters, or, as the rollback of a registration, unloads and puts the
// captured key back, latest first.
void UnregisterPerfmonExDeferred(Session& session) {
    const PerfmonActionData data = DecodePerfmonActionData(session.CustomActionData());
    if (data.rollback) {
        for (auto it = data.items.rbegin(); it != data.items.rend(); ++it) {
            Leniently([&] { Unload(*it); });
            Leniently([&] { Restore(it->key, it->capture); });
            // A service key the registration created goes again (one that held
            // anything before stays: only empty keys go).
            if (!(it->attributes & Manifest) && !it->capture.existed) {
                RemoveEmptyKeys(kMachine, kServices + it->name, kView, 3, true);  // never Services itself
            }
        }
        return;
    }
    for (const PerfmonItem& item : data.items) Guarded(item, L"unregister", [&] { Unregister(item); });
}

}  // namespace setup
