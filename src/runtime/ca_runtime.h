#pragma once
// The per-call runtime every exported action runs on: the session handle, the
// active database, the log name, the forced result of a cancel, and the
// diagnostic channel (CaLog) with its verbose decision.
//
// One set of state per process, reset by every action call; the installer
// calls actions one at a time on its own thread. Only the verbose decision
// (cached here and published as the global atoms "WcaVerboseLogging" and
// "WcaNotVerboseLogging") outlives a call.

#include <string>
#include <vector>

#include "runtime/format.h"
#include "runtime/hresult.h"
#include "runtime/win32.h"

namespace setup {

inline constexpr int kLogVerbose = 1;  // written only when verbose logging is on
inline constexpr int kLogStandard = 2;  // always written
inline constexpr UINT kInstallMessageInfo = 0x04000000;
inline constexpr UINT kInstallMessageError = 0x01000000;
inline constexpr UINT kInstallMessageProgress = 0x0A000000;

// Sets up the call. On failure the state is left uninitialised (no database,
// no log name) but the session handle is kept, so the action's own lines still
// reach the installer log.
HResult CaInitialize(MSIHANDLE hInstall, const char* logName);
// Tears the call down; returns the forced result (1602 after a cancel) when
// one was recorded, else `result`.
UINT CaFinalize(UINT result) noexcept;

bool CaIsInitialized();
MSIHANDLE CaInstallHandle();
std::string CaLogName();

// The verbose decision, made once per process (LOGVERBOSE, MsiLogging, then
// the installer's Logging policy value).
bool CaIsVerbose();

// Sends a record to the installer; a reply of 1602 or IDCANCEL records a cancel.
int CaProcessMessage(UINT messageType, MSIHANDLE record);
void CaRecordCancel();
bool CaCancelRecorded();

// A message for the installer's error dialog: field 1 the error number,
// field 2 the HRESULT, then the texts.
int CaErrorMessage(int errorNumber, HResult hr, UINT messageType, const std::vector<std::wstring>& texts);

// The diagnostic channel: "<log name>:  <text>" as a narrow information message.
void CaLogText(int level, const std::wstring& text);

template <class... Args>
void CaLog(int level, NarrowFormatString<Args...> format, const Args&... args) {
    CaLogText(level, Format(format, args...));
}

// Writes "Error 0x%x: <text>" at the standard level while the runtime is initialised.
void CaLogErrorText(HResult hr, const std::wstring& text);

template <class... Args>
void CaLogError(HResult hr, NarrowFormatString<Args...> format, const Args&... args) {
    CaLogErrorText(hr, Format(format, args...));
}

}  // namespace setup
