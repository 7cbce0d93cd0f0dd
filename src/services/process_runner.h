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
// never blocks on a full pipe. Output is logged in whole lines, however the
// reads cut it. A timed-out child is not ended; the runner's destruction asks
// the reader to stop and waits for it at most 5 seconds, so a child that
// outlives the wait never blocks the action (the reader reads only what the
// pipe holds, so it never sits in a read that would have to be cancelled).

#include <atomic>
#include <memory>
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
    // What the reader thread uses. The thread holds a share of it, so that a
    // reader still running after a bounded join never touches a freed runner.
    struct ReaderState {
        KernelHandle readPipe;
        KernelHandle process;
        std::atomic<bool> stop{false};  // set for the reader after a timeout
        void ReadOutput();
    };

    void StartProcess();
    static DWORD WINAPI ReadProcessOutput(void* state);

    DWORD waitMilliseconds_;
    std::wstring commandLine_;
    std::shared_ptr<ReaderState> state_ = std::make_shared<ReaderState>();
    KernelHandle thread_;
    DWORD processId_ = 0;
    DWORD threadId_ = 0;
    KernelHandle writePipe_;
    KernelHandle reader_;
    bool finished_ = false;  // the child ended within the wait
};

}  // namespace setup
