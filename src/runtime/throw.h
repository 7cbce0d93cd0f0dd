#pragma once
// Throw helpers, named after how the failing API reports its error.
// Each builds setup::Exception with the converted code and the given text.

#include <string>

#include "runtime/exception.h"
#include "runtime/win32.h"

namespace setup {

[[noreturn]] void Throw(HResult code, std::wstring message);

// For APIs that signal failure by their result and leave the code in GetLastError.
inline void ThrowLastErrorIf(bool failed, const std::wstring& message) {
    if (failed) {
        const DWORD error = ::GetLastError();
        Throw(FailureFromWin32(error), message);
    }
}

// For APIs that return a Win32 error code (registry functions, LSTATUS).
inline void ThrowIfWin32Error(LONG status, const std::wstring& message) {
    if (status != ERROR_SUCCESS) Throw(FailureFromWin32(static_cast<DWORD>(status)), message);
}

// For installer functions that return a UINT error code.
inline void ThrowIfMsiError(UINT status, const std::wstring& message) {
    if (status != ERROR_SUCCESS) Throw(FailureFromWin32(status), message);
}

}  // namespace setup
