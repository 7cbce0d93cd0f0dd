#include "actions/registry/registry_access.h"

#include <algorithm>
#include <vector>

#include "runtime/format.h"
#include "runtime/program_log.h"
#include "runtime/round_trips.h"
#include "runtime/throw.h"
#include "runtime/unique_handle.h"

namespace setup {

namespace {

std::wstring Quoted(std::wstring_view key, std::wstring_view name) {
    return L"Key '" + std::wstring(key) + L"', Name '" + std::wstring(name) + L"'.";
}

bool NotFound(LONG status) { return status == ERROR_FILE_NOT_FOUND || status == ERROR_PATH_NOT_FOUND; }

HResult Failure(LONG status) { return FailureFromWin32(static_cast<DWORD>(status)); }

LONG OpenKey(int root, const std::wstring& path, REGSAM access, std::uint32_t view, RegistryKey& key) {
    return RegistryCall(::RegOpenKeyExW, RootHandle(root), path.c_str(), 0, access | view, key.Put());
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

namespace {

RegistryKey CreateKeyForValues(int root, const std::wstring& path, std::uint32_t view) {
    RegistryKey handle;
    ThrowIfWin32Error(RegistryCall(::RegCreateKeyExW, RootHandle(root), path.c_str(), 0, nullptr, 0, KEY_WRITE | view, nullptr,
                                        handle.Put(), nullptr),
                      L"Failed to create registry key '" + path + L"'.");
    return handle;
}

void SetValue(HKEY handle, const std::wstring& path, const RegistryValue& value, bool secret) {
    const BYTE* data = value.data.empty() ? nullptr : value.data.data();
    ThrowIfWin32Error(RegistryCall(::RegSetValueExW, handle, value.name.c_str(), 0, value.type, data,
                                       static_cast<DWORD>(value.data.size())),
                      L"Failed to write registry value: " + Quoted(path, value.name));
    LogInfo(L"Write registry value: Key '%s', Name '%s', Value '%s'.", path, value.name,
            secret ? std::wstring(L"***") : RenderValue(value));
}

// The value under an open key, or nothing when it does not exist. The first
// read goes into a buffer that holds most values, so that a value usually
// costs one call; the value may also grow between two reads, and a few
// rounds settle it.
std::optional<RegistryValue> QueryValue(HKEY handle, const std::wstring& path, std::wstring_view name) {
    RegistryValue value;
    value.name = std::wstring(name);
    value.data.assign(256, 0);
    for (int round = 0; round < 4; ++round) {
        DWORD type = 0, bytes = static_cast<DWORD>(value.data.size());
        const LONG status = RegistryCall(::RegQueryValueExW, handle, value.name.c_str(), nullptr, &type, value.data.data(), &bytes);
        if (status == ERROR_FILE_NOT_FOUND) return std::nullopt;
        if (status == ERROR_MORE_DATA) {
            value.data.assign(std::max<std::size_t>(bytes, value.data.size() * 2), 0);
            continue;
        }
        ThrowIfWin32Error(status, L"Failed to read registry value: " + Quoted(path, name));
        value.type = type;
        value.data.resize(bytes);
        return value;
    }
    Throw(HResultFromWin32(ERROR_MORE_DATA), L"Failed to read registry value: " + Quoted(path, name));
}

}  // namespace

void WriteValue(int root, std::wstring_view key, const RegistryValue& value, std::uint32_t view, bool secret) {
    const std::wstring path(key);
    SetValue(CreateKeyForValues(root, path, view).Get(), path, value, secret);
}

bool OpenKeyRun::Continues(int root, std::wstring_view key, std::uint32_t view) {
    if (handle && root == this->root && view == this->view && key == this->key) return true;
    handle.Reset();
    this->key = std::wstring(key);
    this->root = root;
    this->view = view;
    return false;
}

void RegistryValueWriter::Write(int root, std::wstring_view key, const RegistryValue& value, std::uint32_t view,
                                bool secret) {
    if (!run_.Continues(root, key, view)) run_.handle = CreateKeyForValues(root, run_.key, view);
    SetValue(run_.handle.Get(), run_.key, value, secret);
}

void WriteTextValue(int root, std::wstring_view key, std::wstring_view name, std::wstring_view text,
                    std::uint32_t view) {
    const std::wstring path(key), value(name), data(text);
    RegistryKey handle;
    ThrowIfWin32Error(RegistryCall(::RegCreateKeyExW, RootHandle(root), path.c_str(), 0, nullptr, 0, KEY_SET_VALUE | view, nullptr,
                                        handle.Put(), nullptr),
                      L"Failed to create registry key '" + path + L"'.");
    ThrowIfWin32Error(RegistryCall(::RegSetValueExW, handle.Get(), value.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(data.c_str()),
                                       static_cast<DWORD>((data.size() + 1) * sizeof(wchar_t))),
                      L"Failed to write registry value: " + Quoted(path, value));
}

std::optional<std::wstring> ReadTextValue(int root, std::wstring_view key, std::wstring_view name,
                                          std::uint32_t view) {
    const std::optional<RegistryValue> value = ReadValue(root, key, name, view);
    if (!value || value->type != kRegSz) return std::nullopt;
    return RenderValue(*value);
}

std::optional<RegistryValue> ReadValue(int root, std::wstring_view key, std::wstring_view name,
                                       std::uint32_t view) {
    const std::wstring path(key);
    RegistryKey handle;
    const LONG status = RegistryCall(::RegOpenKeyExW, RootHandle(root), path.c_str(), 0, KEY_QUERY_VALUE | view, handle.Put());
    if (NotFound(status)) return std::nullopt;
    ThrowIfWin32Error(status, L"Failed to read registry value: " + Quoted(path, name));
    return QueryValue(handle.Get(), path, name);
}

RegistrySnapshotReader::Opened& RegistrySnapshotReader::Open(int root, std::wstring_view key, std::uint32_t view) {
    auto where = keys_.find(std::make_tuple(root, key, view));
    if (where != keys_.end()) return where->second;
    if (keys_.size() >= kMaxOpenKeys) keys_.clear();
    const std::wstring path(key);
    Opened opened;
    opened.status = OpenKey(root, path, KEY_READ, view, opened.handle);
    return keys_.emplace(std::make_tuple(root, path, view), std::move(opened)).first->second;
}

int RegistrySnapshotReader::ExistingDepth(int root, std::wstring_view key, std::uint32_t view) {
    Opened& opened = Open(root, key, view);
    if (opened.depth < 0) {
        opened.depth = opened.status == ERROR_SUCCESS ? KeyDepth(key) : setup::ExistingDepth(root, key, view);
    }
    return opened.depth;
}

std::optional<RegistryValue> RegistrySnapshotReader::Value(int root, std::wstring_view key, std::wstring_view name,
                                                           std::uint32_t view) {
    const std::wstring path(key);
    const Opened& opened = Open(root, key, view);
    if (NotFound(opened.status)) return std::nullopt;
    ThrowIfWin32Error(opened.status, L"Failed to read registry value: " + Quoted(path, name));
    return QueryValue(opened.handle.Get(), path, name);
}

void DeleteValue(int root, std::wstring_view key, std::wstring_view name, std::uint32_t view) {
    const std::wstring path(key);
    const std::wstring value(name);
    RegistryKey handle;
    LONG status = RegistryCall(::RegOpenKeyExW, RootHandle(root), path.c_str(), 0, KEY_SET_VALUE | view, handle.Put());
    if (status != ERROR_SUCCESS) {
        LogInfo(L"Failed to open registry key '%s'. Error 0x%x.", path, FailureFromWin32(static_cast<DWORD>(status)));
        return;
    }
    status = RegistryCall(::RegDeleteValueW, handle.Get(), value.c_str());
    if (status == ERROR_SUCCESS) {
        LogInfo(L"Remove registry value: Key '%s', Name '%s'.", path, value);
    } else {
        LogInfo(L"Failed to remove registry value: Key '%s', Name '%s'. Error 0x%x.", path, value,
                FailureFromWin32(static_cast<DWORD>(status)));
    }
}

void RegistryValueRemover::Remove(int root, std::wstring_view key, std::wstring_view name, std::uint32_t view,
                                  int keep) {
    const std::wstring value(name);
    const std::wstring& path = run_.key;
    if (!run_.Continues(root, key, view)) {
        LONG status = OpenKey(root, path, KEY_SET_VALUE | KEY_QUERY_VALUE, view, run_.handle);
        // Without the right to look into the key, the clean-up below finds out for itself.
        if (status == ERROR_ACCESS_DENIED) status = OpenKey(root, path, KEY_SET_VALUE, view, run_.handle);
        if (quiet_ && NotFound(status)) return;
        if (status != ERROR_SUCCESS) {
            LogInfo(L"Failed to open registry key '%s'. Error 0x%x.", path, Failure(status));
            RemoveEmptyKeys(root, path, view, keep);
            return;
        }
    }
    const LONG status = RegistryCall(::RegDeleteValueW, run_.handle.Get(), value.c_str());
    if (status == ERROR_SUCCESS) {
        LogInfo(L"Remove registry value: Key '%s', Name '%s'.", path, value);
    } else {
        LogInfo(L"Failed to remove registry value: Key '%s', Name '%s'. Error 0x%x.", path, value, Failure(status));
    }
    if (keep > 0 && KeyDepth(path) <= keep) return;  // the clean-up would stop at once
    // A key that still holds something stops the clean-up at once too; only
    // an emptied key (or one that cannot be looked into) goes to it.
    DWORD subkeys = 0, values = 0;
    if (RegistryCall(::RegQueryInfoKeyW, run_.handle.Get(), nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, &values, nullptr,
                           nullptr, nullptr, nullptr) == ERROR_SUCCESS &&
        (subkeys || values)) {
        return;
    }
    run_.handle.Reset();
    RemoveEmptyKeys(root, path, view, keep);
}

void CreateKey(int root, std::wstring_view key, std::uint32_t view) {
    const std::wstring path(key);
    RegistryKey handle;
    ThrowIfWin32Error(RegistryCall(::RegCreateKeyExW, RootHandle(root), path.c_str(), 0, nullptr, 0, KEY_WRITE | view, nullptr,
                                        handle.Put(), nullptr),
                      L"Failed to create registry key '" + path + L"'.");
    LogInfo(L"Create registry key '%s'.", path);
}

namespace {

// Opens the key itself, never the target of a registry link.
LONG OpenKeyNoLink(int root, const std::wstring& path, REGSAM access, std::uint32_t view, RegistryKey& key) {
    return RegistryCall(::RegOpenKeyExW, RootHandle(root), path.c_str(), REG_OPTION_OPEN_LINK, access | view, key.Put());
}

// A link key holds its target as the REG_LINK value "SymbolicLinkValue".
bool IsLinkKey(HKEY handle) {
    DWORD type = 0;
    return RegistryCall(::RegQueryValueExW, handle, L"SymbolicLinkValue", nullptr, &type, nullptr, nullptr) == ERROR_SUCCESS &&
           type == REG_LINK;
}

// Deletes the opened key (a link: the link itself). RegDeleteKeyExW would
// open the key again by name and so follow a link; ntdll's NtDeleteKey works
// on the handle (looked up at run time).
LONG DeleteOpenKey(HKEY handle) {
    using NtDeleteKeyFn = LONG(NTAPI*)(HANDLE);
    using ToDosErrorFn = ULONG(NTAPI*)(LONG);
    const HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
    const auto deleteKey = GetProcedure<NtDeleteKeyFn>(ntdll, "NtDeleteKey");
    const auto toDosError = GetProcedure<ToDosErrorFn>(ntdll, "RtlNtStatusToDosError");
    if (!deleteKey || !toDosError) return ERROR_PROC_NOT_FOUND;
    const LONG status = deleteKey(handle);
    return status == 0 ? ERROR_SUCCESS : static_cast<LONG>(toDosError(status));
}

// Recursion through a tree stops here: no real tree is this deep, a loop of links is.
constexpr int kMaxTreeDepth = 512;

LONG RemoveTree(int root, const std::wstring& path, std::uint32_t view, int depth) {
    RegistryKey handle;
    LONG status = OpenKeyNoLink(root, path, KEY_READ | DELETE, view, handle);
    if (NotFound(status)) return ERROR_SUCCESS;
    if (status != ERROR_SUCCESS) {
        LogInfo(L"Failed to open registry key '%s'. Error 0x%x.", path, Failure(status));
        return status;
    }
    if (IsLinkKey(handle.Get())) {
        status = DeleteOpenKey(handle.Get());
        if (status == ERROR_SUCCESS) LogInfo(L"Remove registry link '%s' (its target stays).", path);
        else LogInfo(L"Failed to remove registry link '%s'. Error 0x%x.", path, Failure(status));
        return status;
    }
    if (depth >= kMaxTreeDepth) {
        LogInfo(L"Failed to remove registry key '%s': it lies more than %d levels deep. Error 0x%x.", path,
                kMaxTreeDepth, Failure(ERROR_CANTOPEN));
        return ERROR_CANTOPEN;
    }
    // Each removed subkey moves the next one to index 0; one that stays
    // (it could not be removed) is stepped over.
    for (DWORD index = 0;;) {
        wchar_t name[260] = {};
        DWORD length = 260;
        if (RegistryCall(::RegEnumKeyExW, handle.Get(), index, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) {
            break;
        }
        if (RemoveTree(root, path + L"\\" + std::wstring(name, length), view, depth + 1) != ERROR_SUCCESS) ++index;
    }
    status = DeleteOpenKey(handle.Get());
    if (status != ERROR_SUCCESS) LogInfo(L"Failed to remove registry key '%s'. Error 0x%x.", path, Failure(status));
    return status;
}

void CollectTree(int root, const std::wstring& path, std::uint32_t view, int depth, std::vector<std::wstring>& keys) {
    RegistryKey handle;
    const LONG status = OpenKeyNoLink(root, path, KEY_READ, view, handle);
    if (NotFound(status)) return;
    ThrowIfWin32Error(status, L"Failed to open registry key " + path);
    if (IsLinkKey(handle.Get())) {
        LogInfo(L"Skip the registry link '%s': a link is never followed.", path);
        return;
    }
    if (depth >= kMaxTreeDepth) {
        Throw(HResultFromWin32(ERROR_CANTOPEN),
              Format(L"Failed to read registry key '%s': it lies more than %d levels deep.", path, kMaxTreeDepth));
    }
    keys.push_back(path);
    std::vector<std::wstring> names;
    for (DWORD index = 0;; ++index) {
        wchar_t name[256] = {};
        DWORD length = 256;
        const LONG listed = RegistryCall(::RegEnumKeyExW, handle.Get(), index, name, &length, nullptr, nullptr, nullptr, nullptr);
        if (listed == ERROR_NO_MORE_ITEMS) break;
        ThrowIfWin32Error(listed, L"Failed to get registry subkeys. Can't enumerate subkeys of key " + path);
        names.emplace_back(name, length);
    }
    handle.Reset();
    for (const std::wstring& name : names) CollectTree(root, path + L"\\" + name, view, depth + 1, keys);
}

}  // namespace

LONG DeleteKey(int root, std::wstring_view key, std::uint32_t view) {
    RegistryKey handle;
    const LONG status = OpenKeyNoLink(root, std::wstring(key), DELETE, view, handle);
    if (status != ERROR_SUCCESS) return status;
    return DeleteOpenKey(handle.Get());
}

LONG RemoveKeyTree(int root, std::wstring_view key, std::uint32_t view) {
    return RemoveTree(root, std::wstring(key), view, 0);
}

void RemoveEmptyKeys(int root, std::wstring_view key, std::uint32_t view, int keep, bool quiet) {
    std::wstring path(key);
    while (!path.empty() && (keep <= 0 || KeyDepth(path) > keep)) {
        {
            RegistryKey handle;
            LONG status = OpenKeyNoLink(root, path, KEY_QUERY_VALUE, view, handle);
            if (quiet && NotFound(status)) return;
            if (status != ERROR_SUCCESS) {
                LogInfo(L"Failed to open registry key '%s'. Error 0x%x.", path, Failure(status));
                return;
            }
            DWORD subkeys = 0, values = 0;
            status = RegistryCall(::RegQueryInfoKeyW, handle.Get(), nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, &values,
                                        nullptr, nullptr, nullptr, nullptr);
            if (status != ERROR_SUCCESS) {
                LogInfo(L"Failed to query info key '%s'. Error 0x%x.", path, Failure(status));
                return;
            }
            if (subkeys || values) return;
        }
        const LONG status = DeleteKey(root, path, view);
        if (status != ERROR_SUCCESS) {
            LogInfo(L"Failed to remove empty registry key '%s'. Error 0x%x.", path, Failure(status));
            return;
        }
        LogInfo(L"Removed empty registry key '%s'.", path);
        // The search starts two characters before the end: a trailing backslash is no cut.
        const std::size_t cut = path.size() < 2 ? std::wstring::npos : path.rfind(L'\\', path.size() - 2);
        if (cut == std::wstring::npos) return;
        path.resize(cut);
    }
}

std::vector<std::wstring> GetSubkeys(int root, std::wstring_view key, std::uint32_t view) {
    const std::wstring path(key);
    RegistryKey handle;
    ThrowIfWin32Error(OpenKey(root, path, KEY_READ, view, handle),
                      L"Failed to get registry subkeys. Can't open registry key " + path);
    std::vector<std::wstring> names;
    for (DWORD index = 0;; ++index) {
        wchar_t name[256] = {};
        DWORD length = 256;
        const LONG status = RegistryCall(::RegEnumKeyExW, handle.Get(), index, name, &length, nullptr, nullptr, nullptr, nullptr);
        if (status == ERROR_NO_MORE_ITEMS) break;
        ThrowIfWin32Error(status, L"Failed to get registry subkeys. Can't enumerate subkeys of key " + path);
        names.emplace_back(name, length);
    }
    return names;
}

std::vector<RegistryValue> GetValues(int root, std::wstring_view key, std::uint32_t view) {
    const std::wstring path(key);
    RegistryKey handle;
    ThrowIfWin32Error(OpenKey(root, path, KEY_READ, view, handle),
                      L"Failed to get registry values. Can't open registry key " + path);
    DWORD longestName = 0, longestData = 0;
    ThrowIfWin32Error(RegistryCall(::RegQueryInfoKeyW, handle.Get(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                         &longestName, &longestData, nullptr, nullptr),
                      L"Failed to get registry values. Can't query info " + path);
    std::vector<RegistryValue> values;
    std::vector<wchar_t> name(longestName + 1);
    for (DWORD index = 0;; ++index) {
        DWORD length = static_cast<DWORD>(name.size());
        const LONG status =
            RegistryCall(::RegEnumValueW, handle.Get(), index, name.data(), &length, nullptr, nullptr, nullptr, nullptr);
        if (status == ERROR_NO_MORE_ITEMS) break;
        ThrowIfWin32Error(status, L"Failed to get registry values. Can't enumerate values of key " + path);
        RegistryValue value;
        value.name.assign(name.data(), length);
        DWORD type = 0, bytes = longestData;
        value.data.assign(longestData, 0);
        ThrowIfWin32Error(RegistryCall(::RegQueryValueExW, handle.Get(), value.name.c_str(), nullptr, &type,
                                             value.data.empty() ? nullptr : value.data.data(), &bytes),
                          L"Failed to enumerate registry values. Can't query value of key " + path);
        value.type = type;
        value.data.resize(bytes);
        values.push_back(std::move(value));
    }
    return values;
}

std::vector<std::wstring> CollectKeyTree(int root, std::wstring_view key, std::uint32_t view) {
    std::vector<std::wstring> keys;
    CollectTree(root, std::wstring(key), view, 0, keys);
    return keys;
}

int ExistingDepth(int root, std::wstring_view key, std::uint32_t view) {
    const std::wstring path(key);
    RegistryKey handle;
    if (OpenKey(root, path, KEY_READ, view, handle) == ERROR_SUCCESS) return KeyDepth(path);
    int depth = 0;
    for (std::size_t cut = path.find(L'\\'); cut != std::wstring::npos; cut = path.find(L'\\', cut + 1)) {
        if (OpenKey(root, path.substr(0, cut), KEY_READ, view, handle) != ERROR_SUCCESS) break;
        ++depth;
    }
    return depth;
}

}  // namespace setup
