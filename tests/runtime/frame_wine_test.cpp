#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <cstring>
#include <string>

#include "runtime/action_frame.h"
#include "runtime/ca_runtime.h"
#include "runtime/exception.h"
#include "runtime/program_log.h"
#include "wine_support/test_package.h"

// Allocation failure on demand, for the whole test program: once armed, the
// n-th allocation from then on and every later one throw std::bad_alloc.
namespace {
long g_allocationsLeft = -1;  // -1: never fail
}  // namespace

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"  // these are the replacements themselves
#endif

void* operator new(std::size_t size) {
    if (g_allocationsLeft == 0) throw std::bad_alloc();
    if (g_allocationsLeft > 0) --g_allocationsLeft;
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace setup {
namespace {

using test::MessageCapture;
using test::TestPackage;

class ActionFrameTest : public ::testing::Test {
protected:
    void SetUp() override { package_.Open(); }
    MSIHANDLE Session() { return package_.Session(); }
    TestPackage package_;
};

TEST_F(ActionFrameTest, RunningOutOfMemoryAnywhereReturns1603AndNothingEscapes) {
    // Every allocation the frame makes fails in turn, from the first one in
    // initialisation on (and all after it). An exception that escaped the
    // noexcept frame would end this test program.
    UINT result = 1603;
    long n = 0;
    for (; n < 400 && result != 0; ++n) {
        g_allocationsLeft = n;
        result = RunAction(Session(), "FrameMemory", ActionError::TextFiles, [](setup::Session&) {
            LogInfo(L"Work done.");
        });
        g_allocationsLeft = -1;
        ASSERT_TRUE(result == 1603u || result == 0u) << n << ": " << result;
    }
    EXPECT_EQ(result, 0u) << "the action never succeeded within " << n << " allocations";
    EXPECT_GT(n, 3) << "too few allocations failed to show anything";
}

TEST_F(ActionFrameTest, FailuresBecomeResultCodesWithTheirLogLines) {
    struct Case { const char* name; ActionWork work; UINT result; std::wstring line; bool dialog; };
    const Case cases[] = {
        {"FrameAccess",
         [](setup::Session&) { throw Exception(static_cast<HResult>(0x80070005), L"Access denied here.", L"u"); },
         1603, L"Access denied here. Error 0x80070005.", true},
        {"FrameCancel", [](setup::Session&) { throw InstallCanceledException(L"User cancelled installation."); },
         1602, L"User cancelled installation. Error 0x80070642.", false},
        {"FrameUnknown", [](setup::Session&) { throw 42; }, 1603, L"Unknown exception.", true},
        {"FrameAlloc", [](setup::Session&) { throw std::bad_alloc(); }, 1603, L"Bad allocation error.", true},
    };
    for (const Case& c : cases) {
        MessageCapture capture;
        EXPECT_EQ(RunAction(Session(), c.name, ActionError::TextFiles, c.work), c.result) << c.name;
        EXPECT_TRUE(capture.HasInfo(c.line)) << c.name << "\n" << capture.AllInfo();
        EXPECT_TRUE(capture.HasInfo(Format(L"%s: finished. Return value %d.", c.name, c.result))) << c.name;
        EXPECT_EQ(capture.HadError(), c.dialog) << c.name;
    }
    // Actions without an installer error number report through the log only.
    MessageCapture quiet;
    EXPECT_EQ(RunAction(Session(), "FrameRollback", ActionError::None,
                        [](setup::Session&) { throw Exception(kFail, L"x"); }),
              1603u);
    EXPECT_FALSE(quiet.HadError());
}

TEST_F(ActionFrameTest, ACancelReplySeenDuringTheWorkWinsOverItsSuccess) {
    MessageCapture capture([](UINT type, const std::wstring& text) {
        return (type & 0xFF000000) == INSTALLMESSAGE_INFO && text.find(L"ask to cancel") != std::wstring::npos
                   ? IDCANCEL
                   : 0;
    });
    bool completed = false;
    const UINT result = RunAction(Session(), "FrameCancelReply", ActionError::None, [&](setup::Session&) {
        CaLog(kLogStandard, "ask to cancel");
        completed = true;
    });
    EXPECT_TRUE(completed);
    EXPECT_EQ(result, 1602u);
    EXPECT_TRUE(capture.HasInfo(L"FrameCancelReply: finished. Return value 0.")) << capture.AllInfo();
}

TEST_F(ActionFrameTest, ALogNameOf32CharactersFailsTheCopyButTheWorkStillRuns) {
    MessageCapture capture;
    const char* name = "ThisActionNameIsThirtyTwoChars01";  // 32 characters: no room for the terminator
    ASSERT_EQ(std::strlen(name), 32u);
    bool ran = false;
    const UINT result = RunAction(Session(), name, ActionError::None, [&](setup::Session&) {
        ran = true;
        EXPECT_FALSE(CaIsInitialized());
    });
    EXPECT_TRUE(ran);
    EXPECT_EQ(result, 0u);
    EXPECT_TRUE(capture.HasInfo(L"Error 0x8007007a: Failed to copy CustomAction log name: "
                                L"ThisActionNameIsThirtyTwoChars01"))
        << capture.AllInfo();
    EXPECT_TRUE(capture.HasInfo(L"ThisActionNameIsThirtyTwoChars01: finished. Return value 0."));

    MessageCapture shorter;
    RunAction(Session(), "ThisActionNameIsThirtyOneChars0", ActionError::None,
              [&](setup::Session&) { EXPECT_TRUE(CaIsInitialized()); });
    EXPECT_EQ(shorter.AllInfo().find(L"Failed to copy"), std::wstring::npos);
}

TEST_F(ActionFrameTest, TheVerboseDecisionIsMadeOncePerProcessAndPublished) {
    bool decided = false;
    RunAction(Session(), "FrameVerbose", ActionError::None, [&](setup::Session&) { decided = CaIsVerbose(); });
    EXPECT_NE(::GlobalFindAtomW(decided ? L"WcaVerboseLogging" : L"WcaNotVerboseLogging"), 0);
    EXPECT_EQ(::GlobalFindAtomW(decided ? L"WcaNotVerboseLogging" : L"WcaVerboseLogging"), 0);

    // Flip every input of the decision: the process keeps its first answer.
    ::MsiSetPropertyW(Session(), L"MsiLogging", decided ? L"" : L"voicewarmup");
    ::MsiSetPropertyW(Session(), L"LOGVERBOSE", decided ? L"" : L"1");
    MessageCapture capture;
    bool again = !decided;
    RunAction(Session(), "FrameVerbose", ActionError::None, [&](setup::Session&) { again = CaIsVerbose(); });
    EXPECT_EQ(again, decided);
    // The level-1 "Entering" line follows the published decision.
    EXPECT_EQ(capture.AllInfo().find(L"FrameVerbose:  Entering FrameVerbose in ") != std::wstring::npos, decided)
        << capture.AllInfo();
}

}  // namespace
}  // namespace setup
