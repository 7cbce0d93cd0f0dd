#include "services/work_folder.h"

#include <map>
#include <vector>

#include "runtime/program_log.h"
#include "runtime/throw.h"
#include "runtime/unique_handle.h"
#include "services/file_operations.h"
#include "services/path.h"
#include "services/security_descriptor.h"

namespace setup {

namespace {

constexpr wchar_t kProductKey[] = L"Software\\Setup Utils";
constexpr wchar_t kRecordKey[] = L"Software\\Setup Utils\\WorkFolders";
constexpr int kNameTries = 5;  // a taken random name is rare; a few more tries, never a loop

// The folders this process made, by token: rows that share a token share the folder.
std::map<std::wstring, std::wstring>& Made() {
    static std::map<std::wstring, std::wstring> made;
    return made;
}

HKEY RecordRoot(bool perUser) { return perUser ? HKEY_CURRENT_USER : HKEY_LOCAL_MACHINE; }

void WriteRecord(std::wstring_view token, const std::wstring& folder, bool perUser) {
    RegistryKey key;
    ThrowIfWin32Error(::RegCreateKeyExW(RecordRoot(perUser), kRecordKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr,
                                        key.Put(), nullptr),
                      L"Failed to create registry key '" + std::wstring(kRecordKey) + L"'.");
    const std::wstring name(token);
    ThrowIfWin32Error(::RegSetValueExW(key.Get(), name.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(folder.c_str()),
                                       static_cast<DWORD>((folder.size() + 1) * sizeof(wchar_t))),
                      L"Failed to write registry value: Key '" + std::wstring(kRecordKey) + L"', Name '" + name + L"'.");
}

}  // namespace

bool IsRealFolder(std::wstring_view folder) {
    FileHandle handle(::CreateFileW(std::wstring(folder).c_str(), FILE_READ_ATTRIBUTES,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!handle) return false;
    BY_HANDLE_FILE_INFORMATION info;
    if (!::GetFileInformationByHandle(handle.Get(), &info)) return false;
    // Wine flags a host link to a folder on the name's attributes, not the handle's.
    const DWORD named = ::GetFileAttributesW(std::wstring(folder).c_str());
    return (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) && !(info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) &&
           named != INVALID_FILE_ATTRIBUTES && !(named & FILE_ATTRIBUTE_REPARSE_POINT);
}

std::wstring CreateWorkFolder(std::wstring_view parent, std::wstring_view prefix, std::wstring_view token,
                              bool perUser) {
    const std::wstring key(token);
    if (const auto made = Made().find(key); made != Made().end()) return made->second;
    const std::vector<unsigned char> descriptor =
        SddlToDescriptor(L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;FA;;;" + CurrentAccountSid() + L")");
    SECURITY_ATTRIBUTES attributes{sizeof attributes, const_cast<unsigned char*>(descriptor.data()), FALSE};
    DWORD error = ERROR_ALREADY_EXISTS;
    for (int attempt = 0; attempt < kNameTries; ++attempt) {
        const std::wstring folder = JoinPath(parent, std::wstring(prefix) + CreateRandomHex());
        if (::CreateDirectoryW(folder.c_str(), &attributes)) {
            if (!IsRealFolder(folder)) {
                Throw(HResultFromWin32(ERROR_CANT_ACCESS_FILE),
                      L"Refused to use folder '" + folder + L"': it is a link (reparse point).");
            }
            WriteRecord(token, folder, perUser);
            Made()[key] = folder;
            return folder;
        }
        error = ::GetLastError();
        if (error != ERROR_ALREADY_EXISTS && error != ERROR_FILE_EXISTS) break;
        LogInfo(L"The name '%s' is taken; trying another.", folder);
    }
    Throw(FailureFromWin32(error), L"Failed to create folder '" + JoinPath(parent, prefix) + L"...'.");
}

namespace {

// The folder recorded for `token`, whatever is there now.
std::optional<std::wstring> RecordedFolder(std::wstring_view token, bool perUser) {
    const std::wstring key(token);
    if (const auto made = Made().find(key); made != Made().end()) return made->second;
    RegistryKey records;
    if (::RegOpenKeyExW(RecordRoot(perUser), kRecordKey, 0, KEY_QUERY_VALUE, records.Put()) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    std::vector<wchar_t> buffer(32768 + 1, L'\0');
    DWORD type = 0, bytes = static_cast<DWORD>((buffer.size() - 1) * sizeof(wchar_t));
    if (::RegQueryValueExW(records.Get(), key.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(buffer.data()),
                           &bytes) != ERROR_SUCCESS ||
        type != REG_SZ) {
        return std::nullopt;
    }
    std::wstring folder(buffer.data(), bytes / sizeof(wchar_t));
    while (!folder.empty() && folder.back() == L'\0') folder.pop_back();
    return folder;
}

}  // namespace

std::optional<std::wstring> FindWorkFolder(std::wstring_view token, bool perUser) {
    std::optional<std::wstring> folder = RecordedFolder(token, perUser);
    if (!folder || IsRealFolder(*folder)) return folder;
    if (::GetFileAttributesW(folder->c_str()) != INVALID_FILE_ATTRIBUTES) {
        LogInfo(L"Refused to use the work folder '%s': it is no longer the folder made for it.", *folder);
    }
    return std::nullopt;
}

void RemoveWorkFolder(std::wstring_view token, bool perUser) {
    if (!RecordedFolder(token, perUser)) return;
    if (const std::optional<std::wstring> folder = FindWorkFolder(token, perUser)) {
        LogInfo(L"Cleanup folder '%s'.", *folder);
        RemoveFolderTree(*folder);
    }
    Made().erase(std::wstring(token));
    RegistryKey records;
    if (::RegOpenKeyExW(RecordRoot(perUser), kRecordKey, 0, KEY_SET_VALUE | KEY_QUERY_VALUE, records.Put()) !=
        ERROR_SUCCESS) {
        return;
    }
    ::RegDeleteValueW(records.Get(), std::wstring(token).c_str());
    records.Reset();
    // The machine as it was: the records key, and ours above it, go when they hold nothing.
    for (const wchar_t* key : {kRecordKey, kProductKey}) {
        RegistryKey handle;
        if (::RegOpenKeyExW(RecordRoot(perUser), key, REG_OPTION_OPEN_LINK, KEY_QUERY_VALUE, handle.Put()) !=
            ERROR_SUCCESS) {
            return;
        }
        DWORD subkeys = 0, values = 0;
        if (::RegQueryInfoKeyW(handle.Get(), nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, &values, nullptr,
                               nullptr, nullptr, nullptr) != ERROR_SUCCESS ||
            subkeys != 0 || values != 0) {
            return;
        }
        handle.Reset();
        if (::RegDeleteKeyW(RecordRoot(perUser), key) != ERROR_SUCCESS) return;
    }
}

}  // namespace setup
