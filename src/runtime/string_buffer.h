#pragma once
// The one helper for the installer's "ask the size, then fetch" string APIs
// (MsiGetPropertyW, MsiRecordGetStringW, MsiFormatRecordW, ...). `call` has
// the shape UINT(wchar_t* buffer, DWORD* size): size in characters, without
// the terminator on output.
//
// A call may be a round trip to the installer (a property, formatting), so
// the helper fetches at once into a buffer on the stack, which holds most
// values, and asks again only when the value did not fit, or grew in between.
// (No buffer kept per thread: a thread_local with a destructor in a DLL built
// with MinGW can hang the custom-action server when its thread ends.)

#include <string>

#include "runtime/win32.h"

namespace setup {

template <class Call>
UINT FetchInstallerString(Call call, std::wstring& out) {
    wchar_t first[1024];
    DWORD capacity = sizeof(first) / sizeof(first[0]);
    UINT status = call(first, &capacity);
    if (status == ERROR_SUCCESS) {
        out.assign(first, capacity < sizeof(first) / sizeof(first[0]) ? capacity : 0);
        return status;
    }
    // The value may change between the calls (another thread of the installer
    // sets a property); a few rounds settle it, more would mean a livelock.
    std::wstring buffer;
    for (int round = 0; round < 8 && status == ERROR_MORE_DATA; ++round) {
        buffer.assign(static_cast<std::size_t>(capacity) + 1, L'\0');
        capacity = static_cast<DWORD>(buffer.size() + 1);
        status = call(buffer.data(), &capacity);
    }
    if (status == ERROR_SUCCESS) out.assign(buffer.data(), capacity < buffer.size() ? capacity : buffer.size());
    return status;
}

}  // namespace setup
