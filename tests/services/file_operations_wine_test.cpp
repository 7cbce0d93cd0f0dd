#include <gtest/gtest.h>

#include <string>

#include "runtime/exception.h"
#include "services/file_write.h"
#include "services/path.h"
#include "services/services_wine_support.h"

namespace setup {
namespace {

using namespace std::string_literals;
using test::ReadBytes;
using test::Thrown;
using test::WriteBytes;

class FileOperationsTest : public test::ServicesTest {};

TEST_F(FileOperationsTest, NewFilesAreCreatedExclusivelyAndNeverOpenWhatExists) {
    NewFile a = CreateStagingFile(dir_.Path(), L"TMP");
    NewFile b = CreateStagingFile(dir_.Path(), L"TMP");
    EXPECT_NE(a.path, b.path);
    EXPECT_EQ(DirectoryOf(a.path), dir_.Path());
    const std::wstring name = a.path.substr(dir_.Path().size() + 1);
    EXPECT_EQ(name.size(), 3u + 32u + 4u) << name;  // TMP, 32 random hex digits, .tmp
    WriteUtf16(a, L"x\n");
    a.handle.Reset();
    EXPECT_EQ(ReadBytes(a.path), "\xFF\xFEx\0\r\0\n\0"s);
    EXPECT_EQ(Thrown([&] { CreateStagingFile(dir_.File(L"nowhere"), L"TMP"); }).Message(),
              L"Failed to get temp file '" + dir_.File(L"nowhere") + L"\\TMP'.");

    // A copy keeps bytes, last-write time and read-only; it never overwrites.
    const std::wstring source = dir_.File(L"source.txt"), copy = dir_.File(L"copy.txt");
    WriteBytes(source, "payload");
    FILETIME past{0x12345678, 0x01C00000};
    {
        FileHandle h(::CreateFileW(source.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        ::SetFileTime(h.Get(), nullptr, nullptr, &past);
    }
    ::SetFileAttributesW(source.c_str(), FILE_ATTRIBUTE_READONLY);
    Logged([&] { CopyToNewFile(source, copy); });
    EXPECT_EQ(ReadBytes(copy), "payload");
    EXPECT_TRUE(::GetFileAttributesW(copy.c_str()) & FILE_ATTRIBUTE_READONLY);
    WIN32_FILE_ATTRIBUTE_DATA data;
    ASSERT_TRUE(::GetFileAttributesExW(copy.c_str(), GetFileExInfoStandard, &data));
    EXPECT_EQ(::CompareFileTime(&data.ftLastWriteTime, &past), 0);
    ::SetFileAttributesW(copy.c_str(), FILE_ATTRIBUTE_NORMAL);
    WriteBytes(copy, "theirs");
    Exception taken(0, L"");
    const std::wstring log = Logged([&] { taken = Thrown([&] { CopyToNewFile(source, copy); }); });
    EXPECT_EQ(taken.Message(), L"Failed to copy file '" + source + L"' -> '" + copy + L"'.");
    EXPECT_EQ(taken.Code(), static_cast<HResult>(0x80070050));  // ERROR_FILE_EXISTS
    EXPECT_EQ(ReadBytes(copy), "theirs");
    EXPECT_NE(log.find(L"Copy file '" + source + L"' -> '" + copy + L"'."), std::wstring::npos) << log;
    ::SetFileAttributesW(source.c_str(), FILE_ATTRIBUTE_NORMAL);
}

}  // namespace
}  // namespace setup
