#include <gtest/gtest.h>

#include <string>

#include "runtime/action_frame.h"
#include "runtime/exception.h"
#include "services/file_operations.h"
#include "services/path.h"
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
using test::Thrown;
using test::WriteBytes;

class FileOperationsTest : public test::ServicesTest {};

TEST_F(FileOperationsTest, WritesUtf16WithByteOrderMarkAndOneCrLfPerLine) {
    const std::wstring path = dir_.File(L"out.txt");
    WriteBytes(path, "previous longer content that must be truncated");
    ASSERT_TRUE(WriteUtf16File(path, L"a\r\nb\nc[x]\u00E9"));
    EXPECT_EQ(ReadBytes(path), "\xFF\xFE" "a\0\r\0\n\0b\0\r\0\n\0c\0[\0x\0]\0\xE9\0"s);
    ASSERT_TRUE(WriteUtf16File(path, L""));
    EXPECT_EQ(ReadBytes(path), "\xFF\xFE"s);
    EXPECT_FALSE(WriteUtf16File(dir_.File(L"missing\\dir\\x.txt"), L"x"));
}

TEST_F(FileOperationsTest, TempFilesFallBackToAUuidNameWhenTheNameWouldBeTooLong) {
    const std::wstring normal = GetTempFilePath(dir_.Path(), L"TMP");
    ASSERT_FALSE(normal.empty());
    EXPECT_TRUE(FileExists(normal));
    EXPECT_EQ(normal.substr(dir_.Path().size() + 1, 3), L"TMP");

    // A directory so deep that "<dir>\TMPxxxx.tmp" exceeds MAX_PATH: error 111.
    std::wstring deep = dir_.Path();
    while (deep.size() < MAX_PATH - 8) {
        deep += L"\\" + std::wstring(std::min<std::size_t>(40, MAX_PATH - 8 - deep.size()), L'd');
        ASSERT_TRUE(::CreateDirectoryW(deep.c_str(), nullptr)) << ::GetLastError();
    }
    const std::wstring fallback = GetTempFilePath(deep, L"TMP");
    ASSERT_EQ(fallback.size(), deep.size() + 1 + 36) << fallback;  // "<dir>\" + UUID
    EXPECT_TRUE(FileExists(fallback));
    EXPECT_EQ(fallback[deep.size() + 9], L'-');

    std::wstring missing;
    const std::wstring log = Logged([&] { missing = GetTempFilePath(dir_.File(L"nowhere"), L"TMP"); });
    EXPECT_EQ(missing, L"");
    EXPECT_NE(log.find(L"Failed to get temp file '" + dir_.File(L"nowhere") + L"\\TMP'. Error 0x"), std::wstring::npos)
        << log;
}

TEST_F(FileOperationsTest, CopiesMovesAndRemovesNowWithTheirLogLines) {
    const std::wstring a = dir_.File(L"a.txt"), b = dir_.File(L"b.txt"), c = dir_.File(L"c.txt");
    WriteBytes(a, "alpha");
    const std::wstring log = Logged([&] {
        CopyFileWithFallback(a, b, false);
        MoveFileWithFallback(b, c, false);
        RemoveFileWithFallback(c, false);
    });
    EXPECT_EQ(ReadBytes(a), "alpha");
    EXPECT_FALSE(FileExists(b));
    EXPECT_FALSE(FileExists(c));
    for (const std::wstring& line : std::vector<std::wstring>{L"Copy file '" + a + L"' -> '" + b + L"'.", L"Move file '" + b + L"' -> '" + c + L"'.",
                                    L"Remove file '" + c + L"'."}) {
        EXPECT_NE(log.find(line), std::wstring::npos) << line;
    }
    // A failure without the restart fallback names both paths and the error.
    const Exception copy = Thrown([&] { CopyFileWithFallback(dir_.File(L"none"), b, false); });
    EXPECT_EQ(copy.Message(), L"Failed to copy file '" + dir_.File(L"none") + L"' -> '" + b + L"'.");
    EXPECT_EQ(copy.Code(), static_cast<HResult>(0x80070002));
    EXPECT_EQ(Thrown([&] { MoveFileWithFallback(dir_.File(L"none"), b, false); }).Message(),
              L"Failed to move file '" + dir_.File(L"none") + L"' -> '" + b + L"'.");
    EXPECT_EQ(Thrown([&] { RemoveFileWithFallback(dir_.File(L"none"), false); }).Message(),
              L"Failed to remove file " + dir_.File(L"none"));
}

