#include "runtime/ca_runtime.h"

#include <atomic>
#include <cstring>

#include "runtime/installer_calls.h"
#include "runtime/log_escape.h"
#include "runtime/string_buffer.h"
#include "runtime/unique_handle.h"

namespace setup {

namespace {

constexpr std::size_t kLogNameCapacity = 32;  // characters, terminator included

struct RuntimeState {
    MSIHANDLE install = 0;
    MSIHANDLE database = 0;
    bool initialized = false;
    char logName[kLogNameCapacity] = {};
    UINT forcedResult = 0;
};

RuntimeState g_state;
int g_verbose = -1;       // -1 undecided, then 0 or 1 for the life of the process
bool g_inCaLog = false;  // CaLog is not re-entrant: a nested call returns at once

constexpr wchar_t kVerboseAtom[] = L"WcaVerboseLogging";
constexpr wchar_t kNotVerboseAtom[] = L"WcaNotVerboseLogging";
constexpr wchar_t kPolicyKey[] = L"Software\\Policies\\Microsoft\\Windows\\Installer";

bool HasVerboseLetter(const wchar_t* text, std::size_t size) {
    for (std::size_t i = 0; i < size && text[i] != 0; ++i) {
        if (text[i] == L'v' || text[i] == L'V') return true;
    }
    return false;
}

bool PolicySaysVerbose() {
    RegistryKey key;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kPolicyKey, 0, KEY_QUERY_VALUE, key.Put()) != ERROR_SUCCESS) {
        return false;
    }
    wchar_t value[32] = {};
    DWORD type = 0;
    DWORD bytes = sizeof(value) - sizeof(wchar_t);  // keep a terminator
    if (::RegQueryValueExW(key.Get(), L"Logging", nullptr, &type, reinterpret_cast<BYTE*>(value), &bytes) !=
        ERROR_SUCCESS) {
        return false;
    }
    if (type != REG_SZ && type != REG_EXPAND_SZ) return false;
    return HasVerboseLetter(value, bytes / sizeof(wchar_t));
}

bool DecideVerbose() {
    char one[1] = {0};
    DWORD size = 0;
    // LOGVERBOSE counts when non-empty: the reported length is what matters.
    const UINT status = ::MsiGetPropertyA(g_state.install, "LOGVERBOSE", one, &size);
    if ((status == ERROR_SUCCESS || status == ERROR_MORE_DATA) && size != 0) return true;

    std::wstring logging;
    const UINT got = FetchInstallerString(
        [](wchar_t* buffer, DWORD* size) {
            return InstallerCall(::MsiGetPropertyW, g_state.install, L"MsiLogging", buffer, size);
        },
        logging);
    if (got != ERROR_SUCCESS) {
        CaLogError(HResultFromWin32(got), "failed to get MsiLogging property");
    } else if (HasVerboseLetter(logging.c_str(), logging.size())) {
        return true;
    }
    return PolicySaysVerbose();
}

HResult EnsureAtom(const wchar_t* name, const char* failure) {
    if (::GlobalFindAtomW(name) != 0) return kSuccess;
    if (::GlobalAddAtomW(name) != 0) return kSuccess;
    const HResult hr = FailureFromWin32(::GetLastError());
    CaLogError(hr, "%s", failure);
    return hr;
}

HResult RemoveAtom(const wchar_t* name, const char* failure) {
    const ATOM atom = ::GlobalFindAtomW(name);
    if (atom == 0) return kSuccess;
    ::SetLastError(0);
    ::GlobalDeleteAtom(atom);  // returns 0 on success as well: the last error decides
    const DWORD error = ::GetLastError();
    if (error == 0) return kSuccess;
    const HResult hr = FailureFromWin32(error);
    CaLogError(hr, "%s", failure);
    return hr;
}

