#include "actions/registry/registry_access.h"

#include <vector>

#include "runtime/program_log.h"
#include "runtime/throw.h"
#include "runtime/unique_handle.h"

namespace setup {

namespace {

std::wstring Quoted(std::wstring_view key, std::wstring_view name) {
    return L"Key '" + std::wstring(key) + L"', Name '" + std::wstring(name) + L"'.";
}

}  // namespace

HKEY RootHandle(int root) {
    switch (NormalizeRoot(root)) {
    case 0: return HKEY_CLASSES_ROOT;
    case 1: return HKEY_CURRENT_USER;
    case 3: return HKEY_USERS;
    default: return HKEY_LOCAL_MACHINE;
    }
}

bool IsWow64() {
    using IsWow64ProcessFn = BOOL(WINAPI*)(HANDLE, PBOOL);
    const auto isWow64 = GetProcedure<IsWow64ProcessFn>(::GetModuleHandleW(L"kernel32.dll"), "IsWow64Process");
    BOOL wow64 = FALSE;
    return isWow64 && isWow64(::GetCurrentProcess(), &wow64) && wow64;
}

void WriteValue(int root, std::wstring_view key, const RegistryValue& value, std::uint32_t view) {
    const std::wstring path(key);
    RegistryKey handle;
    ThrowIfWin32Error(::RegCreateKeyExW(RootHandle(root), path.c_str(), 0, nullptr, 0, KEY_WRITE | view, nullptr,
                                        handle.Put(), nullptr),
                      L"Failed to create registry key '" + path + L"'.");
    const BYTE* data = value.data.empty() ? nullptr : value.data.data();
    ThrowIfWin32Error(::RegSetValueExW(handle.Get(), value.name.c_str(), 0, value.type, data,
                                       static_cast<DWORD>(value.data.size())),
                      L"Failed to write registry value: " + Quoted(path, value.name));
    LogInfo(L"Write registry value: Key '%s', Name '%s', Value '%s'.", path, value.name, RenderValue(value));
}

std::optional<RegistryValue> ReadValue(int root, std::wstring_view key, std::wstring_view name,
                                       std::uint32_t view) {
    const std::wstring path(key);
    RegistryValue value;
    value.name = std::wstring(name);
    RegistryKey handle;
    LONG status = ::RegOpenKeyExW(RootHandle(root), path.c_str(), 0, KEY_QUERY_VALUE | view, handle.Put());
    if (status == ERROR_FILE_NOT_FOUND || status == ERROR_PATH_NOT_FOUND) return std::nullopt;
    ThrowIfWin32Error(status, L"Failed to read registry value: " + Quoted(path, name));
    // The value may grow between the size query and the read; a few rounds settle it.
    for (int round = 0; round < 4; ++round) {
        DWORD type = 0, bytes = 0;
        status = ::RegQueryValueExW(handle.Get(), value.name.c_str(), nullptr, &type, nullptr, &bytes);
        if (status == ERROR_FILE_NOT_FOUND) return std::nullopt;
        ThrowIfWin32Error(status, L"Failed to read registry value: " + Quoted(path, name));
        value.data.assign(bytes, 0);
        status = ::RegQueryValueExW(handle.Get(), value.name.c_str(), nullptr, &type,
                                    value.data.empty() ? nullptr : value.data.data(), &bytes);
        if (status == ERROR_MORE_DATA) continue;
        ThrowIfWin32Error(status, L"Failed to read registry value: " + Quoted(path, name));
        value.type = type;
        value.data.resize(bytes);
        return value;
    }
    Throw(HResultFromWin32(ERROR_MORE_DATA), L"Failed to read registry value: " + Quoted(path, name));
}

void DeleteValue(int root, std::wstring_view key, std::wstring_view name, std::uint32_t view) {
    const std::wstring path(key);
    const std::wstring value(name);
    RegistryKey handle;
    LONG status = ::RegOpenKeyExW(RootHandle(root), path.c_str(), 0, KEY_SET_VALUE | view, handle.Put());
    if (status == ERROR_FILE_NOT_FOUND || status == ERROR_PATH_NOT_FOUND) return;
    if (status != ERROR_SUCCESS) {
        LogInfo(L"Failed to open registry key '%s'. Error 0x%x.", path, FailureFromWin32(static_cast<DWORD>(status)));
        return;
    }
    status = ::RegDeleteValueW(handle.Get(), value.c_str());
    if (status == ERROR_SUCCESS) {
        LogInfo(L"Remove registry value: Key '%s', Name '%s'.", path, value);
    } else if (status != ERROR_FILE_NOT_FOUND) {
        LogInfo(L"Failed to remove registry value: Key '%s', Name '%s'. Error 0x%x.", path, value,
                FailureFromWin32(static_cast<DWORD>(status)));
    }
}

}  // namespace setup
