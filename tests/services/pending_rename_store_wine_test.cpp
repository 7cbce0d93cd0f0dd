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
    EXPECT_TRUE(ReadPendingRenames().empty());  // absent
    const PendingRenameList list = {{L"C:\\a", L"C:\\b"}, {L"C:\\c", L""}};
    WritePendingRenames(list);
    std::wstring raw;
    DWORD type = 0;
    ASSERT_TRUE(SavedPendingRenames::ReadRaw(raw, type));
    EXPECT_EQ(type, static_cast<DWORD>(REG_MULTI_SZ));
    EXPECT_EQ(raw, L"\\??\\C:\\a\0\\??\\C:\\b\0\\??\\C:\\c\0\0\0"s);
    EXPECT_EQ(ReadPendingRenames(), list);
    WritePendingRenames({});  // an empty list is a value of zero bytes, not an absent one
    ASSERT_TRUE(SavedPendingRenames::ReadRaw(raw, type));
    EXPECT_TRUE(raw.empty());
    EXPECT_TRUE(ReadPendingRenames().empty());

    SavedPendingRenames::SetRaw(REG_SZ, L"C:\\a\0"s);
    try {
        ReadPendingRenames();
        ADD_FAILURE() << "no exception";
    } catch (const Exception& e) {
        EXPECT_EQ(e.Code(), static_cast<HResult>(0x8000FFFF));
        EXPECT_EQ(e.Message(), L"Unexpected type of registry value: SYSTEM\\CurrentControlSet\\Control\\"
                               L"Session Manager\\PendingFileRenameOperations");
    }
}

TEST_F(PendingRenameStoreTest, AMalformedValueIsNeverRewritten) {
    const std::wstring malformed = L"\\??\\C:\\theirs\0\\??\\C:\\other"s;  // no closing NULs
    SavedPendingRenames::SetRaw(REG_MULTI_SZ, malformed);
    std::wstring before;
    DWORD type = 0;
    ASSERT_TRUE(SavedPendingRenames::ReadRaw(before, type));  // Wine adds one NUL: still no double NUL
    EXPECT_TRUE(ReadPendingRenames().empty());
    Logged([&] { RollbackPendingRenames({}, {L"C:\\other"}); });
    std::wstring raw;
    ASSERT_TRUE(SavedPendingRenames::ReadRaw(raw, type));
    EXPECT_EQ(raw, before);
}

TEST_F(PendingRenameStoreTest, RollbackTakesBackACopyAtRestartAndDeletesOnlyTheStagingFile) {
    const std::wstring source = dir_.File(L"src.txt"), target = dir_.File(L"dst.txt");
    WriteBytes(source, "new");
    WriteBytes(target, "old");
    SavedPendingRenames::Remove();
    WritePendingRenames({{L"C:\\foreign\\before", L""}});
    const PendingRenameList snapshot = ReadPendingRenames();
    Logged([&] { CopyFileOnReboot(source, target); });
    PendingRenameList after = ReadPendingRenames();
    ASSERT_EQ(after.size(), 3u);
    const std::wstring staged = after[2].source;
    WritePendingRenames([&] {
        after.push_back({L"C:\\foreign\\later", L"C:\\foreign\\x"});
        return after;
    }());

    const std::wstring log = Logged([&] { RollbackPendingRenames(snapshot, {target}); });
    EXPECT_EQ(ReadPendingRenames(), (PendingRenameList{{L"C:\\foreign\\before", L""},
                                                       {L"C:\\foreign\\later", L"C:\\foreign\\x"}}));
    EXPECT_FALSE(FileExists(staged));
    EXPECT_EQ(ReadBytes(source), "new");
    EXPECT_EQ(ReadBytes(target), "old");
    for (const std::wstring& line : std::vector<std::wstring>{L"Mutex '\\PendingRenameMutex' not found. Error 0x80070002.",
                                    L"Skip lock mutex '\\PendingRenameMutex'.",
                                    L"Rollback pending rename '" + staged + L"' -> '" + target + L"'.",
                                    L"Need to delete rollback file '" + staged + L"'.", L"Delete rollback files.",
                                    L"Remove file '" + staged + L"'."}) {
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
    WritePendingRenames({{L"C:\\x", L"C:\\y"}});
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
    EXPECT_EQ(ReadPendingRenames(), (PendingRenameList{{L"C:\\x", L"C:\\y"}}));  // nothing written unlocked
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
    ASSERT_EQ(ReadPendingRenames().size(), 5u);

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
    EXPECT_TRUE(ReadPendingRenames().empty());
}

}  // namespace
}  // namespace setup
