#include "services/file_operations.h"

#include <rpc.h>

#include <cstdio>

#include "runtime/program_log.h"
#include "runtime/throw.h"
#include "runtime/unique_handle.h"
#include "services/path.h"

namespace setup {

namespace {

HResult LastErrorHResult() { return FailureFromWin32(::GetLastError()); }

// Queues `from` to become `to` at restart (`to` empty: delete `from`).
bool QueueAtRestart(const std::wstring& from, const std::wstring* to) {
    return ::MoveFileExW(from.c_str(), to ? to->c_str() : nullptr, MOVEFILE_DELAY_UNTIL_REBOOT) != FALSE;
}

// Queues, for the next restart, the deletion of `to` and then the rename of
// `from` onto it; the order matters, the deletion must come first.
bool QueueReplacementAtRestart(const std::wstring& from, const std::wstring& to) {
    return QueueAtRestart(to, nullptr) && QueueAtRestart(from, &to);
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

std::wstring GetTempFilePath(std::wstring_view directory, std::wstring_view prefix) {
    const std::wstring dir(directory);
    const std::wstring pre(prefix);
    wchar_t buffer[MAX_PATH + 1] = {};
    DWORD error = ERROR_BUFFER_OVERFLOW;
    // Windows refuses a directory longer than MAX_PATH - 14 with error 111;
    // Wine 8 instead truncates the generated name and reports success, which
    // would hand back the wrong file. Take the refusal's path on both.
    if (dir.size() <= MAX_PATH - 14) {
        if (::GetTempFileNameW(dir.c_str(), pre.c_str(), 0, buffer) != 0) return buffer;
        error = ::GetLastError();
    }
    if (error == ERROR_BUFFER_OVERFLOW) {
        // The generated name would not fit MAX_PATH: a UUID name has no such limit.
        const std::wstring path = JoinPath(dir, CreateUuidString());
        FileHandle file(::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
        return path;
    }
    LogInfo(L"Failed to get temp file '%s\\%s'. Error 0x%x.", dir, pre, error);
    return std::wstring();
}

bool WriteUtf16File(std::wstring_view path, std::wstring_view text) {
    const std::wstring name(path);
    // The runtime's UTF-16LE mode writes the byte-order mark and turns each
    // "\n" into CR LF; carriage returns already in the text would double up.
    FILE* file = _wfopen(name.c_str(), L"w,ccs=UTF-16LE");
    if (file == nullptr) return false;
    std::wstring content;
    content.reserve(text.size());
    for (const wchar_t c : text) {
        if (c != L'\r') content.push_back(c);
    }
    bool ok = true;
    if (!content.empty()) ok = std::fwrite(content.data(), sizeof(wchar_t), content.size(), file) == content.size();
    ok = std::fclose(file) == 0 && ok;
    return ok;
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
        // The wording of the read failure is reused on purpose.
        LogInfo(L"Failed to get file time '%s'. Error 0x%x.", to, LastErrorHResult());
    }
}

void CopyFileOnReboot(std::wstring_view source, std::wstring_view destination) {
    const std::wstring from(source);
    const std::wstring to(destination);
    // The staging copy lives beside the source, on the source's volume.
    const std::wstring staged = GetTempFilePath(DirectoryOf(from), L"TBM");
    LogInfo(L"Copy file on reboot '%s' -> '%s' -> '%s'.", from, staged, to);
    if (!::CopyFileW(from.c_str(), staged.c_str(), FALSE)) {
        Throw(LastErrorHResult(), L"Failed to prepare copy file on reboot '" + from + L"' -> '" + staged + L"'.");
    }
    CopyFileTime(from, staged);
    if (!QueueReplacementAtRestart(staged, to)) {
        Throw(LastErrorHResult(), L"Failed to copy file on reboot '" + from + L"' -> '" + to + L"'.");
    }
}

void CopyFileWithFallback(std::wstring_view source, std::wstring_view destination, bool allowReboot) {
    const std::wstring from(source);
    const std::wstring to(destination);
    LogInfo(L"Copy file '%s' -> '%s'.", from, to);
    bool copied = false;
    if (!IsFileInUse(to)) copied = ::CopyFileW(from.c_str(), to.c_str(), FALSE) != FALSE;
    if (!copied) {
        if (!allowReboot) Throw(LastErrorHResult(), L"Failed to copy file '" + from + L"' -> '" + to + L"'.");
        CopyFileOnReboot(from, to);
    }
    CopyFileTime(from, to);
}

void MoveFileOnReboot(std::wstring_view source, std::wstring_view destination) {
    const std::wstring from(source);
    const std::wstring to(destination);
    LogInfo(L"Move file on reboot '%s' -> '%s'.", from, to);
    if (!QueueReplacementAtRestart(from, to)) {
        Throw(LastErrorHResult(), L"Failed to move file on reboot '" + from + L"' -> '" + to + L"'.");
    }
}

void MoveFileWithFallback(std::wstring_view source, std::wstring_view destination, bool allowReboot) {
    const std::wstring from(source);
    const std::wstring to(destination);
    LogInfo(L"Move file '%s' -> '%s'.", from, to);
    if (::MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING)) return;
    if (!allowReboot) Throw(LastErrorHResult(), L"Failed to move file '" + from + L"' -> '" + to + L"'.");
    MoveFileOnReboot(from, to);
}

void RemoveFileOnReboot(std::wstring_view path) {
    const std::wstring name(path);
    LogInfo(L"Remove file on reboot '%s'.", name);
    if (!QueueAtRestart(name, nullptr)) Throw(LastErrorHResult(), L"Failed to remove file on reboot " + name);
}

void RemoveFileWithFallback(std::wstring_view path, bool allowReboot) {
    const std::wstring name(path);
    LogInfo(L"Remove file '%s'.", name);
    if (::DeleteFileW(name.c_str())) return;
    if (!allowReboot) Throw(LastErrorHResult(), L"Failed to remove file " + name);
    RemoveFileOnReboot(name);
}

void RemoveDirectoryOnReboot(std::wstring_view path) {
    const std::wstring name(path);
    LogInfo(L"Remove directory on reboot '%s'.", name);
    if (!QueueAtRestart(name, nullptr)) Throw(LastErrorHResult(), L"Failed to remove directory on reboot " + name);
}

void RemoveDirectoryWithFallback(std::wstring_view path) {
    const std::wstring name(path);
    LogInfo(L"Remove directory '%s'.", name);
    if (!::RemoveDirectoryW(name.c_str())) RemoveDirectoryOnReboot(name);
}

void RemoveDirectoryRecursive(std::wstring_view directory) {
    const std::wstring dir(directory);
    const std::wstring pattern = JoinPath(dir, L"*");
    FindFiles(pattern, [&](const WIN32_FIND_DATAW& entry) {
        if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) RemoveDirectoryRecursive(JoinPath(dir, entry.cFileName));
    });
    FindFiles(pattern, [&](const WIN32_FIND_DATAW& entry) {
        if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) return;
        const std::wstring file = JoinPath(dir, entry.cFileName);
        LogInfo(L"Remove file '%s'.", file);
        if (!::DeleteFileW(file.c_str())) RemoveFileOnReboot(file);
    });
    LogInfo(L"Remove directory '%s'.", dir);
    if (!::RemoveDirectoryW(dir.c_str())) RemoveDirectoryOnReboot(dir);
}