HResult PublishVerbose(bool verbose) {
    if (verbose) {
        HResult hr = EnsureAtom(kVerboseAtom, "Failed to create WcaVerboseLogging global atom.");
        if (hr < 0) return hr;
        return RemoveAtom(kNotVerboseAtom, "Failed to delete WcaNotVerboseLogging global atom.");
    }
    HResult hr = RemoveAtom(kVerboseAtom, "Failed to delete WcaVerboseLogging global atom.");
    if (hr < 0) return hr;
    return EnsureAtom(kNotVerboseAtom, "Failed to create WcaNotVerboseLogging global atom.");
}

// The level-1 test: the atoms first (other processes of this installation
// published them), then the policy value.
bool VerboseLinesWanted() {
    if (::GlobalFindAtomW(kVerboseAtom) != 0) return true;
    if (::GlobalFindAtomW(kNotVerboseAtom) != 0) return false;
    return PolicySaysVerbose();
}

struct ModuleVersion {
    DWORD ms = 0;
    DWORD ls = 0;
};

// Reads VS_FIXEDFILEINFO straight from our own version resource, so that the
// DLL needs no version.dll import.
ModuleVersion OwnVersion(HMODULE module) {
    ModuleVersion version;
    HRSRC info = ::FindResourceW(module, MAKEINTRESOURCEW(1), MAKEINTRESOURCEW(16));  // RT_VERSION
    if (info == nullptr) return version;
    HGLOBAL loaded = ::LoadResource(module, info);
    const DWORD size = ::SizeofResource(module, info);
    const auto* bytes = static_cast<const BYTE*>(loaded ? ::LockResource(loaded) : nullptr);
    if (bytes == nullptr) return version;
    for (DWORD offset = 0; offset + sizeof(VS_FIXEDFILEINFO) <= size; offset += 4) {
        VS_FIXEDFILEINFO fixed;
        std::memcpy(&fixed, bytes + offset, sizeof(fixed));
        if (fixed.dwSignature == 0xFEEF04BD) {
            version.ms = fixed.dwFileVersionMS;
            version.ls = fixed.dwFileVersionLS;
            break;
        }
    }
    return version;
}

HMODULE OwnModule() {
    HMODULE module = nullptr;
    ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                         reinterpret_cast<LPCWSTR>(&OwnModule), &module);
    return module;
}

HResult InitializeSteps(const char* logName) {
    const std::size_t nameLength = logName ? std::strlen(logName) : 0;
    if (nameLength >= kLogNameCapacity) {
        const HResult hr = HResultFromWin32(ERROR_INSUFFICIENT_BUFFER);
        CaLogError(hr, "Failed to copy CustomAction log name: %s", logName);
        return hr;
    }
    std::memcpy(g_state.logName, logName ? logName : "", nameLength + 1);

    if (g_state.database != 0) {
        const HResult hr = PublishVerbose(CaIsVerbose());
        if (hr < 0) {
            CaLogError(hr, "Failed to set verbose logging global atom");
            return hr;
        }
    }

    wchar_t modulePath[MAX_PATH] = {};
    const HMODULE module = OwnModule();
    if (::GetModuleFileNameW(module, modulePath, MAX_PATH) == 0) {
        const HResult hr = FailureFromWin32(::GetLastError());
        CaLogError(hr, "Failed to get module filename");
        return hr;
    }
    const ModuleVersion version = OwnVersion(module);
    CaLog(kLogVerbose, "Entering %s in %ls, version %u.%u.%u.%u", logName, modulePath, HIWORD(version.ms),
          LOWORD(version.ms), HIWORD(version.ls), LOWORD(version.ls));
    return kSuccess;
}

std::string ToAnsi(const std::wstring& text) {
    if (text.empty()) return {};
    const int size = ::WideCharToMultiByte(CP_ACP, 0, text.data(), static_cast<int>(text.size()), nullptr, 0,
                                           nullptr, nullptr);
    std::string out(static_cast<std::size_t>(size > 0 ? size : 0), '\0');
    if (size > 0) {
        ::WideCharToMultiByte(CP_ACP, 0, text.data(), static_cast<int>(text.size()), out.data(), size, nullptr,
                              nullptr);
    }
    return out;
}

}  // namespace


