#include "services/pending_rename_store.h"

#include <winternl.h>

#include <optional>
#include <vector>

#include "runtime/program_log.h"
#include "runtime/round_trips.h"
#include "runtime/throw.h"
#include "services/driver_connection.h"

namespace setup {

namespace {

constexpr ACCESS_MASK kSynchronize = 0x00100000;
constexpr ULONG kObjCaseInsensitive = 0x40;

using NtOpenMutantFn = LONG(NTAPI*)(HANDLE*, ACCESS_MASK, OBJECT_ATTRIBUTES*);
using RtlNtStatusToDosErrorFn = ULONG(NTAPI*)(LONG);

const std::wstring kValuePath = std::wstring(kSessionManagerKey) + L"\\" + kPendingRenamesValue;

}  // namespace

PendingRenameMutex PendingRenameMutex::Open() {
    PendingRenameMutex mutex;
    ModuleHandle ntdll(::LoadLibraryW(L"ntdll.dll"));
    ThrowLastErrorIf(!ntdll, L"Failed to load ntdll.dll.");
    const auto open = GetProcedure<NtOpenMutantFn>(ntdll.Get(), "NtOpenMutant");
    ThrowLastErrorIf(open == nullptr, L"Failed to get NtOpenMutant from ntdll.dll.");

    UNICODE_STRING name;
    name.Buffer = const_cast<PWSTR>(kPendingRenameMutexName);
    name.Length = static_cast<USHORT>((sizeof(kPendingRenameMutexName) / sizeof(wchar_t) - 1) * sizeof(wchar_t));
    name.MaximumLength = name.Length;
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, kObjCaseInsensitive, nullptr, nullptr);

    HANDLE handle = nullptr;
    const LONG status = open(&handle, kSynchronize, &attributes);
    if (status >= 0) {
        mutex.handle_.Reset(handle);
        return mutex;
    }
    const auto toDos = GetProcedure<RtlNtStatusToDosErrorFn>(ntdll.Get(), "RtlNtStatusToDosError");
    const DWORD error = toDos ? toDos(status) : ERROR_GEN_FAILURE;
    const HResult hr = FailureFromWin32(error);
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) {
        LogInfo(L"Mutex '%s' not found. Error 0x%x.", kPendingRenameMutexName, hr);
        return mutex;
    }
    Throw(hr, std::wstring(L"Failed to open mutant ") + kPendingRenameMutexName);
}

void PendingRenameMutex::Lock(unsigned timeoutMs) {
    if (!handle_) {
        LogInfo(L"Skip lock mutex '%s'.", kPendingRenameMutexName);
        return;
    }
    const DWORD result = ::WaitForSingleObject(handle_.Get(), timeoutMs);
    if (result == WAIT_TIMEOUT) {
        Throw(HResultFromWin32(WAIT_TIMEOUT), std::wstring(L"Timeout reached while wait the mutex ") + kPendingRenameMutexName);
    }
    ThrowLastErrorIf(result == WAIT_FAILED, std::wstring(L"Failed to wait mutex ") + kPendingRenameMutexName);
    locked_ = true;  // signalled or abandoned: ours now
}

void PendingRenameMutex::Release() {
    if (!handle_) return;
    if (locked_) ::ReleaseMutex(handle_.Get());
    locked_ = false;
    handle_.Reset();
}

PendingRenameValue ReadPendingRenameValue() {
    RegistryKey key;
    ThrowIfWin32Error(RegistryCall(::RegOpenKeyExW, HKEY_LOCAL_MACHINE, kSessionManagerKey, 0, KEY_QUERY_VALUE, key.Put()),
                      std::wstring(L"Failed to open key: ") + kSessionManagerKey);
    // The value may grow between the size query and the read (another writer);
    // a few rounds settle it.
    for (int round = 0; round < 4; ++round) {
        PendingRenameValue value;
        LONG status = RegistryCall(::RegQueryValueExW, key.Get(), kPendingRenamesValue, nullptr, &value.type, nullptr, &value.bytes);
        if (status == ERROR_FILE_NOT_FOUND) return PendingRenameValue{};
        if (status != ERROR_SUCCESS && status != ERROR_MORE_DATA) {
            ThrowIfWin32Error(status, L"Failed to read registry value: " + kValuePath);
        }
        value.exists = true;
        // Whole characters: an odd byte count still gets room for its last unit.
        value.data.assign((value.bytes + sizeof(wchar_t) - 1) / sizeof(wchar_t), L'\0');
        DWORD capacity = static_cast<DWORD>(value.data.size() * sizeof(wchar_t));
        if (capacity == 0) return value;
        status = RegistryCall(::RegQueryValueExW, key.Get(), kPendingRenamesValue, nullptr, &value.type,
                                    reinterpret_cast<BYTE*>(value.data.data()), &capacity);
        if (status == ERROR_MORE_DATA) continue;
        ThrowIfWin32Error(status, L"Failed to read registry value: " + kValuePath);
        value.bytes = capacity;
        value.data.resize((capacity + sizeof(wchar_t) - 1) / sizeof(wchar_t));
        return value;
    }
    Throw(HResultFromWin32(ERROR_MORE_DATA), L"Failed to read registry value: " + kValuePath);
}