void FindFiles(std::wstring_view pattern, const std::function<void(const WIN32_FIND_DATAW&)>& visit) {
    const std::wstring search(pattern);
    WIN32_FIND_DATAW entry;
    FindHandle find(::FindFirstFileW(search.c_str(), &entry));
    if (!find) {
        const DWORD error = ::GetLastError();
        if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) return;
        Throw(FailureFromWin32(error), L"Filed to find files " + search);
    }
    do {
        const std::wstring_view name = entry.cFileName;
        if (name == L"." || name == L"..") continue;
        visit(entry);
    } while (::FindNextFileW(find.Get(), &entry));
}

bool FileExists(std::wstring_view path) {
    const std::wstring name(path);
    const DWORD attributes = ::GetFileAttributesW(name.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

Wow64FsRedirectionGuard::Wow64FsRedirectionGuard() {
    using DisableFn = BOOL(WINAPI*)(PVOID*);
    const HMODULE kernel = ::GetModuleHandleW(L"kernel32.dll");
    if (kernel == nullptr) return;
    const auto disable =
        reinterpret_cast<DisableFn>(reinterpret_cast<void*>(::GetProcAddress(kernel, "Wow64DisableWow64FsRedirection")));
    revert_ = reinterpret_cast<RevertFn>(reinterpret_cast<void*>(::GetProcAddress(kernel, "Wow64RevertWow64FsRedirection")));
    if (disable) disabled_ = disable(&oldValue_);
}

Wow64FsRedirectionGuard::~Wow64FsRedirectionGuard() {
    if (revert_ && disabled_) revert_(oldValue_);
}

}  // namespace setup
