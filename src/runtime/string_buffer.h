#pragma once
// The one helper for the installer's "ask the size, then fetch" string APIs
// (MsiGetPropertyW, MsiRecordGetStringW, MsiFormatRecordW, ...). `call` has
// the shape UINT(wchar_t* buffer, DWORD* size): size in characters, without
// the terminator on output. The helper asks with an empty buffer, fetches into
// size + 1 characters, and asks again while the value grew in between.

#include <string>

#include "runtime/win32.h"

namespace setup {

template <class Call>
UINT FetchInstallerString(Call call, std::wstring& out) {
    wchar_t probe[1] = {0};
    DWORD size = 0;
    UINT status = call(probe, &size);
    // The value may change between the calls (another thread of the installer
    // sets a property); a few rounds settle it, more would mean a livelock.
    for (int round = 0; round < 8 && status == ERROR_MORE_DATA; ++round) {
        std::wstring buffer(static_cast<std::size_t>(size) + 1, L'\0');
        DWORD capacity = size + 1;
        status = call(buffer.data(), &capacity);
        if (status == ERROR_SUCCESS) {
            buffer.resize(capacity < buffer.size() ? capacity : buffer.size() - 1);
            out = std::move(buffer);
            return ERROR_SUCCESS;
        }
        size = capacity;
    }
    if (status == ERROR_SUCCESS) out.clear();
    return status;
}

}  // namespace setup
