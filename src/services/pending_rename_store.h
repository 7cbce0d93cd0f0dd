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

// The value as it is stored: absent, or its type, byte count and characters
// (an odd last byte is kept as a whole character and makes the value malformed).
struct PendingRenameValue {
    bool exists = false;
    DWORD type = REG_MULTI_SZ;
    DWORD bytes = 0;
    std::wstring data;
};

// Throws "Failed to open key: ..." or "Failed to read registry value: ...".
PendingRenameValue ReadPendingRenameValue();

// The list as it stands, for an action that is about to add to it. Throws
// E_UNEXPECTED naming what it found when the value is of another type than
// REG_MULTI_SZ or does not read as rename pairs: the action could not later
// find and take back its own entries in it, so it must not add any.
PendingRenameSnapshot TakePendingRenameSnapshot();

// Throws "Failed to open registry key: ..." or "Failed to set registry value: ...".
void WritePendingRenames(const PendingRenameList& list);
// Removes the value; an absent value is not an error. Throws
// "Failed to open registry key: ..." or "Failed to delete registry value: ...".
void RemovePendingRenames();

// Takes back the entries an action added since `snapshot` for `rollbackPaths`
// (see PlanPendingRenameRollback), then deletes their staging files. A value
// that is absent, of another type or malformed is left exactly as it is.
void RollbackPendingRenames(const PendingRenameSnapshot& snapshot, const std::set<std::wstring>& rollbackPaths,
                            const std::set<std::wstring>& keptSources = {});

// The list as it stands, for a look only; a value that does not read as a
// list reads as an empty one.
PendingRenameList ReadPendingRenamesLeniently();

}  // namespace setup
