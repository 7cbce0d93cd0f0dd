#include "services/process_runner.h"

#include <memory>
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
// While the pipe is empty the reader looks again this often, so that a stop
// request reaches it without a blocked read to cancel.
constexpr DWORD kIdlePauseMilliseconds = 10;
// How long the destructor waits for the reader after a timed-out child.
constexpr DWORD kStopJoinMilliseconds = 5000;

// The child writes in the console's code page; a custom action has no
// console, so the OEM code page stands in for it.
std::wstring OutputToWide(const std::string& bytes) {
    UINT codePage = ::GetConsoleOutputCP();
    if (codePage == 0) codePage = CP_OEMCP;
    const int count = static_cast<int>(bytes.size());
    const int size = ::MultiByteToWideChar(codePage, 0, bytes.data(), count, nullptr, 0);
    if (size <= 0) return std::wstring();
    std::wstring text(static_cast<std::size_t>(size), L'\0');
    ::MultiByteToWideChar(codePage, 0, bytes.data(), count, text.data(), size);
    return text;
}

void LogOutputLines(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) LogInfo(L"> %s", OutputToWide(line));
}

// After a failed peek or read (the error still in GetLastError): the last
// partial line, then the end of the output (a broken pipe: the child is gone)
// or the failure.
void EndOfOutput(OutputLineSplitter& lines) {
    const DWORD error = ::GetLastError();
    LogOutputLines(lines.Finish());
    if (error != ERROR_BROKEN_PIPE) Throw(FailureFromWin32(error), L"Failed to read process output.");
    LogInfo(L"End of reading process output.");
}

}  // namespace

ProcessRunner::ProcessRunner(DWORD waitMilliseconds) : waitMilliseconds_(waitMilliseconds) {}

ProcessRunner::~ProcessRunner() {
    // The reader still uses the read end: join it before anything closes.
    // After a finished child the pipe is broken and the reader ends by itself;
    // after a timed-out one (left running, and perhaps still writing) it is
    // asked to stop, and the join is bounded so that the action returns.
    // A reader that misses even the bounded join keeps its share of the
    // state (pipe and process handles) and frees it when it ends.
    if (reader_) {
        if (!finished_) state_->stop.store(true);
        ::WaitForSingleObject(reader_.Get(), finished_ ? INFINITE : kStopJoinMilliseconds);
    }
}

void ProcessRunner::RunProcess(const std::wstring& commandLine) {
    commandLine_ = commandLine;
    LogInfo(L"Start process: %s.", commandLine_);
    StartProcess();
    FlushLog();  // what the action said so far reaches the log before the wait
    if (::WaitForSingleObject(state_->process.Get(), waitMilliseconds_) != WAIT_OBJECT_0) {
        Throw(kWaitTimeout, L"The wait process operation timed out.");
    }
    DWORD exitCode = 0;
    ThrowLastErrorIf(!::GetExitCodeProcess(state_->process.Get(), &exitCode), L"Failed to get process exit code.");
    finished_ = true;
    LogInfo(L"Process finished. ExitCode: '%d'", static_cast<int>(exitCode));
    if (exitCode != 0) Throw(kFail, Format(L"Process returned error %d", static_cast<int>(exitCode)));
    // The process handle stays open until the destructor: the reader thread
    // may still ask it for the exit code.
    thread_.Reset();
}

void ProcessRunner::StartProcess() {
    SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    ThrowLastErrorIf(!::CreatePipe(state_->readPipe.Put(), writePipe_.Put(), &inheritable, 0),
                     L"Failed to CreatePipe for stdout.");
    if (!::SetHandleInformation(state_->readPipe.Get(), HANDLE_FLAG_INHERIT, 0)) {
        const DWORD error = ::GetLastError();
        state_->readPipe.Reset();
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
        state_->readPipe.Reset();
        writePipe_.Reset();
        Throw(FailureFromWin32(error), L"Failed to CreateProcess " + commandLine_);
    }
    state_->process.Reset(info.hProcess);
    thread_.Reset(info.hThread);
    processId_ = info.dwProcessId;
    threadId_ = info.dwThreadId;
    LogInfo(L"Process ID: %d.", static_cast<int>(processId_));

    // Only the child may hold the write end now, so the pipe breaks when it ends.
    writePipe_.Reset();

    auto share = std::make_unique<std::shared_ptr<ReaderState>>(state_);
    reader_.Reset(::CreateThread(nullptr, 0, &ProcessRunner::ReadProcessOutput, share.get(), 0, nullptr));
    if (!reader_) {
        const DWORD error = ::GetLastError();
        state_->readPipe.Reset();
        Throw(FailureFromWin32(error), L"Failed to create read thread.");
    }
    share.release();  // the thread's now
}

DWORD WINAPI ProcessRunner::ReadProcessOutput(void* state) {
    const std::unique_ptr<std::shared_ptr<ReaderState>> share(static_cast<std::shared_ptr<ReaderState>*>(state));
    // Nothing may leave a thread: a failure is logged and ends the reading.
    try {
        try {
            (*share)->ReadOutput();
        } catch (...) {
            LogInfo(L"%s", CurrentFailure().logText);
        }
    } catch (...) {  // logging itself failed: nothing is left to tell
    }
    return 0;
}

void ProcessRunner::ReaderState::ReadOutput() {
    std::vector<char> buffer(kReadBufferBytes);
    OutputLineSplitter lines;
    for (;;) {
        if (stop.load()) {
            LogOutputLines(lines.Finish());
            LogInfo(L"Stop reading process output.");
            return;
        }
        // Read only what is there: a read never blocks, so a stop request is
        // always seen. A broken pipe with nothing left means the child is gone.
        DWORD available = 0;
        if (!::PeekNamedPipe(readPipe.Get(), nullptr, 0, nullptr, &available, nullptr)) {
            EndOfOutput(lines);
            return;
        }
        if (available == 0) {
            ::Sleep(kIdlePauseMilliseconds);
            continue;
        }
        DWORD read = 0;
        if (!::ReadFile(readPipe.Get(), buffer.data(), available < kReadBufferBytes ? available : kReadBufferBytes,
                        &read, nullptr)) {
            EndOfOutput(lines);
            return;
        }
        if (read == 0) {
            DWORD exitCode = 0;
            if (::GetExitCodeProcess(process.Get(), &exitCode) && exitCode != STILL_ACTIVE) {
                LogOutputLines(lines.Finish());
                LogInfo(L"Process finished, no more output.");
                return;
            }
            LogInfo(L"No data available yet, waiting for more output...");
            ::Sleep(kPollPauseMilliseconds);
            continue;
        }
        LogOutputLines(lines.Push(std::string_view(buffer.data(), read)));
    }
}

}  // namespace setup