TEST_F(FileOperationsTest, ADestinationInUseIsCopiedAtRestartDeleteFirstThenRename) {
    const std::wstring source = dir_.File(L"new.txt"), target = dir_.File(L"held.txt");
    WriteBytes(source, "new");
    WriteBytes(target, "old");
    FileHandle held(::CreateFileW(target.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(held.IsValid());

    const Exception refused = Thrown([&] { CopyFileWithFallback(source, target, false); });
    EXPECT_EQ(refused.Message(), L"Failed to copy file '" + source + L"' -> '" + target + L"'.");

    SavedPendingRenames::Remove();
    const std::wstring log = Logged([&] { CopyFileWithFallback(source, target, true); });
    EXPECT_NE(log.find(L"The file '" + target + L"' is being used by another process."), std::wstring::npos) << log;
    const PendingRenameList queued = test::QueuedRenames();
    ASSERT_EQ(queued.size(), 2u);
    EXPECT_EQ(queued[0], (PendingRename{target, L""}));  // the delete comes first
    EXPECT_EQ(queued[1].target, target);
    EXPECT_EQ(DirectoryOf(queued[1].source), dir_.Path());  // staged beside the source
    EXPECT_EQ(queued[1].source.substr(dir_.Path().size() + 1, 3), L"TBM");
    EXPECT_EQ(ReadBytes(queued[1].source), "new");
    EXPECT_EQ(ReadBytes(target), "old");  // untouched until the restart
    EXPECT_NE(log.find(L"Copy file on reboot '" + source + L"' -> '" + queued[1].source + L"' -> '" + target + L"'."),
              std::wstring::npos);
}

TEST_F(FileOperationsTest, RestartFallbacksForFilesAndDirectories) {
    SavedPendingRenames::Remove();
    const std::wstring sub = dir_.File(L"full");
    ::CreateDirectoryW(sub.c_str(), nullptr);
    WriteBytes(sub + L"\\keep.txt", "x");
    const std::wstring log = Logged([&] {
        RemoveFileWithFallback(dir_.File(L"ghost.txt"), true);
        MoveFileWithFallback(dir_.File(L"ghost.txt"), dir_.File(L"ghost2.txt"), true);
        RemoveDirectoryWithFallback(sub);  // not empty: always goes at restart
    });
    const PendingRenameList queued = test::QueuedRenames();
    EXPECT_EQ(queued, (PendingRenameList{{dir_.File(L"ghost.txt"), L""},
                                         {dir_.File(L"ghost2.txt"), L""},
                                         {dir_.File(L"ghost.txt"), dir_.File(L"ghost2.txt")},
                                         {sub, L""}}));
    for (const std::wstring& line : std::vector<std::wstring>{L"Remove file on reboot '" + dir_.File(L"ghost.txt") + L"'.",
                                    L"Move file on reboot '" + dir_.File(L"ghost.txt") + L"' -> '" +
                                        dir_.File(L"ghost2.txt") + L"'.",
                                    L"Remove directory on reboot '" + sub + L"'."}) {
        EXPECT_NE(log.find(line), std::wstring::npos) << line << "\n" << log;
    }
}

TEST_F(FileOperationsTest, RecursiveRemovalIsDepthFirstAndFindToleratesMissingPaths) {
    const std::wstring root = dir_.File(L"tree");
    ::CreateDirectoryW(root.c_str(), nullptr);
    ::CreateDirectoryW((root + L"\\inner").c_str(), nullptr);
    WriteBytes(root + L"\\top.txt", "1");
    WriteBytes(root + L"\\inner\\deep.txt", "2");
    const std::wstring log = Logged([&] { RemoveDirectoryRecursive(root); });
    EXPECT_EQ(::GetFileAttributesW(root.c_str()), INVALID_FILE_ATTRIBUTES);
    const auto deep = log.find(L"Remove file '" + root + L"\\inner\\deep.txt'.");
    const auto inner = log.find(L"Remove directory '" + root + L"\\inner'.");
    const auto top = log.find(L"Remove file '" + root + L"\\top.txt'.");
    const auto self = log.find(L"Remove directory '" + root + L"'.");
    ASSERT_NE(self, std::wstring::npos) << log;
    EXPECT_LT(deep, inner);
    EXPECT_LT(inner, top);
    EXPECT_LT(top, self);

    int calls = 0;
    FindFiles(dir_.File(L"no\\such\\dir\\*"), [&](const WIN32_FIND_DATAW&) { ++calls; });
    FindFiles(dir_.File(L"*.none"), [&](const WIN32_FIND_DATAW&) { ++calls; });
    EXPECT_EQ(calls, 0);
}

TEST_F(FileOperationsTest, InUseProbeFileTimesAndUuids) {
    const std::wstring a = dir_.File(L"a.bin"), b = dir_.File(L"b.bin");
    WriteBytes(a, "a");
    WriteBytes(b, "b");
    EXPECT_FALSE(IsFileInUse(a));
    EXPECT_FALSE(IsFileInUse(dir_.File(L"missing")));
    {
        FileHandle held(::CreateFileW(a.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        EXPECT_TRUE(IsFileInUse(a));
    }
    FILETIME past{0x12345678, 0x01C00000};
    {
        FileHandle h(::CreateFileW(a.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        ::SetFileTime(h.Get(), &past, &past, &past);
    }
    CopyFileTime(a, b);
    FileHandle h(::CreateFileW(b.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    FILETIME written{};
    ::GetFileTime(h.Get(), nullptr, nullptr, &written);
    EXPECT_EQ(written.dwHighDateTime, past.dwHighDateTime);
    const std::wstring log = Logged([&] { CopyFileTime(dir_.File(L"missing"), b); });
    EXPECT_NE(log.find(L"Failed to open source file '" + dir_.File(L"missing") + L"'. Error 0x80070002."),
              std::wstring::npos);

    const std::wstring uuid = CreateUuidString();
    EXPECT_EQ(uuid.size(), 36u);
    EXPECT_EQ(uuid.find_first_not_of(L"0123456789abcdef-"), std::wstring::npos);
    EXPECT_NE(uuid, CreateUuidString());
    Wow64FsRedirectionGuard guard;  // a 64-bit process: nothing to disable, nothing to break
}

}  // namespace
}  // namespace setup
