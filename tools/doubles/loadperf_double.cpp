// Stands in for the system's loadperf.dll (Wine's is a stub that does
// nothing): placed as loadperf.dll in the prefix's system directory, it is
// loaded instead. Records each call with its command line and quiet flag and
// returns the code rules.txt chooses (perf_double.h).

#include "perf_double.h"

extern "C" __declspec(dllexport) DWORD WINAPI LoadPerfCounterTextStringsW(LPWSTR command, BOOL quiet) {
    return perf_double::Call(quiet ? L"LoadPerfCounterTextStringsW quiet" : L"LoadPerfCounterTextStringsW",
                             command ? command : L"");
}

extern "C" __declspec(dllexport) DWORD WINAPI UnloadPerfCounterTextStringsW(LPWSTR command, BOOL quiet) {
    return perf_double::Call(quiet ? L"UnloadPerfCounterTextStringsW quiet" : L"UnloadPerfCounterTextStringsW",
                             command ? command : L"");
}
