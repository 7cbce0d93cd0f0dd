#include <gtest/gtest.h>

#include <winternl.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "runtime/action_frame.h"
#include "runtime/exception.h"
#include "services/file_operations.h"
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
    const std::pair<DWORD, std::wstring> cases[] = {
        {REG_SZ, L"C:\\a\0"s},
        {REG_MULTI_SZ, L"\\??\\C:\\theirs\0\\??\\C:\\other"s},  // no closing NULs (Wine adds one: still malformed)
        {REG_MULTI_SZ, L"\\??\\C:\\odd\0\0"s},                  // an odd number of strings
    };
    for (const auto& [setType, value] : cases) {
        SavedPendingRenames::SetRaw(setType, value);
        std::wstring before, after;
        DWORD type = 0;
        ASSERT_TRUE(SavedPendingRenames::ReadRaw(before, type));
        try {
            TakePendingRenameSnapshot();
            ADD_FAILURE() << "no exception";
        } catch (const Exception& e) {
            EXPECT_EQ(e.Code(), static_cast<HResult>(0x8000FFFF));
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

TEST_F(PendingRenameStoreTest, RollbackTakesBackACopyAtRestartAndDeletesOnlyTheStagingFile) {
    const std::wstring source = dir_.File(L"src.txt"), target = dir_.File(L"dst.txt");
    WriteBytes(source, "new");
    WriteBytes(target, "old");
    SavedPendingRenames::Remove();
    const PendingRenameSnapshot absent = TakePendingRenameSnapshot();
    Logged([&] { CopyFileOnReboot(source, target); });
    const PendingRenameList ours = test::QueuedRenames();
    ASSERT_EQ(ours.size(), 2u);
    const std::wstring staged = ours[1].source;
    // Rolled back alone, the value goes as it came: there was none.
    Logged([&] { RollbackPendingRenames(absent, {target}); });
    std::wstring raw;
    DWORD type = 0;
    EXPECT_FALSE(SavedPendingRenames::ReadRaw(raw, type));
    EXPECT_FALSE(FileExists(staged));

    WritePendingRenames({{L"\\??\\C:\\foreign\\before", L""}});
    const PendingRenameSnapshot snapshot = TakePendingRenameSnapshot();
    Logged([&] { CopyFileOnReboot(source, target); });
    PendingRenameList after = TakePendingRenameSnapshot().entries;
    ASSERT_EQ(after.size(), 3u);
    const std::wstring staged2 = RemoveNtPrefix(after[2].source);
    after.push_back({L"\\??\\C:\\foreign\\later", L"!\\??\\C:\\foreign\\x"});
    WritePendingRenames(after);

    const std::wstring log = Logged([&] { RollbackPendingRenames(snapshot, {target}); });
    EXPECT_EQ(TakePendingRenameSnapshot().entries,
              (PendingRenameList{{L"\\??\\C:\\foreign\\before", L""}, {L"\\??\\C:\\foreign\\later", L"!\\??\\C:\\foreign\\x"}}));
    EXPECT_FALSE(FileExists(staged2));
    EXPECT_EQ(ReadBytes(source), "new");
    EXPECT_EQ(ReadBytes(target), "old");
    for (const std::wstring& line : std::vector<std::wstring>{L"Mutex '\\PendingRenameMutex' not found. Error 0x80070002.",
                                    L"Skip lock mutex '\\PendingRenameMutex'.",
                                    L"Rollback pending rename '" + staged2 + L"' -> '" + target + L"'.",
                                    L"Need to delete rollback file '" + staged2 + L"'.", L"Delete rollback files.",
                                    L"Remove file '" + staged2 + L"'."}) {
        EXPECT_NE(log.find(line), std::wstring::npos) << line << "\n" << log;
    }
}

// Creates "\PendingRenameMutex" at the root of the object namespace on its own
// thread and holds it until released.
class HeldMutex {
public:
    HeldMutex() {
        thread_ = std::thread([this] {
            using NtCreateMutantFn = LONG(NTAPI*)(HANDLE*, ACCESS_MASK, OBJECT_ATTRIBUTES*, BOOLEAN);
            auto create = reinterpret_cast<NtCreateMutantFn>(
                reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtCreateMutant")));
            UNICODE_STRING name;
            name.Buffer = const_cast<PWSTR>(kPendingRenameMutexName);
            name.Length = name.MaximumLength = static_cast<USHORT>(wcslen(kPendingRenameMutexName) * sizeof(wchar_t));
            OBJECT_ATTRIBUTES attributes;
            InitializeObjectAttributes(&attributes, &name, 0x40, nullptr, nullptr);
            HANDLE mutex = nullptr;
            status_ = create(&mutex, 0x1F0001, &attributes, TRUE);
            ::SetEvent(ready_.Get());
            ::WaitForSingleObject(release_.Get(), 60000);
            if (mutex) {
                ::ReleaseMutex(mutex);
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

private:
    KernelHandle ready_{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    KernelHandle release_{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    LONG status_ = -1;
    std::thread thread_;
};

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

TEST_F(PendingRenameStoreTest, ARestartCarriesOutTheQueuedOperations) {
    const std::wstring moved = dir_.File(L"moved.txt"), gone = dir_.File(L"gone.txt");
    const std::wstring source = dir_.File(L"copy-src.txt"), target = dir_.File(L"copy-dst.txt");
    WriteBytes(moved, "moved");
    WriteBytes(gone, "gone");
    WriteBytes(source, "fresh");
    WriteBytes(target, "stale");
    SavedPendingRenames::Remove();
    Logged([&] {
        MoveFileOnReboot(moved, dir_.File(L"arrived.txt"));
        RemoveFileOnReboot(gone);
        CopyFileOnReboot(source, target);
    });
    ASSERT_EQ(test::QueuedRenames().size(), 5u);

    // wineboot -r carries out the list as a restart of the machine would.
    STARTUPINFOW si = {};
    si.cb = sizeof(si);
    PROCESS_INFORMATION pi{};
    wchar_t command[] = L"wineboot.exe -r";
    ASSERT_TRUE(::CreateProcessW(nullptr, command, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi));
    KernelHandle process(pi.hProcess), thread(pi.hThread);
    ASSERT_EQ(::WaitForSingleObject(process.Get(), 120000), WAIT_OBJECT_0);

    EXPECT_FALSE(FileExists(moved));
    EXPECT_EQ(ReadBytes(dir_.File(L"arrived.txt")), "moved");
    EXPECT_FALSE(FileExists(gone));
    EXPECT_EQ(ReadBytes(target), "fresh");
    EXPECT_EQ(ReadBytes(source), "fresh");
    EXPECT_TRUE(test::QueuedRenames().empty());
}

}  // namespace
}  // namespace setup
