#pragma once
// HRESULT codes as the library reports them. Plain 32-bit integers so that the
// portable core can carry them without the Windows headers.

#include <cstdint>

namespace setup {

using HResult = std::int32_t;

inline constexpr HResult kSuccess = 0;
inline constexpr HResult kFail = static_cast<HResult>(0x80004005);          // E_FAIL
inline constexpr HResult kAborted = static_cast<HResult>(0x80004004);      // E_ABORT
inline constexpr HResult kUnexpected = static_cast<HResult>(0x8000FFFF);    // E_UNEXPECTED
inline constexpr HResult kInvalidArgument = static_cast<HResult>(0x80070057);
inline constexpr HResult kCanceled = static_cast<HResult>(0x80070642);      // from ERROR_INSTALL_USEREXIT
inline constexpr HResult kWaitTimeout = static_cast<HResult>(0x80070102);   // from WAIT_TIMEOUT

// A positive Windows error e becomes 0x80070000 | (e & 0xFFFF); zero and values
// that are already negative (HRESULTs) pass unchanged.
constexpr HResult HResultFromWin32(std::uint32_t error) {
    const auto value = static_cast<HResult>(error);
    if (value <= 0) return value;
    return static_cast<HResult>(0x80070000u | (error & 0xFFFFu));
}

// The same conversion where a failure is known to have happened: a failure
// that reported no error code (0) is E_FAIL, never success.
constexpr HResult FailureFromWin32(std::uint32_t error) {
    const HResult hr = HResultFromWin32(error);
    return hr < 0 ? hr : kFail;
}

}  // namespace setup
