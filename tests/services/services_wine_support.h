#pragma once
// Helpers for the services' Wine tests: the machine's restart-time rename list
// saved before a test and put back after it, and small file utilities.

#include <string>
#include <vector>

#include "runtime/unique_handle.h"
#include "services/pending_rename_list.h"
#include "services/pending_rename_store.h"
#include "wine_support/test_package.h"

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

private:
    PendingRenameValue saved_;
};

// A session to log through, a scratch directory and the machine's rename list
// put back afterwards: what every services test needs.
class ServicesTest : public ::testing::Test {
protected:
    void SetUp() override { package_.Open(); }
    template <class F>
    std::wstring Logged(F work) {
        return LoggedIn(package_.Session(), work);
    }
    TestPackage package_;
    TempDir dir_;
    SavedPendingRenames saved_;
};

// The restart-time rename list as it stands, prefixes removed for readability.
PendingRenameList QueuedRenames();

void WriteBytes(const std::wstring& path, const std::string& bytes);
std::string ReadBytes(const std::wstring& path);

}  // namespace setup::test
