#pragma once
// The restart-time rename list in the registry (the value
// "PendingFileRenameOperations" of kSessionManagerKey under HKLM), serialised
// against the product's other writers by the kernel mutex "\PendingRenameMutex".
//
// The mutex is created by others; this library only opens it. When it does not
// exist the store is used unlocked after one log line. The wait for it is
// bounded at 10 seconds; a timeout aborts instead of writing unlocked.

#include <set>
#include <string>

#include "runtime/unique_handle.h"
#include "services/pending_rename_list.h"

namespace setup {

inline constexpr wchar_t kSessionManagerKey[] = L"SYSTEM\\CurrentControlSet\\Control\\Session Manager";
inline constexpr wchar_t kPendingRenamesValue[] = L"PendingFileRenameOperations";
// Defined beside the first value by the system; never read or written here.
inline constexpr wchar_t kPendingRenamesValue2[] = L"PendingFileRenameOperations2";
inline constexpr wchar_t kPendingRenameMutexName[] = L"\\PendingRenameMutex";

// Owns the opened mutex (no handle when it does not exist) and releases it,
// if locked, on every exit path.
class PendingRenameMutex {
public:
    // Opens the mutex through ntdll ("NtOpenMutant"); throws "Failed to load
    // ntdll.dll.", "Failed to get NtOpenMutant from ntdll.dll." or
    // "Failed to open mutant \PendingRenameMutex".
    static PendingRenameMutex Open();

    // Waits at most `timeoutMs` (10 s in production). Throws "Timeout reached
    // while wait the mutex ..." or "Failed to wait mutex ...".
    void Lock(unsigned timeoutMs = 10000);
    void Release();
    bool Exists() const { return handle_.IsValid(); }

    PendingRenameMutex(PendingRenameMutex&&) = default;
    ~PendingRenameMutex() { Release(); }

private:
    PendingRenameMutex() = default;
    KernelHandle handle_;
    bool locked_ = false;
};

// Throws "Failed to open key: ...", "Failed to read registry value: ..." or, for
// a value that is not REG_MULTI_SZ, E_UNEXPECTED "Unexpected type of registry value: ...".
PendingRenameList ReadPendingRenames();
// Throws "Failed to open registry key: ..." or "Failed to set registry value: ...".
void WritePendingRenames(const PendingRenameList& list);

// Takes back the entries an action added since `snapshot` for `rollbackPaths`
// (see PlanPendingRenameRollback), then deletes their staging files.
void RollbackPendingRenames(const PendingRenameList& snapshot, const std::set<std::wstring>& rollbackPaths);

}  // namespace setup
