// Plants a registry link the way a user with write access to a key could,
// for the hostile-input tests: reg_link.exe <key under HKLM> <target>, the
// target in the kernel's form ("\Registry\Machine\Software\..."). The link
// is made in the 64-bit view. Exit code 0, or the Win32 error.

#include <windows.h>

#include <string>

int wmain(int argc, wchar_t** argv) {
    if (argc != 3) return ERROR_BAD_ARGUMENTS;
    HKEY key = nullptr;
    LONG status = ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, argv[1], 0, nullptr, REG_OPTION_CREATE_LINK,
                                    KEY_ALL_ACCESS | KEY_CREATE_LINK | KEY_WOW64_64KEY, nullptr, &key, nullptr);
    if (status != ERROR_SUCCESS) return static_cast<int>(status);
    const std::wstring target = argv[2];
    status = ::RegSetValueExW(key, L"SymbolicLinkValue", 0, REG_LINK, reinterpret_cast<const BYTE*>(target.data()),
                              static_cast<DWORD>(target.size() * sizeof(wchar_t)));
    ::RegCloseKey(key);
    return static_cast<int>(status);
}
