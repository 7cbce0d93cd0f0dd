#pragma once
// File operations with a restart-time fallback, shared by the file actions.
//
// Each operation logs what it is about to do, tries it now and, where the
// caller allows it, schedules the same effect for the next restart through
// the system's rename list (MoveFileExW with MOVEFILE_DELAY_UNTIL_REBOOT).
// Hard failures throw setup::Exception with the converted last error and the
// text given here; the operations marked "logged only" never throw.

#include <string>
#include <string_view>

#include "runtime/win32.h"

namespace setup {

// A fresh UUID in UuidToStringW's form (lower case, no braces).
// Throws "Failed to create uuid." / "Failed to convert uuid to string.".
std::wstring CreateUuidString();
// A fresh UUID as 32 hex digits: 122 random bits, for names nobody can guess.
std::wstring CreateRandomHex();
// The system directory (system32, or what the process's view makes of it);
// throws "Failed to get system directory.".
std::wstring SystemDirectory();

// The attributes of an open file or folder, or INVALID_FILE_ATTRIBUTES. On a
// handle opened with FILE_FLAG_OPEN_REPARSE_POINT the reparse point bit is the
// link's own. Asked through FileAttributeTagInfo, which reads nothing more:
// GetFileInformationByHandle also asks for the volume's serial number, a round
// trip to Wine's mount manager of 0.15 to 0.5 ms.
DWORD HandleAttributes(HANDLE file);

// The times and attributes of an open file, for a copy that keeps them.
struct FileStamp {
    FILETIME created{}, accessed{}, written{};
    DWORD attributes = 0;
};
bool ReadFileStamp(HANDLE file, FileStamp& stamp);

// Queues, for the next restart, the deletion of the destination and then the
// rename of the source onto it. Throws "Failed to move file on reboot ...".
void MoveFileOnReboot(std::wstring_view source, std::wstring_view destination);
// Queues the deletion of `path` for the next restart. Throws "Failed to remove file on reboot ...".
void RemoveFileOnReboot(std::wstring_view path);
// Queues the deletion of the folder `path` (empty by then) for the next
// restart. Throws "Failed to remove directory on reboot ...".
void RemoveDirectoryOnReboot(std::wstring_view path);
// Deletes `path` now; when that fails and `allowReboot`, at the next restart.
// Throws "Failed to remove file ..." otherwise.
void RemoveFileWithFallback(std::wstring_view path, bool allowReboot);
// True when `path` names an existing file (not a directory).
bool FileExists(std::wstring_view path);
// True when `path` names an existing folder.
bool FolderExists(std::wstring_view path);

// True when another process holds `path` open without letting us write it
// (logs "The file '<path>' is being used by another process."). A missing or
// inaccessible file is not in use.
bool IsFileInUse(std::wstring_view path);
// Gives `destination` the creation, access and write times of `source`.
// Logged only: a failure never throws.
void CopyFileTime(std::wstring_view source, std::wstring_view destination);
// Copies `source` into a staging file beside `destination` (same volume, so
// the restart-time rename cannot fail for crossing volumes) and queues the
// deletion of the destination and the rename of the staging file onto it.
// Throws "Failed to prepare copy file on reboot ..." or "Failed to copy file
// on reboot ...".
void CopyFileOnReboot(std::wstring_view source, std::wstring_view destination);
// Copies now, with the source's times; when the copy fails, at the next
// restart if `allowReboot`, else throws "Failed to copy file '<source>' ->
// '<destination>'.". A caller that may meet a destination held open asks
// IsFileInUse first (only when the destination exists: the probe is a lookup).
void CopyFileWithFallback(std::wstring_view source, std::wstring_view destination, bool allowReboot);
// Moves now (replacing the destination, same volume only); when that fails, at
// the next restart if `allowReboot`, else throws "Failed to move file ...".
void MoveFileWithFallback(std::wstring_view source, std::wstring_view destination, bool allowReboot);
// `path` normalised (NormalizePath) with every 8.3 short component of its
// existing part in its long form, so that no spelling of a folder ("..",
// "C:\\WINDOW~1", trailing dots) passes a check that its plain name fails. A
// path PathProblem refuses comes back as it is, for the caller to refuse.
std::wstring ResolvePath(std::wstring_view path);

// Creates `folder` and every missing folder above it. Throws
// "Failed to create folder '<folder>'." with the error.
void CreateFolders(std::wstring_view folder);

// True when the folder exists and holds nothing.
bool FolderIsEmpty(std::wstring_view folder);
// Deletes a folder this library made and everything in it, read-only files
// too; a file that cannot go now goes at the next restart. A link inside is
// neither entered nor removed (nor the folders holding it). Logs a failure
// ("Failed to remove folder '<folder>'. Error 0x<hr>."); never throws.
void RemoveFolderTree(std::wstring_view folder);

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
