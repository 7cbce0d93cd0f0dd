#pragma once
// Helpers for the services' Wine tests: the machine's restart-time rename list
// saved before a test and put back after it, and small file utilities.

#include <string>
#include <vector>

#include "runtime/unique_handle.h"

namespace setup::test {

// Saves the raw PendingFileRenameOperations value and restores it (or removes
// the value when there was none) at the end of the scope.
class SavedPendingRenames {
public:
    SavedPendingRenames();
    ~SavedPendingRenames();
    SavedPendingRenames(const SavedPendingRenames&) = delete;
    SavedPendingRenames& operator=(const SavedPendingRenames&) = delete;

    // Replaces the value with raw data of the given type (for malformed cases).
    static void SetRaw(DWORD type, const std::wstring& raw);
    static void Remove();
    // The value's raw characters; nothing when absent.
    static bool ReadRaw(std::wstring& raw, DWORD& type);

private:
    bool existed_ = false;
    DWORD type_ = REG_MULTI_SZ;
    std::wstring raw_;
};

void WriteBytes(const std::wstring& path, const std::string& bytes);
std::string ReadBytes(const std::wstring& path);

}  // namespace setup::test
