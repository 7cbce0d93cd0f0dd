#include "runtime/action_frame.h"

#include <string>
#include <vector>

#include "runtime/ca_runtime.h"
#include "runtime/exception.h"
#include "runtime/installer_calls.h"
#include "runtime/program_log.h"

namespace setup {

namespace {

constexpr unsigned kLinesPerMessage = 100;

// The action's work and its failures, turned into the installer's result code.
UINT RunWork(MSIHANDLE hInstall, ActionError error, const ActionWork& work) {
    try {
        Session session(hInstall);
        work(session);
        return ERROR_SUCCESS;
    } catch (...) {
        const CaughtFailure failure = CurrentFailure();
        LogInfo(L"%s", failure.logText);
        if (failure.kind == CaughtFailure::Kind::Canceled) return ERROR_INSTALL_USEREXIT;
        const int errorNumber = static_cast<int>(error);
        if (errorNumber != 0) {
            // The dialog says why: the failure's own words for users when it
            // has them, else the logged reason (secrets masked as in the log).
            std::wstring reason = failure.userMessage;
            if (reason.empty()) reason = MaskLogSecrets(failure.reason);
            if (!reason.empty() && reason.back() == L'.') reason.pop_back();  // the template adds its own
            CaErrorMessage(errorNumber, failure.code, kInstallMessageError, {reason});
        }
        return ERROR_INSTALL_FAILURE;
    }
}

// The values of the properties named in MsiHiddenProperties. Only immediate
// actions can read them; the deferred ones see their action data alone.
std::vector<std::wstring> HiddenValues(MSIHANDLE hInstall) {
    std::vector<std::wstring> values;
    const Session session(hInstall);
    const std::wstring names = session.GetProperty(L"MsiHiddenProperties");
    for (std::size_t start = 0; start < names.size();) {
        std::size_t end = names.find(L';', start);
        if (end == std::wstring::npos) end = names.size();
        if (end > start) {
            std::wstring value = session.GetProperty(names.substr(start, end - start));
            if (!value.empty()) values.push_back(std::move(value));
        }
        start = end + 1;
    }
    return values;
}

// The last word when even logging failed (out of memory): a fixed text that
// needs no allocation of ours, and nothing that can throw.
void LogLastResort(MSIHANDLE hInstall, const char* name) noexcept {
    const MSIHANDLE record = ::MsiCreateRecord(2);
    if (record == 0) return;
    ::MsiRecordSetStringA(record, 0, "[1]: failed before it could report why (out of memory). Return value 1603.");
    ::MsiRecordSetStringA(record, 1, name);
    ::MsiProcessMessage(hInstall, INSTALLMESSAGE_INFO, record);
    ::MsiCloseHandle(record);
}

}  // namespace

UINT RunAction(MSIHANDLE hInstall, const char* name, ActionError error, const ActionWork& work) noexcept {
    // Initialisation, work and finalisation all sit inside this one handler:
    // nothing escapes into the installer's custom-action server.
    try {
        ResetRoundTrips();
        const auto started = std::chrono::steady_clock::now();
        CaInitialize(hInstall, name);
        SetLogSecrets(HiddenValues(hInstall));
        // Lines travel to the installer a hundred at a time (each message is
        // a round trip); whatever is pending leaves with the finish line, and
        // before anything that waits (a child process).
        SetLogBatch(kLinesPerMessage);
        LogInfo(L"%s initialized.", name);
        const UINT result = RunWork(hInstall, error, work);
        if (CaIsVerbose()) {
            LogInfo(L"Installer calls: %u.", InstallerCallCount());
            LogInfo(L"%s", TimeSpentLine(RoundTrips(), std::chrono::steady_clock::now() - started));
        }
        LogInfo(L"%s: finished. Return value %d.", name, result);
        SetLogBatch(0);
        FlushLog();
        SetLogSecrets({});
        return CaFinalize(result);
    } catch (...) {
        try {
            SetLogSecrets({});
        } catch (...) {  // nothing more to do without memory
        }
        DiscardLog();
        LogLastResort(hInstall, name);
        CaFinalize(ERROR_INSTALL_FAILURE);
        return ERROR_INSTALL_FAILURE;
    }
}

}  // namespace setup
