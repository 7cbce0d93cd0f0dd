// Stands in for the system's lodctr.exe and unlodctr.exe (Wine's builtins call
// the loadperf stubs and exit 0): built once under each name, it records its
// command line and exits with the code rules.txt chooses (perf_double.h),
// after a line on standard error when that code is not 0.

#include <cstdio>

#include "perf_double.h"

int main() {
    const std::wstring command = ::GetCommandLineW();
    const unsigned long code = perf_double::Call(TOOL_NAME, command);
    if (code != 0) std::fprintf(stderr, "perf double: failing with %lu\n", code);
    return static_cast<int>(code);
}
