// Holds a file open the way another program would, for the fault-injection
// tests: hold_file.exe <path> <share: none|read> <signal folder>.
// Opens <path> for reading and writing with the given sharing, creates
// <signal folder>\ready, and keeps the handle until <signal folder>\release
// appears (or two minutes pass). Exit code 0, or 2 when the file could not be opened.

#include <windows.h>

#include <string>

int wmain(int argc, wchar_t** argv) {
    if (argc != 4) return 3;
    const std::wstring share = argv[2];
    const DWORD mode = share == L"read" ? FILE_SHARE_READ : 0;
    HANDLE file = ::CreateFileW(argv[1], GENERIC_READ | GENERIC_WRITE, mode, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return 2;
    const std::wstring signal = argv[3];
    HANDLE ready = ::CreateFileW((signal + L"\\ready").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (ready != INVALID_HANDLE_VALUE) ::CloseHandle(ready);
    const std::wstring release = signal + L"\\release";
    for (int i = 0; i < 2400 && ::GetFileAttributesW(release.c_str()) == INVALID_FILE_ATTRIBUTES; ++i) ::Sleep(50);
    ::CloseHandle(file);
    return 0;
}
