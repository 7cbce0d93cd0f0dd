// The exported custom actions: one thin function per action, each running its
// feature inside the action frame. Nothing else lives here.

#include "actions/files/text_file_actions.h"
#include "actions/system/well_known_sids.h"
#include "runtime/action_frame.h"

#define UTILS_EXPORT extern "C" UINT __stdcall

using setup::ActionError;
using setup::RunAction;

UTILS_EXPORT GetWellKnownSids(MSIHANDLE hInstall) {
    return RunAction(hInstall, "GetWellKnownSids", ActionError::WellKnownSids, &setup::GetWellKnownSids);
}

UTILS_EXPORT InstallTextFiles(MSIHANDLE hInstall) {
    return RunAction(hInstall, "InstallTextFiles", ActionError::TextFiles, &setup::InstallTextFiles);
}

UTILS_EXPORT InstallTextFilesDeferred(MSIHANDLE hInstall) {
    return RunAction(hInstall, "InstallTextFilesDeferred", ActionError::TextFiles, &setup::InstallTextFilesDeferred);
}

UTILS_EXPORT InstallTextFilesRollback(MSIHANDLE hInstall) {
    return RunAction(hInstall, "InstallTextFilesRollback", ActionError::None, &setup::InstallTextFilesRollback);
}

UTILS_EXPORT InstallTextFilesCommit(MSIHANDLE hInstall) {
    return RunAction(hInstall, "InstallTextFilesCommit", ActionError::None, &setup::InstallTextFilesCommit);
}
