#pragma once
// The frame every exported action runs in: initialise the runtime, log
// "<name> initialized.", run the work, turn its outcome into the installer's
// result code, log "<name>: finished. Return value <n>." and finalise.
//
// This is the one place that catches: a cancel returns 1602 (no dialog), a
// setup::Exception returns 1603 and shows the action's installer error, and
// anything else is logged as "Bad allocation error." or "Unknown exception.".
// Nothing escapes: a failure in initialisation or in logging itself (out of
// memory) still returns 1603, after a last fixed log line.
// A cancel seen anywhere during the call makes the result 1602 even when the
// work completed.

#include <functional>

#include "runtime/session.h"

namespace setup {

// Installer error numbers shown for failed actions (texts live in the package).
enum class ActionError : int {
    None = 0,  // rollback, commit and the remaining deferred actions: log and result only
    TextFiles = 27454,
    MoveFiles = 27455,
    RemoveFiles = 27456,
    WellKnownSids = 27457,
    Cabinets = 27458,
    XmlFiles = 27459,
    InstallEventManifest = 27466,
    UninstallEventManifest = 27467,
    OsVersionInfo = 27470,
    RegistryFixups = 27471,
    Permissions = 27472,
    Perfmon = 27473,
};

using ActionWork = std::function<void(Session& session)>;

UINT RunAction(MSIHANDLE hInstall, const char* name, ActionError error, const ActionWork& work) noexcept;

}  // namespace setup
