#pragma once
// File operations with a restart-time fallback, shared by the file actions.
//
// Each operation logs what it is about to do, tries it now and, where the
// caller allows it, schedules the same effect for the next restart through
// the system's rename list (MoveFileExW with MOVEFILE_DELAY_UNTIL_REBOOT).
// Hard failures throw setup::Exception with the converted last error and the
// text given here; the operations marked "logged only" never throw.

#include <functional>
#include <string>
#include <string_view>

#include "runtime/win32.h"

namespace setup {

// A fresh UUID in UuidToStringW's form (lower case, no braces).
// Throws "Failed to create uuid." / "Failed to convert uuid to string.".
std::wstring CreateUuidString();

// A new empty file in `directory` named by GetTempFileNameW with `prefix`; when
// the name would be too long (error 111) a UUID-named file instead. Other
// failures are logged only and yield "".
std::wstring GetTempFilePath(std::wstring_view directory, std::wstring_view prefix);

// Writes `text` as UTF-16LE with a byte-order mark, truncating the file; each
// line feed becomes one CR LF (carriage returns in the text are dropped first).
// Returns false when the file could not be opened or written (nothing is thrown).
bool WriteUtf16File(std::wstring_view path, std::wstring_view text);

// True when another process holds the file open (a sharing violation).
bool IsFileInUse(std::wstring_view path);

// Copies creation, access and write times (logged only).
void CopyFileTime(std::wstring_view source, std::wstring_view destination);

// Stages a copy beside the source and queues, for the next restart, the
// deletion of the destination and then the rename of the staged copy onto it.
void CopyFileOnReboot(std::wstring_view source, std::wstring_view destination);
void CopyFileWithFallback(std::wstring_view source, std::wstring_view destination, bool allowReboot);
void MoveFileOnReboot(std::wstring_view source, std::wstring_view destination);
void MoveFileWithFallback(std::wstring_view source, std::wstring_view destination, bool allowReboot);
void RemoveFileOnReboot(std::wstring_view path);
void RemoveFileWithFallback(std::wstring_view path, bool allowReboot);
void RemoveDirectoryOnReboot(std::wstring_view path);
// A directory that cannot go now always goes at restart.
void RemoveDirectoryWithFallback(std::wstring_view path);
// Subdirectories first, then the files of each level, then the directory;
// what cannot be deleted now is deleted at restart.
void RemoveDirectoryRecursive(std::wstring_view directory);

// Calls `visit` for every entry matching `pattern` except "." and "..".
// A missing file or path calls nothing; other failures throw "Filed to find files ...".
void FindFiles(std::wstring_view pattern, const std::function<void(const WIN32_FIND_DATAW&)>& visit);

// True when `path` names an existing file (not a directory).
bool FileExists(std::wstring_view path);

// Turns off WOW64 file-system redirection for its lifetime. The functions are
// looked up at run time, so systems without WOW64 load the DLL and the guard
// does nothing there.
class Wow64FsRedirectionGuard {
public:
    Wow64FsRedirectionGuard();
    ~Wow64FsRedirectionGuard();
    Wow64FsRedirectionGuard(const Wow64FsRedirectionGuard&) = delete;
    Wow64FsRedirectionGuard& operator=(const Wow64FsRedirectionGuard&) = delete;

private:
    using RevertFn = BOOL(WINAPI*)(PVOID);
    RevertFn revert_ = nullptr;
    PVOID oldValue_ = nullptr;
    BOOL disabled_ = FALSE;
};

}  // namespace setup
