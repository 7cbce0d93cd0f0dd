#include <gtest/gtest.h>

#include <winternl.h>

#include <chrono>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "runtime/action_frame.h"
#include "runtime/exception.h"
#include "services/file_operations.h"
#include "services/file_write.h"
#include "services/pending_rename_store.h"
#include "services/services_wine_support.h"
#include "wine_support/test_package.h"

namespace setup {
namespace {

using namespace std::string_literals;
using test::MessageCapture;
using test::ReadBytes;
using test::SavedPendingRenames;
using test::TempDir;
using test::TestPackage;
using test::WriteBytes;

class PendingRenameStoreTest : public test::ServicesTest {};

TEST_F(PendingRenameStoreTest, ReadsAndWritesTheRealValue) {
    SavedPendingRenames::Remove();
    EXPECT_EQ(TakePendingRenameSnapshot(), PendingRenameSnapshot{});  // absent
    const PendingRenameList list = {{L"\\??\\C:\\a", L"!\\??\\C:\\b"}, {L"\\??\\C:\\c", L""}};
    WritePendingRenames(list);
    std::wstring raw;
    DWORD type = 0;
    ASSERT_TRUE(SavedPendingRenames::ReadRaw(raw, type));
    EXPECT_EQ(type, static_cast<DWORD>(REG_MULTI_SZ));
    EXPECT_EQ(raw, L"\\??\\C:\\a\0!\\??\\C:\\b\0\\??\\C:\\c\0\0\0"s);
    EXPECT_EQ(TakePendingRenameSnapshot(), (PendingRenameSnapshot{true, list}));
    WritePendingRenames({});  // an empty list is a value of zero bytes, not an absent one
    ASSERT_TRUE(SavedPendingRenames::ReadRaw(raw, type));
    EXPECT_TRUE(raw.empty());
    EXPECT_EQ(TakePendingRenameSnapshot(), (PendingRenameSnapshot{true, {}}));
    RemovePendingRenames();
    RemovePendingRenames();  // absent already: not an error
    EXPECT_FALSE(SavedPendingRenames::ReadRaw(raw, type));
}

TEST_F(PendingRenameStoreTest, AValueThatIsNotAListIsRefusedForASnapshotAndNeverRewritten) {
    const std::wstring list = L"\\??\\C:\\a\0\\??\\C:\\b\0\0"s;
    const std::tuple<DWORD, std::wstring, std::wstring> cases[] = {
        {REG_SZ, L"C:\\a\0"s, L"Unexpected type of registry value: "},
        {REG_BINARY, list, L"Unexpected type of registry value: "},  // pairs, but not a REG_MULTI_SZ
        {REG_MULTI_SZ, L"\\??\\C:\\theirs\0\\??\\C:\\other"s, L"The registry value "},  // no closing NULs
        {REG_MULTI_SZ, L"\\??\\C:\\odd\0\0"s, L"The registry value "},                   // an odd number of strings
    };
    for (const auto& [setType, value, message] : cases) {
        SavedPendingRenames::SetRaw(setType, value);
        std::wstring before, after;
        DWORD type = 0;
        ASSERT_TRUE(SavedPendingRenames::ReadRaw(before, type));
        try {
            TakePendingRenameSnapshot();
            ADD_FAILURE() << "no exception";
        } catch (const Exception& e) {
            EXPECT_EQ(e.Code(), static_cast<HResult>(0x8000FFFF));
            EXPECT_EQ(e.Message().substr(0, message.size()), message);
            EXPECT_NE(e.Message().find(L"SYSTEM\\CurrentControlSet\\Control\\Session Manager\\"
                                       L"PendingFileRenameOperations"), std::wstring::npos);
        }
        const std::wstring log = Logged([&] { RollbackPendingRenames({}, {L"C:\\other"}); });
        EXPECT_NE(log.find(L"It is left as it is."), std::wstring::npos) << log;
        ASSERT_TRUE(SavedPendingRenames::ReadRaw(after, type));
        EXPECT_EQ(after, before);
        EXPECT_EQ(type, setType);
    }
}

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
