#include <gtest/gtest.h>

#include <string>

#include "runtime/exception.h"
#include "runtime/unique_handle.h"
#include "services/process_runner.h"
#include "services/services_wine_support.h"
#include "wine_support/test_package.h"

namespace setup {
namespace {

using test::ChildProcessCommand;
using test::Thrown;

bool Contains(const std::wstring& log, const std::wstring& text) { return log.find(text) != std::wstring::npos; }

std::size_t Count(const std::wstring& log, const std::wstring& text) {
    std::size_t n = 0;
    for (std::size_t at = log.find(text); at != std::wstring::npos; at = log.find(text, at + 1)) ++n;
    return n;
}

class ProcessRunnerTest : public test::ServicesTest {};

TEST_F(ProcessRunnerTest, LogsBothStreamsLineByLineAndSkipsEmptyLines) {
    const std::wstring command = ChildProcessCommand(L"out:first blank err:second raw:spl sleep:800 out:it exit:0");
    const std::wstring log = Logged([&] { ProcessRunner().RunProcess(command); });

    EXPECT_TRUE(Contains(log, L"]: Start process: " + command + L".\n")) << log;
    EXPECT_TRUE(Contains(log, L"]: Process ID: ")) << log;
    // Standard output and standard error share one pipe, so their order holds;
    // the line written in two parts, 800 ms apart, is logged whole.
    const std::size_t first = log.find(L"]: > first\n");
    const std::size_t second = log.find(L"]: > second\n");
    const std::size_t spl = log.find(L"]: > split\n");
    const std::size_t finished = log.find(L"]: Process finished. ExitCode: '0'\n");
    ASSERT_NE(spl, std::wstring::npos) << log;
    ASSERT_NE(finished, std::wstring::npos) << log;
    EXPECT_LT(first, second);
    EXPECT_LT(second, spl);
    EXPECT_EQ(Count(log, L"]: > "), 3u) << log;  // the blank line logs nothing
    EXPECT_TRUE(Contains(log, L"]: End of reading process output.")) << log;
}

TEST_F(ProcessRunnerTest, NonZeroExitCodeIsAnErrorAfterItWasLogged) {
    Exception error(0, L"");
    const std::wstring log =
        Logged([&] { error = Thrown([&] { ProcessRunner().RunProcess(ChildProcessCommand(L"exit:1")); }); });
    EXPECT_EQ(error.Code(), static_cast<HResult>(0x80004005));
    EXPECT_EQ(error.Message(), L"Process returned error 1");
    EXPECT_TRUE(Contains(log, L"]: Process finished. ExitCode: '1'\n")) << log;
    // No output at all: the reader sees the pipe break or the child gone.
    EXPECT_TRUE(Contains(log, L"End of reading process output.") || Contains(log, L"Process finished, no more output."))
        << log;
    EXPECT_EQ(Count(log, L"]: > "), 0u) << log;
}

TEST_F(ProcessRunnerTest, ChildThatOutlivesTheWaitIsATimeoutKeepsRunningAndDoesNotBlockTheAction) {
    Exception error(0, L"");
    KernelHandle child;
    DWORD ended = 0;
    const std::wstring log = Logged([&] {
        const DWORD start = ::GetTickCount();
        {
            ProcessRunner runner(300);
            error = Thrown([&] { runner.RunProcess(ChildProcessCommand(L"out:started sleep:30000")); });
            child.Reset(::OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, runner.ProcessId()));
        }
        ended = ::GetTickCount() - start;
    });
    ASSERT_TRUE(child);
    const bool stillRunning = ::WaitForSingleObject(child.Get(), 0) == WAIT_TIMEOUT;
    ::TerminateProcess(child.Get(), 9);
    EXPECT_EQ(error.Code(), static_cast<HResult>(0x80070102));
    EXPECT_EQ(error.Message(), L"The wait process operation timed out.");
    EXPECT_TRUE(stillRunning);
    EXPECT_LT(ended, 15000u);  // the child sleeps 30 s: the runner did not wait for it
    EXPECT_TRUE(Contains(log, L"]: > started\n")) << log;
    EXPECT_TRUE(Contains(log, L"]: Stop reading process output.")) << log;
    EXPECT_FALSE(Contains(log, L"Process finished. ExitCode")) << log;
}

TEST_F(ProcessRunnerTest, CommandThatCannotStartNamesTheCommandLine) {
    const std::wstring command = L"\"" + dir_.File(L"no such program.exe") + L"\" im x";
    Exception error(0, L"");
    Logged([&] { error = Thrown([&] { ProcessRunner().RunProcess(command); }); });
    EXPECT_EQ(error.Message(), L"Failed to CreateProcess " + command);
    EXPECT_EQ(error.Code(), static_cast<HResult>(0x80070002));
}

}  // namespace
}  // namespace setup
