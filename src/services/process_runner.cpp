#include "services/process_runner.h"

#include <new>
#include <vector>

#include "runtime/exception.h"
#include "runtime/program_log.h"
#include "runtime/throw.h"
#include "services/process_output.h"

namespace setup {

namespace {

constexpr DWORD kReadBufferBytes = 4096;
constexpr DWORD kPollPauseMilliseconds = 500;

// The child writes in the console's code page; a custom action has no
// console, so the OEM code page stands in for it.
std::wstring OutputToWide(const char* bytes, DWORD count) {
    UINT codePage = ::GetConsoleOutputCP();
    if (codePage == 0) codePage = CP_OEMCP;
    const int size = ::MultiByteToWideChar(codePage, 0, bytes, static_cast<int>(count), nullptr, 0);
    if (size <= 0) return std::wstring();
    std::wstring text(static_cast<std::size_t>(size), L'\0');
    ::MultiByteToWideChar(codePage, 0, bytes, static_cast<int>(count), text.data(), size);
    return text;
}

}  // namespace

ProcessRunner::ProcessRunner(DWORD waitMilliseconds) : waitMilliseconds_(waitMilliseconds) {}

ProcessRunner::~ProcessRunner() {
    // The reader still uses the read end: join it before anything closes.
    if (reader_) ::WaitForSingleObject(reader_.Get(), INFINITE);
    reader_.Reset();
    process_.Reset();
}

void ProcessRunner::RunProcess(const std::wstring& commandLine) {
    commandLine_ = commandLine;
    LogInfo(L"Start process: %s.", commandLine_);
    StartProcess();
    if (::WaitForSingleObject(process_.Get(), waitMilliseconds_) != WAIT_OBJECT_0) {
        Throw(kWaitTimeout, L"The wait process operation timed out.");
    }
    DWORD exitCode = 0;
    ThrowLastErrorIf(!::GetExitCodeProcess(process_.Get(), &exitCode), L"Failed to get process exit code.");
    LogInfo(L"Process finished. ExitCode: '%d'", static_cast<int>(exitCode));
    if (exitCode != 0) Throw(kFail, Format(L"Process returned error %d", static_cast<int>(exitCode)));
    // The process handle stays open until the destructor: the reader thread
    // may still ask it for the exit code.
    thread_.Reset();
}

void ProcessRunner::StartProcess() {
    SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    ThrowLastErrorIf(!::CreatePipe(readPipe_.Put(), writePipe_.Put(), &inheritable, 0),
                     L"Failed to CreatePipe for stdout.");
    if (!::SetHandleInformation(readPipe_.Get(), HANDLE_FLAG_INHERIT, 0)) {
        const DWORD error = ::GetLastError();
        readPipe_.Reset();
        writePipe_.Reset();
        Throw(FailureFromWin32(error), L"Failed to SetHandleInformation for stdout.");
    }

    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = writePipe_.Get();
    startup.hStdError = writePipe_.Get();
    PROCESS_INFORMATION info{};
    // CreateProcessW may write to the command line buffer.
    std::vector<wchar_t> commandLine(commandLine_.begin(), commandLine_.end());
    commandLine.push_back(L'\0');
    if (!::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr,
                          &startup, &info)) {
        const DWORD error = ::GetLastError();
        readPipe_.Reset();
        writePipe_.Reset();
        Throw(FailureFromWin32(error), L"Failed to CreateProcess " + commandLine_);
    }
    process_.Reset(info.hProcess);
    thread_.Reset(info.hThread);
    processId_ = info.dwProcessId;
    threadId_ = info.dwThreadId;
    LogInfo(L"Process ID: %d.", static_cast<int>(processId_));

    // Only the child may hold the write end now, so the pipe breaks when it ends.
    writePipe_.Reset();

    reader_.Reset(::CreateThread(nullptr, 0, &ProcessRunner::ReadProcessOutput, this, 0, nullptr));
    if (!reader_) {
        const DWORD error = ::GetLastError();
        readPipe_.Reset();
        Throw(FailureFromWin32(error), L"Failed to create read thread.");
    }
}

DWORD WINAPI ProcessRunner::ReadProcessOutput(void* runner) {
    // Nothing may leave a thread: a failure is logged and ends the reading.
    try {
        static_cast<ProcessRunner*>(runner)->ReadOutput();
    } catch (const Exception& e) {
        LogInfo(L"%s Error 0x%x.", e.Message(), e.Code());
    } catch (const std::bad_alloc&) {
        LogInfo(L"Bad allocation error.");
    } catch (...) {
        LogInfo(L"Unknown exception.");
    }
    return 0;
}

void ProcessRunner::ReadOutput() {
    std::vector<char> buffer(kReadBufferBytes);
    for (;;) {
        DWORD read = 0;
        if (!::ReadFile(readPipe_.Get(), buffer.data(), kReadBufferBytes, &read, nullptr)) {
            const DWORD error = ::GetLastError();
            if (error == ERROR_BROKEN_PIPE) {
                LogInfo(L"End of reading process output.");
                return;
            }
            Throw(FailureFromWin32(error), L"Failed to read process output.");
        }
        if (read == 0) {
            DWORD exitCode = 0;
            if (::GetExitCodeProcess(process_.Get(), &exitCode) && exitCode != STILL_ACTIVE) {
                LogInfo(L"Process finished, no more output.");
                return;
            }
            LogInfo(L"No data available yet, waiting for more output...");
            ::Sleep(kPollPauseMilliseconds);
            continue;
        }
        for (const std::wstring& line : SplitOutputLines(OutputToWide(buffer.data(), read))) {
            LogInfo(L"> %s", line);
        }
    }
}

}  // namespace setup
