#include "services/file_restore.h"

#include <cstring>
#include <vector>

#include "runtime/program_log.h"
#include "runtime/throw.h"
#include "runtime/unique_handle.h"
#include "runtime/exception.h"
#include "services/file_operations.h"
#include "services/file_write.h"

namespace setup {

namespace {

FileHandle OpenForCompare(const std::wstring& path) {
    return FileHandle(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                    nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
}

// True when both files can be read and hold the same bytes under the same
// last-write time. Anything unreadable counts as different: the restore is then tried.
bool SameFile(const std::wstring& a, const std::wstring& b) {
    FileHandle fa = OpenForCompare(a);
    FileHandle fb = OpenForCompare(b);
    if (!fa || !fb) return false;
    LARGE_INTEGER sa{}, sb{};
    FILETIME wa{}, wb{};
    if (!::GetFileSizeEx(fa.Get(), &sa) || !::GetFileSizeEx(fb.Get(), &sb) || sa.QuadPart != sb.QuadPart) return false;
    if (!::GetFileTime(fa.Get(), nullptr, nullptr, &wa) || !::GetFileTime(fb.Get(), nullptr, nullptr, &wb)) return false;
    if (::CompareFileTime(&wa, &wb) != 0) return false;
    std::vector<char> ba(64 * 1024), bb(64 * 1024);
    for (;;) {
        DWORD ra = 0, rb = 0;
        if (!::ReadFile(fa.Get(), ba.data(), static_cast<DWORD>(ba.size()), &ra, nullptr)) return false;
        if (!::ReadFile(fb.Get(), bb.data(), static_cast<DWORD>(bb.size()), &rb, nullptr)) return false;
        if (ra != rb || std::memcmp(ba.data(), bb.data(), ra) != 0) return false;
        if (ra == 0) return true;
    }
}

void ClearReadOnly(const std::wstring& path) {
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY)) {
        ::SetFileAttributesW(path.c_str(), attributes & ~DWORD{FILE_ATTRIBUTE_READONLY});
    }
}

}  // namespace

void RestoreFileFromBackup(std::wstring_view target, std::wstring_view backup) {
    const std::wstring to(target);
    const std::wstring from(backup);
    LogInfo(L"Rollback file '%s' from '%s'.", to, from);
    if (SameFile(to, from)) {
        LogInfo(L"The file '%s' was not changed.", to);
        RemoveBackupFile(from);
        return;
    }
    if (FileExists(to)) {
        // Into the original file: it keeps its identity, descriptor, streams and links.
        try {
            CopyIntoExistingFile(from, to);
            RemoveBackupFile(from);
            return;
        } catch (const Exception& e) {
            LogInfo(L"%s Error 0x%x.", e.Message(), e.Code());
        }
    } else {
        LogInfo(L"Move file '%s' -> '%s'.", from, to);
        if (::MoveFileExW(from.c_str(), to.c_str(), 0)) return;
        LogInfo(L"Failed to move file '%s' -> '%s'. Error 0x%x.", from, to, FailureFromWin32(::GetLastError()));
    }
    LogInfo(L"Move file on reboot '%s' -> '%s'.", from, to);
    if (!::MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_DELAY_UNTIL_REBOOT | MOVEFILE_REPLACE_EXISTING)) {
        const DWORD error = ::GetLastError();
        Throw(FailureFromWin32(error), L"Failed to move file on reboot '" + from + L"' -> '" + to + L"'.");
    }
}

void RemoveBackupFile(std::wstring_view backup) {
    const std::wstring path(backup);
    ClearReadOnly(path);
    RemoveFileWithFallback(path, true);
}

}  // namespace setup
