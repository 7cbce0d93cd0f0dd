#pragma once
// Runs one command line as a hidden child process and copies what it writes to
// standard output and standard error into the action log, line by line, while
// it runs ("> <line>"). The child is waited for a bounded time; a timeout or a
// non-zero exit code is a setup::Exception.
//
// One anonymous pipe carries both streams. Its read end belongs to the runner
// alone; the write end is inherited by the child and closed in this process at
// once, so the pipe breaks when the child has exited. A reader thread drains
// the pipe while the action's thread waits, so a child with a lot of output
// never blocks on a full pipe. A timed-out child is not ended; the runner's
// destruction waits for the reader thread (and so for the child to close its
// output) before it closes the remaining handles.

#include <string>

#include "runtime/unique_handle.h"

namespace setup {

class ProcessRunner {
public:
    static constexpr DWORD kDefaultWaitMilliseconds = 180000;

    explicit ProcessRunner(DWORD waitMilliseconds = kDefaultWaitMilliseconds);
    ~ProcessRunner();
    ProcessRunner(const ProcessRunner&) = delete;
    ProcessRunner& operator=(const ProcessRunner&) = delete;

    // Runs the child to its end; throws unless it exited with 0 in time.
    void RunProcess(const std::wstring& commandLine);

    // The child's id once started (0 before): who needs to end a timed-out
    // child can open it.
    DWORD ProcessId() const { return processId_; }

private:
    void StartProcess();
    static DWORD WINAPI ReadProcessOutput(void* runner);
    void ReadOutput();

    DWORD waitMilliseconds_;
    std::wstring commandLine_;
    KernelHandle process_;
    KernelHandle thread_;
    DWORD processId_ = 0;
    DWORD threadId_ = 0;
    KernelHandle readPipe_;
    KernelHandle writePipe_;
    KernelHandle reader_;
};

}  // namespace setup
