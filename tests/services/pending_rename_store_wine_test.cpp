#include <gtest/gtest.h>

#include <winternl.h>

#include <chrono>
#include <string>
#include <thread>

#include "runtime/action_frame.h"
#include "services/pending_rename_store.h"
#include "services/services_wine_support.h"
#include "wine_support/test_package.h"

namespace setup {
namespace {

using namespace std::string_literals;
using test::MessageCapture;
using test::SavedPendingRenames;

class PendingRenameStoreTest : public test::ServicesTest {};

// Creates "\PendingRenameMutex" at the root of the object namespace on its own
// thread, owned by that thread (or free) until the end of the scope.
class HeldMutex {
public:
    explicit HeldMutex(bool owned = true) {
        thread_ = std::thread([this, owned] {
            using NtCreateMutantFn = LONG(NTAPI*)(HANDLE*, ACCESS_MASK, OBJECT_ATTRIBUTES*, BOOLEAN);
            auto create = reinterpret_cast<NtCreateMutantFn>(
                reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtCreateMutant")));
            UNICODE_STRING name;
            name.Buffer = const_cast<PWSTR>(kPendingRenameMutexName);
            name.Length = name.MaximumLength = static_cast<USHORT>(wcslen(kPendingRenameMutexName) * sizeof(wchar_t));
            OBJECT_ATTRIBUTES attributes;
            InitializeObjectAttributes(&attributes, &name, 0x40, nullptr, nullptr);
            HANDLE mutex = nullptr;
            status_ = create(&mutex, 0x1F0001, &attributes, owned ? TRUE : FALSE);
            mutex_ = mutex;
            ::SetEvent(ready_.Get());
            ::WaitForSingleObject(release_.Get(), 60000);
            if (mutex) {
                if (owned) ::ReleaseMutex(mutex);
                ::CloseHandle(mutex);
            }
        });
        ::WaitForSingleObject(ready_.Get(), 10000);
    }
    ~HeldMutex() {
        ::SetEvent(release_.Get());
        thread_.join();
    }
    LONG Status() const { return status_; }
    // True when a thread that is not the test's can take the mutex at once.
    bool FreeForOthers() const {
        bool free = false;
        std::thread([&] {
            free = ::WaitForSingleObject(mutex_, 0) == WAIT_OBJECT_0;
            if (free) ::ReleaseMutex(mutex_);
        }).join();
        return free;
    }

private:
    HANDLE mutex_ = nullptr;
    KernelHandle ready_{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    KernelHandle release_{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    LONG status_ = -1;
    std::thread thread_;
};

TEST_F(PendingRenameStoreTest, TheMutexIsReleasedOnEveryWayOut) {
    HeldMutex mutex(false);
    ASSERT_GE(mutex.Status(), 0);
    SavedPendingRenames::SetRaw(REG_SZ, L"C:\\y\0"s);  // not a list: the rollback leaves early
    Logged([&] { RollbackPendingRenames({}, {L"C:\\y"}); });
    EXPECT_TRUE(mutex.FreeForOthers());
    WritePendingRenames({{L"\\??\\C:\\y", L""}});
    Logged([&] { RollbackPendingRenames({}, {L"C:\\y"}); });
    EXPECT_TRUE(mutex.FreeForOthers());
    EXPECT_TRUE(test::QueuedRenames().empty());
}

TEST_F(PendingRenameStoreTest, AMutexHeldElsewhereTimesOutAfterTenSecondsWithoutWriting) {
    SavedPendingRenames::Remove();
    WritePendingRenames({{L"\\??\\C:\\x", L"\\??\\C:\\y"}});
    HeldMutex held;
    ASSERT_GE(held.Status(), 0) << "could not create the mutex at the root of the object namespace";
    const auto start = std::chrono::steady_clock::now();
    MessageCapture capture;
    const UINT result = RunAction(package_.Session(), "Renames", ActionError::None,
                                  [&](Session&) { RollbackPendingRenames({}, {L"C:\\y"}); });
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(result, 1603u);
    EXPECT_TRUE(capture.HasInfo(L"Timeout reached while wait the mutex \\PendingRenameMutex Error 0x80070102."))
        << capture.AllInfo();
    EXPECT_GE(waited, std::chrono::milliseconds(9900));
    EXPECT_EQ(test::QueuedRenames(), (PendingRenameList{{L"C:\\x", L"C:\\y"}}));  // nothing written unlocked
}

}  // namespace
}  // namespace setup
