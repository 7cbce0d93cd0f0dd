// The exported custom actions: one thin function per action, each running its
// feature inside the action frame. Nothing else lives here.

#include "actions/system/well_known_sids.h"
#include "runtime/action_frame.h"

#define UTILS_EXPORT extern "C" UINT __stdcall

using setup::ActionError;
using setup::RunAction;

UTILS_EXPORT GetWellKnownSids(MSIHANDLE hInstall) {
    return RunAction(hInstall, "GetWellKnownSids", ActionError::WellKnownSids, &setup::GetWellKnownSids);
}
