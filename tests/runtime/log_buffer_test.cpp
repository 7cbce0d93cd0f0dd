#include "runtime/log_buffer.h"
#include "runtime/log_escape.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "runtime/exception.h"
#include "runtime/hresult.h"

namespace setup {
namespace {

TEST(LogEscape, BracketsBecomeTheInstallersEscapes) {
    EXPECT_EQ(EscapeLogText(L"C:\\[ProductName] notes.txt"), L"C:\\[\\[]ProductName[\\]] notes.txt");
    EXPECT_EQ(EscapeLogText(L"]["), L"[\\]][\\[]");
    EXPECT_EQ(EscapeLogText(L"{plain} text %s"), L"{plain} text %s");
}

TEST(LogEscape, SecretsAreMaskedWholeAndShortValuesAreLeft) {
    EXPECT_EQ(MaskSecrets(L"user=admin password=Sup3rSecret; again Sup3rSecret", {L"Sup3rSecret", L"ab"}),
              L"user=admin password=***; again ***");
    EXPECT_EQ(MaskSecrets(L"key=secretsecret2", {L"secret", L"secretsecret2"}), L"key=***");  // longest first
    EXPECT_EQ(MaskSecrets(L"abc", {}), L"abc");
}

TEST(LogBuffer, SendsEachLineAtOnceWithTheDefaultThreshold) {
    std::vector<std::wstring> sent;
    LogBuffer buffer([&](const std::wstring& m) { sent.push_back(m); });
    buffer.Append(L"one");
    buffer.Append(L"two");
    EXPECT_EQ(sent, (std::vector<std::wstring>{L"one", L"two"}));
    buffer.Flush();  // nothing pending: nothing sent
    EXPECT_EQ(sent.size(), 2u);
}

TEST(LogBuffer, BatchesUpToThresholdPlusOneLinesAndFlushesTheRest) {
    std::vector<std::wstring> sent;
    LogBuffer buffer([&](const std::wstring& m) { sent.push_back(m); });
    buffer.SetThreshold(100);
    for (int i = 0; i < 250; ++i) buffer.Append(std::to_wstring(i));
    ASSERT_EQ(sent.size(), 2u);  // lines 0..100 and 101..201 went as two messages
    EXPECT_EQ(sent[0].substr(0, 6), L"0\n1\n2\n");
    EXPECT_EQ(std::count(sent[0].begin(), sent[0].end(), L'\n'), 100);
    EXPECT_EQ(sent[1].substr(0, 4), L"101\n");
    buffer.SetThreshold(0);
    buffer.Append(L"last");  // back at 0, the next line flushes everything pending
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[2].substr(0, 4), L"202\n");
    EXPECT_EQ(sent[2].substr(sent[2].size() - 5), L"\nlast");
}

TEST(LogBuffer, KeepsLinesWholeWhenTwoThreadsLog) {
    std::vector<std::wstring> sent;
    LogBuffer buffer([&](const std::wstring& m) { sent.push_back(m); });
    auto writer = [&](wchar_t tag) {
        for (int i = 0; i < 500; ++i) buffer.Append(std::wstring(20, tag));
    };
    std::thread a(writer, L'a');
    std::thread b(writer, L'b');
    a.join();
    b.join();
    ASSERT_EQ(sent.size(), 1000u);
    for (const auto& line : sent) {
        EXPECT_TRUE(line == std::wstring(20, L'a') || line == std::wstring(20, L'b'));
    }
}

TEST(HResult, ConvertsWindowsErrors) {
    EXPECT_EQ(HResultFromWin32(5), static_cast<HResult>(0x80070005));
    EXPECT_EQ(HResultFromWin32(1602), static_cast<HResult>(0x80070642));
    EXPECT_EQ(HResultFromWin32(0x12345678), static_cast<HResult>(0x80075678));  // only the low word survives
    EXPECT_EQ(HResultFromWin32(0), 0);
    EXPECT_EQ(HResultFromWin32(0x8000FFFF), static_cast<HResult>(0x8000FFFF));  // already an HRESULT
    EXPECT_EQ(FailureFromWin32(0), kFail);  // a failure without a code is never success
    EXPECT_EQ(FailureFromWin32(2), static_cast<HResult>(0x80070002));
}

}  // namespace
}  // namespace setup
