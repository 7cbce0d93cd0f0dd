// Prints the security descriptor of a registry key under HKLM (64-bit view),
// for the permission tests: key_sddl.exe <key> [<sddl>]. Without an SDDL it
// prints the owner, group and DACL as SDDL and, on a second line, the
// self-relative bytes in hex; with one it sets the key's DACL from it, as an
// administrator would. Exit code 0, or the Win32 error.

#include <windows.h>
#include <sddl.h>

#include <cstdio>
#include <cwchar>
#include <vector>

int wmain(int argc, wchar_t** argv) {
    if (argc != 2 && argc != 3) return ERROR_BAD_ARGUMENTS;
    HKEY key = nullptr;
    LONG status = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, argv[1], 0, READ_CONTROL | WRITE_DAC | KEY_WOW64_64KEY, &key);
    if (status != ERROR_SUCCESS) return static_cast<int>(status);
    const SECURITY_INFORMATION parts = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
    if (argc == 3) {
        PSECURITY_DESCRIPTOR sd = nullptr;
        if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(argv[2], SDDL_REVISION_1, &sd, nullptr)) {
            return static_cast<int>(::GetLastError());
        }
        status = ::RegSetKeySecurity(key, DACL_SECURITY_INFORMATION, sd);
        ::LocalFree(sd);
        ::RegCloseKey(key);
        return static_cast<int>(status);
    }
    DWORD size = 0;
    ::RegGetKeySecurity(key, parts, nullptr, &size);
    std::vector<unsigned char> bytes(size ? size : 1);
    status = ::RegGetKeySecurity(key, parts, bytes.data(), &size);
    ::RegCloseKey(key);
    if (status != ERROR_SUCCESS) return static_cast<int>(status);
    wchar_t* text = nullptr;
    if (!::ConvertSecurityDescriptorToStringSecurityDescriptorW(bytes.data(), SDDL_REVISION_1, parts, &text, nullptr)) {
        return static_cast<int>(::GetLastError());
    }
    std::wprintf(L"%ls\n", text);
    ::LocalFree(text);
    for (DWORD i = 0; i < size; ++i) std::wprintf(L"%02x", bytes[i]);
    std::wprintf(L"\n");
    return 0;
}
