#include "services/work_folder.h"

#include <map>
#include <vector>

#include "runtime/program_log.h"
#include "runtime/throw.h"
#include "runtime/unique_handle.h"
#include "services/file_operations.h"
#include "services/path.h"
#include "services/record_store.h"
#include "services/security_descriptor.h"

namespace setup {

namespace {

constexpr int kNameTries = 5;  // a taken random name is rare; a few more tries, never a loop

// The folders this process made, by token: rows that share a token share the folder.
std::map<std::wstring, std::wstring>& Made() {
    static std::map<std::wstring, std::wstring> made;
    return made;
}

RecordStore Records(bool perUser) { return RecordStore(perUser, L"Software\\Setup Utils\\WorkFolders"); }

}  // namespace

bool IsRealFolder(std::wstring_view folder) {
    FileHandle handle(::CreateFileW(std::wstring(folder).c_str(), FILE_READ_ATTRIBUTES,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!handle) return false;
    const DWORD opened = HandleAttributes(handle.Get());
    if (opened == INVALID_FILE_ATTRIBUTES) return false;
    // Wine flags a host link to a folder on the name's attributes, not the handle's.
    const DWORD named = ::GetFileAttributesW(std::wstring(folder).c_str());
    return (opened & FILE_ATTRIBUTE_DIRECTORY) && !(opened & FILE_ATTRIBUTE_REPARSE_POINT) &&
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
            Records(perUser).Write(token, folder);
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
    if (const auto made = Made().find(std::wstring(token)); made != Made().end()) return made->second;
    return Records(perUser).Read(token);
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
    Records(perUser).Remove(token);
}

}  // namespace setup