HResult CaInitialize(MSIHANDLE hInstall, const char* logName) {
    g_state = RuntimeState{};
    g_state.initialized = true;
    g_state.install = hInstall;
    g_state.database = ::MsiGetActiveDatabase(hInstall);  // 0 in deferred actions
    const HResult hr = InitializeSteps(logName);
    if (hr < 0) {
        if (g_state.database != 0) ::MsiCloseHandle(g_state.database);
        g_state.database = 0;
        g_state.initialized = false;
        g_state.logName[0] = '\0';
    }
    return hr;
}

UINT CaFinalize(UINT result) noexcept {
    if (g_state.database != 0) ::MsiCloseHandle(g_state.database);
    const UINT forced = g_state.forcedResult;
    g_state = RuntimeState{};
    return forced != 0 ? forced : result;
}

bool CaIsInitialized() { return g_state.initialized; }
MSIHANDLE CaInstallHandle() { return g_state.install; }
std::string CaLogName() { return g_state.logName; }

bool CaIsVerbose() {
    if (g_verbose < 0) g_verbose = DecideVerbose() ? 1 : 0;
    return g_verbose == 1;
}

int CaProcessMessage(UINT messageType, MSIHANDLE record) {
    const int reply = ::MsiProcessMessage(g_state.install, static_cast<INSTALLMESSAGE>(messageType), record);
    if (reply == ERROR_INSTALL_USEREXIT || reply == IDCANCEL) CaRecordCancel();
    return reply;
}

void CaRecordCancel() { g_state.forcedResult = ERROR_INSTALL_USEREXIT; }
bool CaCancelRecorded() { return g_state.forcedResult == ERROR_INSTALL_USEREXIT; }

int CaErrorMessage(int errorNumber, HResult hr, UINT messageType, const std::vector<std::wstring>& texts) {
    MsiHandle record(::MsiCreateRecord(static_cast<UINT>(texts.size() + 2)));
    if (!record) return -1;
    if (::MsiRecordSetInteger(record.Get(), 1, errorNumber) != ERROR_SUCCESS) {
        CaLogError(kFail, "failed to set error code into error message");
        return -1;
    }
    // In hex, as Windows writes HRESULTs: "0x80070005", not "-2147024891".
    if (::MsiRecordSetStringW(record.Get(), 2, Format(L"0x%08x", static_cast<unsigned>(hr)).c_str()) != ERROR_SUCCESS) {
        CaLogError(kFail, "failed to set hresult code into error message");
        return -1;
    }
    UINT field = 3;
    for (const std::wstring& text : texts) {
        if (::MsiRecordSetStringW(record.Get(), field++, text.c_str()) != ERROR_SUCCESS) {
            CaLogError(kFail, "failed to set string string into error message");
            return -1;
        }
    }
    return CaProcessMessage(messageType | kInstallMessageError, record.Get());
}

void CaLogText(int level, const std::wstring& text) {
    if (g_inCaLog) return;
    if (level != kLogStandard && !(level == kLogVerbose && VerboseLinesWanted())) return;
    g_inCaLog = true;
    std::wstring line;
    if (g_state.logName[0] != '\0') line = Format(L"%s:  %s", g_state.logName, EscapeLogText(text));
    else line = EscapeLogText(text);
    MsiHandle record(::MsiCreateRecord(1));
    if (record) {
        const std::string narrow = ToAnsi(line);
        ::MsiRecordSetStringA(record.Get(), 0, narrow.c_str());
        CaProcessMessage(kInstallMessageInfo, record.Get());
    }
    g_inCaLog = false;
}

void CaLogErrorText(HResult hr, const std::wstring& text) {
    if (!g_state.initialized) return;
    CaLogText(kLogStandard, Format(L"Error 0x%x: %s", hr, text));
}

}  // namespace setup