namespace {

// The value's entries, or nullopt (with the reason in `what`) when it is not a list of pairs.
std::optional<PendingRenameList> ListOf(const PendingRenameValue& value, std::wstring& what) {
    if (!value.exists) return PendingRenameList{};
    if (value.type != REG_MULTI_SZ) {
        what = Format(L"Unexpected type of registry value: %s (type %u, %u bytes).", kValuePath, value.type,
                      value.bytes);
        return std::nullopt;
    }
    std::optional<PendingRenameList> list;
    if (value.bytes % sizeof(wchar_t) == 0) list = ParsePendingRenames(value.data);
    if (!list) what = Format(L"The registry value %s is not a list of rename pairs (%u bytes).", kValuePath, value.bytes);
    return list;
}

}  // namespace

PendingRenameSnapshot TakePendingRenameSnapshot() {
    const PendingRenameValue value = ReadPendingRenameValue();
    std::wstring what;
    std::optional<PendingRenameList> list = ListOf(value, what);
    if (!list) Throw(kUnexpected, what + L" Files cannot be replaced at restart without changing it.");
    return PendingRenameSnapshot{value.exists, std::move(*list)};
}

void WritePendingRenames(const PendingRenameList& list) {
    DriverConnection driver;
    PendingRenameMonitoringPause pause(driver);
    RegistryKey key;
    ThrowIfWin32Error(RegistryCall(::RegOpenKeyExW, HKEY_LOCAL_MACHINE, kSessionManagerKey, 0, KEY_SET_VALUE, key.Put()),
                      std::wstring(L"Failed to open registry key: ") + kSessionManagerKey);
    const std::wstring raw = SerializePendingRenames(list);
    const BYTE* data = raw.empty() ? nullptr : reinterpret_cast<const BYTE*>(raw.data());
    ThrowIfWin32Error(RegistryCall(::RegSetValueExW, key.Get(), kPendingRenamesValue, 0, REG_MULTI_SZ, data,
                                       static_cast<DWORD>(raw.size() * sizeof(wchar_t))),
                      L"Failed to set registry value: " + kValuePath);
}

void RemovePendingRenames() {
    DriverConnection driver;
    PendingRenameMonitoringPause pause(driver);
    RegistryKey key;
    ThrowIfWin32Error(RegistryCall(::RegOpenKeyExW, HKEY_LOCAL_MACHINE, kSessionManagerKey, 0, KEY_SET_VALUE, key.Put()),
                      std::wstring(L"Failed to open registry key: ") + kSessionManagerKey);
    const LONG status = RegistryCall(::RegDeleteValueW, key.Get(), kPendingRenamesValue);
    if (status == ERROR_FILE_NOT_FOUND) return;
    ThrowIfWin32Error(status, L"Failed to delete registry value: " + kValuePath);
}

PendingRenameList ReadPendingRenamesLeniently() {
    std::wstring what;
    return ListOf(ReadPendingRenameValue(), what).value_or(PendingRenameList{});
}

void RollbackPendingRenames(const PendingRenameSnapshot& snapshot, const std::set<std::wstring>& rollbackPaths,
                            const std::set<std::wstring>& keptSources) {
    ProgramLogSink log;
    PendingRenameRollback plan;
    {
        PendingRenameMutex mutex = PendingRenameMutex::Open();
        mutex.Lock();
        std::wstring what;
        const std::optional<PendingRenameList> current = ListOf(ReadPendingRenameValue(), what);
        if (!current) {
            // Not ours to interpret: another program wrote it so, or damaged it.
            LogInfo(L"%s It is left as it is.", what);
            return;
        }
        plan = PlanPendingRenameRollback(snapshot, *current, rollbackPaths, log, keptSources);
        if (plan.write == PendingRenameWrite::Write) WritePendingRenames(plan.kept);
        if (plan.write == PendingRenameWrite::Remove) RemovePendingRenames();
    }  // the mutex is held from the read to the write only
    LogInfo(L"Delete rollback files.");
    for (const std::wstring& path : plan.deletions) {
        LogInfo(L"Remove file '%s'.", path);
        if (!::DeleteFileW(path.c_str())) {
            LogInfo(L"Failed to delete temporary file '%s'. Error 0x%x.", path, FailureFromWin32(::GetLastError()));
        }
    }
}

}  // namespace setup
