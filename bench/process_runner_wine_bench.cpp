// Cost of running a child through ProcessRunner, in-process under Wine with a
// real installer session receiving the log: the fixed cost of one run (start,
// wait, reader joined) and how fast output reaches the log, one message per
// line and in batches of 100 lines. Uses the tests' scripted child program.
// Run by scripts/bench.
#include <chrono>
#include <cstdio>
#include <string>

#include "runtime/action_frame.h"
#include "runtime/program_log.h"
#include "services/process_runner.h"
#include "wine_support/test_package.h"

using namespace setup;
using Clock = std::chrono::steady_clock;
using setup::test::ChildProcessCommand;

namespace {

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// Runs `command` `times` times inside one action; returns the wall time and the messages logged.
Clock::duration Time(MSIHANDLE session, const std::wstring& command, int times, unsigned batch, std::size_t& lines) {
    test::MessageCapture capture;
    Clock::duration elapsed{};
    RunAction(session, "Bench", ActionError::None, [&](Session&) {
        SetLogBatch(batch);
        const auto t0 = Clock::now();
        for (int i = 0; i < times; ++i) ProcessRunner().RunProcess(command);
        FlushLog();
        elapsed = Clock::now() - t0;
        SetLogBatch(0);
    });
    lines = capture.Info().size();
    return elapsed;
}

}  // namespace

int main() {
    test::TestPackage package;
    const MSIHANDLE session = package.Open();
    std::size_t lines = 0;

    const int runs = 20;
    const auto fixed = Time(session, ChildProcessCommand(L"exit:0"), runs, 0, lines);
    std::printf("one run of a child without output: %.1f ms (mean of %d)\n", Ms(fixed) / runs, runs);

    for (const long bytes : {1L << 20, 8L << 20}) {
        for (const unsigned batch : {0u, 100u}) {
            const auto t = Time(session, ChildProcessCommand(L"bulk:" + std::to_wstring(bytes)), 1, batch, lines);
            const double seconds = Ms(t) / 1000.0;
            std::printf("%2ld MB of output (%ld lines of 64 bytes), %s: %7.1f ms, %5.1f MB/s, %8.0f lines/s, "
                        "%zu messages\n",
                        bytes >> 20, bytes / 64, batch ? "batches of 100" : "one message per line", Ms(t),
                        (bytes / 1048576.0) / seconds, (bytes / 64) / seconds, lines);
        }
    }
    return 0;
}
