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

class ProcessRunnerTest : public test::ServicesTest {};

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
