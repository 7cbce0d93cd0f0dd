#include "runtime/action_frame.h"

#include <new>

#include "runtime/ca_runtime.h"
#include "runtime/exception.h"
#include "runtime/program_log.h"

namespace setup {

UINT RunAction(MSIHANDLE hInstall, const char* name, ActionError error, const ActionWork& work) {
    CaInitialize(hInstall, name);
    LogInfo(L"%s initialized.", name);
    UINT result = ERROR_SUCCESS;
    const int errorNumber = static_cast<int>(error);
    try {
        Session session(hInstall);
        work(session);
    } catch (const InstallCanceledException& e) {
        result = ERROR_INSTALL_USEREXIT;
        LogInfo(L"%s Error 0x%x.", e.Message(), e.Code());
    } catch (const Exception& e) {
        result = ERROR_INSTALL_FAILURE;
        LogInfo(L"%s Error 0x%x.", e.Message(), e.Code());
        if (errorNumber != 0) CaErrorMessage(errorNumber, e.Code(), kInstallMessageError, {e.UserMessage()});
    } catch (const std::bad_alloc&) {
        result = ERROR_INSTALL_FAILURE;
        LogInfo(L"Bad allocation error.");
        if (errorNumber != 0) CaErrorMessage(errorNumber, kFail, kInstallMessageError, {});
    } catch (...) {
        result = ERROR_INSTALL_FAILURE;
        LogInfo(L"Unknown exception.");
        if (errorNumber != 0) CaErrorMessage(errorNumber, kFail, kInstallMessageError, {});
    }
    LogInfo(L"%s: finished. Return value %d.", name, result);
    FlushLog();
    return CaFinalize(result);
}

}  // namespace setup
