#include "runtime/log_buffer.h"
#include "runtime/log_escape.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <sstream>
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
    for (int round = 0; round < 5; ++round) {  // a race shows only sometimes: give it several chances
        std::wstring sent;
        LogBuffer buffer([&](const std::wstring& m) { sent += m + L'\n'; });
        buffer.SetThreshold(50);  // a growing batch: unguarded appends would race on it
        std::atomic<bool> go{false};
        auto writer = [&](wchar_t tag) {
            while (!go) std::this_thread::yield();
            for (int i = 0; i < 5000; ++i) buffer.Append(std::wstring(20, tag));
        };
        std::thread a(writer, L'a');
        std::thread b(writer, L'b');
        go = true;
        a.join();
        b.join();
        buffer.Flush();
        std::wistringstream lines(sent);
        int as = 0, bs = 0;
        for (std::wstring line; std::getline(lines, line);) {
            as += line == std::wstring(20, L'a');
            bs += line == std::wstring(20, L'b');
        }
        ASSERT_EQ(as, 5000);
        ASSERT_EQ(bs, 5000);
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
