#include "services/file_operations.h"

#include <rpc.h>

#include <vector>

#include "runtime/program_log.h"
#include "runtime/throw.h"
#include "runtime/unique_handle.h"
#include "services/file_write.h"
#include "services/path.h"
#include "services/work_folder.h"

namespace setup {

namespace {

HResult LastErrorHResult() { return FailureFromWin32(::GetLastError()); }

// Queues `from` to become `to` at restart (`to` empty: delete `from`).
bool QueueAtRestart(const std::wstring& from, const std::wstring* to) {
    return ::MoveFileExW(from.c_str(), to ? to->c_str() : nullptr, MOVEFILE_DELAY_UNTIL_REBOOT) != FALSE;
}

// Queues, for the next restart, the deletion of `to` and then the rename of
// `from` onto it; the order matters, the deletion must come first. Throws
// `failure` with the last error when the system refuses either entry.
void QueueReplacementAtRestart(const std::wstring& from, const std::wstring& to, const std::wstring& failure) {
    if (!QueueAtRestart(to, nullptr) || !QueueAtRestart(from, &to)) Throw(LastErrorHResult(), failure);
}

struct RpcString {
    RPC_WSTR text = nullptr;
    ~RpcString() {
        if (text) ::RpcStringFreeW(&text);
    }
};

}  // namespace

std::wstring CreateUuidString() {
    UUID uuid;
    const RPC_STATUS created = ::UuidCreate(&uuid);
    if (created != RPC_S_OK && created != RPC_S_UUID_LOCAL_ONLY) {
        Throw(FailureFromWin32(static_cast<DWORD>(created)), L"Failed to create uuid.");
    }
    RpcString text;
    const RPC_STATUS converted = ::UuidToStringW(&uuid, &text.text);
    if (converted != RPC_S_OK) Throw(FailureFromWin32(static_cast<DWORD>(converted)), L"Failed to convert uuid to string.");
    return std::wstring(reinterpret_cast<const wchar_t*>(text.text));
}

std::wstring CreateRandomHex() {
    std::wstring hex;
    for (const wchar_t c : CreateUuidString()) {
        if (c != L'-') hex.push_back(c);
    }
    return hex;
}

std::wstring SystemDirectory() {
    wchar_t directory[MAX_PATH + 1];
    const UINT length = ::GetSystemDirectoryW(directory, MAX_PATH + 1);
    ThrowLastErrorIf(length == 0 || length > MAX_PATH, L"Failed to get system directory.");
    return std::wstring(directory, length);
}

void MoveFileOnReboot(std::wstring_view source, std::wstring_view destination) {
    const std::wstring from(source);
    const std::wstring to(destination);
    LogInfo(L"Move file on reboot '%s' -> '%s'.", from, to);
    QueueReplacementAtRestart(from, to, L"Failed to move file on reboot '" + from + L"' -> '" + to + L"'.");
}

void RemoveFileOnReboot(std::wstring_view path) {
    const std::wstring name(path);
    LogInfo(L"Remove file on reboot '%s'.", name);
    if (!QueueAtRestart(name, nullptr)) Throw(LastErrorHResult(), L"Failed to remove file on reboot " + name);
}

void RemoveDirectoryOnReboot(std::wstring_view path) {
    const std::wstring name(path);
    LogInfo(L"Remove directory on reboot '%s'.", name);
    if (!QueueAtRestart(name, nullptr)) Throw(LastErrorHResult(), L"Failed to remove directory on reboot " + name);
}

void RemoveFileWithFallback(std::wstring_view path, bool allowReboot) {
    const std::wstring name(path);
    LogInfo(L"Remove file '%s'.", name);
    if (::DeleteFileW(name.c_str())) return;
    if (!allowReboot) Throw(LastErrorHResult(), L"Failed to remove file " + name);
    RemoveFileOnReboot(name);
}

DWORD HandleAttributes(HANDLE file) {
    FILE_ATTRIBUTE_TAG_INFO info{};
    if (!::GetFileInformationByHandleEx(file, FileAttributeTagInfo, &info, sizeof info)) return INVALID_FILE_ATTRIBUTES;
    return info.FileAttributes;
}

bool ReadFileStamp(HANDLE file, FileStamp& stamp) {
    FILE_BASIC_INFO info{};
    if (!::GetFileInformationByHandleEx(file, FileBasicInfo, &info, sizeof info)) return false;
    const auto time = [](const LARGE_INTEGER& value) {
        return FILETIME{static_cast<DWORD>(value.LowPart), static_cast<DWORD>(value.HighPart)};
    };
    stamp = {time(info.CreationTime), time(info.LastAccessTime), time(info.LastWriteTime), info.FileAttributes};
    return true;
}

bool FileExists(std::wstring_view path) {
    const std::wstring name(path);
    const DWORD attributes = ::GetFileAttributesW(name.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

bool FolderExists(std::wstring_view path) {
    const std::wstring name(path);
    const DWORD attributes = ::GetFileAttributesW(name.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool IsFileInUse(std::wstring_view path) {
    const std::wstring name(path);
    FileHandle file(::CreateFileW(name.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                  FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file) return false;
    if (::GetLastError() != ERROR_SHARING_VIOLATION) return false;
    LogInfo(L"The file '%s' is being used by another process.", name);
    return true;
}

void CopyFileTime(std::wstring_view source, std::wstring_view destination) {
    const std::wstring from(source);
    const std::wstring to(destination);
    FileHandle in(::CreateFileW(from.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!in) {
        LogInfo(L"Failed to open source file '%s'. Error 0x%x.", from, LastErrorHResult());
        return;
    }
    FILETIME created, accessed, written;
    if (!::GetFileTime(in.Get(), &created, &accessed, &written)) {
        LogInfo(L"Failed to get file time '%s'. Error 0x%x.", from, LastErrorHResult());
        return;
    }
    FileHandle out(::CreateFileW(to.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!out) {
        LogInfo(L"Failed to open destination file '%s'. Error 0x%x.", to, LastErrorHResult());
        return;
    }
    if (!::SetFileTime(out.Get(), &created, &accessed, &written)) {
        LogInfo(L"Failed to get file time '%s'. Error 0x%x.", to, LastErrorHResult());
    }
}

void CopyFileOnReboot(std::wstring_view source, std::wstring_view destination) {
    const std::wstring from(source);
    const std::wstring to(destination);
    std::wstring staged;
    {
        NewFile file = CreateStagingFile(DirectoryOf(to), L"TBM");
        staged = file.path;
    }
    LogInfo(L"Copy file on reboot '%s' -> '%s' -> '%s'.", from, staged, to);
    if (!::CopyFileW(from.c_str(), staged.c_str(), FALSE)) {
        const HResult hr = LastErrorHResult();
        ::DeleteFileW(staged.c_str());
        Throw(hr, L"Failed to prepare copy file on reboot '" + from + L"' -> '" + staged + L"'.");
    }
    CopyFileTime(from, staged);
    QueueReplacementAtRestart(staged, to, L"Failed to copy file on reboot '" + from + L"' -> '" + to + L"'.");
}

void CopyFileWithFallback(std::wstring_view source, std::wstring_view destination, bool allowReboot) {
    const std::wstring from(source);
    const std::wstring to(destination);
    LogInfo(L"Copy file '%s' -> '%s'.", from, to);
    if (::CopyFileW(from.c_str(), to.c_str(), FALSE)) {
        CopyFileTime(from, to);
        return;
    }
    if (!allowReboot) Throw(LastErrorHResult(), L"Failed to copy file '" + from + L"' -> '" + to + L"'.");
    CopyFileOnReboot(from, to);
}

void MoveFileWithFallback(std::wstring_view source, std::wstring_view destination, bool allowReboot) {
    const std::wstring from(source);
    const std::wstring to(destination);
    LogInfo(L"Move file '%s' -> '%s'.", from, to);
    if (::MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING)) return;
    if (!allowReboot) Throw(LastErrorHResult(), L"Failed to move file '" + from + L"' -> '" + to + L"'.");
    MoveFileOnReboot(from, to);
}

std::wstring ResolvePath(std::wstring_view path) {
    if (!PathProblem(path).empty()) return std::wstring(path);
    const std::wstring full = NormalizePath(path);
    if (full.find(L'~') == std::wstring::npos) return full;
    // The longest part that exists has long names to give; the rest is kept.
    for (std::wstring head = full; !head.empty() && !IsRootPath(head); head = DirectoryOf(head)) {
        std::vector<wchar_t> buffer(32768);
        const DWORD n = ::GetLongPathNameW(head.c_str(), buffer.data(), static_cast<DWORD>(buffer.size()));
        if (n == 0 || n >= buffer.size()) continue;
        return NormalizePath(std::wstring(buffer.data(), n) + full.substr(head.size()));
    }
    return full;
}

void CreateFolders(std::wstring_view folder) {
    const std::wstring path(folder);
    if (path.empty() || IsRootPath(path) || FolderExists(path)) return;
    const std::wstring parent = DirectoryOf(path);
    // A drive ("C:") or a share's root has no parent to create.
    if (!parent.empty() && parent.size() < path.size() && parent.back() != L':') CreateFolders(parent);
    if (::CreateDirectoryW(path.c_str(), nullptr) || ::GetLastError() == ERROR_ALREADY_EXISTS) return;
    Throw(LastErrorHResult(), L"Failed to create folder '" + path + L"'.");
}

bool FolderIsEmpty(std::wstring_view folder) {
    WIN32_FIND_DATAW data;
    FindHandle find(::FindFirstFileW(JoinPath(folder, L"*").c_str(), &data));
    if (!find) return false;
    do {
        const std::wstring_view name = data.cFileName;
        if (name != L"." && name != L"..") return false;
    } while (::FindNextFileW(find.Get(), &data));
    return true;
}

void RemoveFolderTree(std::wstring_view folder) {
    const std::wstring path(folder);
    if (::GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) return;
    // The root itself is checked on an opened handle: a folder swapped for a
    // link is never entered.
    if (!IsRealFolder(path)) {
        LogInfo(L"Refused to remove folder '%s': it is a link (reparse point), not a folder this library made.", path);
        return;
    }
    std::vector<std::wstring> files, folders;
    WIN32_FIND_DATAW data;
    if (FindHandle find(::FindFirstFileW(JoinPath(path, L"*").c_str(), &data)); find) {
        do {
            const std::wstring name = data.cFileName;
            if (name == L"." || name == L"..") continue;
            const std::wstring entry = JoinPath(path, name);
            if (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) continue;
            if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
                // Wine flags a link to a folder on the folder's own attributes only.
                if (!(::GetFileAttributesW(entry.c_str()) & FILE_ATTRIBUTE_REPARSE_POINT)) folders.push_back(entry);
            } else {
                files.push_back(entry);
            }
        } while (::FindNextFileW(find.Get(), &data));
    }
    for (const std::wstring& sub : folders) RemoveFolderTree(sub);
    for (const std::wstring& file : files) {
        ::SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_NORMAL);
        if (!::DeleteFileW(file.c_str())) Leniently([&] { RemoveFileOnReboot(file); });
    }
    if (!::RemoveDirectoryW(path.c_str())) {
        LogInfo(L"Failed to remove folder '%s'. Error 0x%x.", path, LastErrorHResult());
    }
}

Wow64FsRedirectionGuard::Wow64FsRedirectionGuard() {
    using DisableFn = BOOL(WINAPI*)(PVOID*);
    const HMODULE kernel = ::GetModuleHandleW(L"kernel32.dll");
    const auto disable = GetProcedure<DisableFn>(kernel, "Wow64DisableWow64FsRedirection");
    revert_ = GetProcedure<RevertFn>(kernel, "Wow64RevertWow64FsRedirection");
    if (disable) disabled_ = disable(&oldValue_);
}

Wow64FsRedirectionGuard::~Wow64FsRedirectionGuard() {
    if (revert_ && disabled_) revert_(oldValue_);
}

}  // namespace setup
