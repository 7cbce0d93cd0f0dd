// The exported custom actions: one thin function per action, each running its
// feature inside the action frame. Nothing else lives here.

#include "actions/files/cabinet_actions.h"
#include "actions/files/move_file_actions.h"
#include "actions/files/remove_file_actions.h"
#include "actions/files/text_file_actions.h"
#include "actions/files/xml_file_actions.h"
#include "actions/registry/registry_ex_actions.h"
#include "actions/registry/registry_fixups.h"
#include "actions/security/permission_actions.h"
#include "actions/system/event_manifest_actions.h"
#include "actions/system/force_rollback.h"
#include "actions/system/os_version_info.h"
#include "actions/system/perfmon_actions.h"
#include "actions/system/well_known_sids.h"
#include "runtime/action_frame.h"

// One exported action: runs setup::<name> in the frame with its installer error.
#define UTILS_ACTION(name, error)                                                         \
    extern "C" UINT __stdcall name(MSIHANDLE hInstall) noexcept {                                \
        return setup::RunAction(hInstall, #name, setup::ActionError::error, &setup::name); \
    }

UTILS_ACTION(GetWellKnownSids, WellKnownSids)

UTILS_ACTION(InstallTextFiles, TextFiles)
UTILS_ACTION(InstallTextFilesDeferred, TextFiles)
UTILS_ACTION(InstallTextFilesRollback, None)
UTILS_ACTION(InstallTextFilesCommit, None)

UTILS_ACTION(MoveFilesEx, MoveFiles)
UTILS_ACTION(MoveFilesExDeferred, MoveFiles)
UTILS_ACTION(MoveFilesExFinalize, None)
UTILS_ACTION(MoveFilesExRollback, None)

UTILS_ACTION(RemoveFilesEx, RemoveFiles)
UTILS_ACTION(RemoveFilesExFinalize, RemoveFiles)
UTILS_ACTION(RemoveFilesExRollback, None)

UTILS_ACTION(InstallCabs, Cabinets)
UTILS_ACTION(UninstallCabs, Cabinets)
UTILS_ACTION(InstallCabsDeferred, Cabinets)
UTILS_ACTION(InstallCabsDeferredUser, Cabinets)
UTILS_ACTION(InstallCabsRollback, None)
UTILS_ACTION(InstallCabsCommit, None)

UTILS_ACTION(InstallXmlFiles, XmlFiles)
UTILS_ACTION(UninstallXmlFiles, XmlFiles)
UTILS_ACTION(InstallXmlFilesDeferred, XmlFiles)
UTILS_ACTION(InstallXmlFilesRollback, None)
UTILS_ACTION(InstallXmlFilesCommit, None)

UTILS_ACTION(InstallRegFiles, TextFiles)
UTILS_ACTION(UninstallRegFiles, TextFiles)
UTILS_ACTION(InstallRegistryDeferred, TextFiles)
UTILS_ACTION(InstallRegistryRollback, None)
UTILS_ACTION(UninstallRegistryDeferred, TextFiles)
UTILS_ACTION(UninstallRegistryRollback, None)

UTILS_ACTION(InstallEventManifest, InstallEventManifest)
UTILS_ACTION(InstallEventManifestDeferred, None)
UTILS_ACTION(InstallEventManifestRollback, None)
UTILS_ACTION(UninstallEventManifest, UninstallEventManifest)
UTILS_ACTION(UninstallEventManifestDeferred, UninstallEventManifest)
UTILS_ACTION(UninstallEventManifestRollback, None)

UTILS_ACTION(GetOsVersionInfo, OsVersionInfo)

UTILS_ACTION(FixQwordRegistry, RegistryFixups)
UTILS_ACTION(FixQwordRegistryRollback, None)
UTILS_ACTION(FixRegistryIntegerProperties, RegistryFixups)

UTILS_ACTION(InstallPermissions, Permissions)
UTILS_ACTION(InstallPermissionsDeferred, Permissions)
UTILS_ACTION(InstallPermissionsRollback, None)
UTILS_ACTION(UninstallPermissions, Permissions)
UTILS_ACTION(UninstallPermissionsRollback, None)
UTILS_ACTION(RestorePermissions, Permissions)
UTILS_ACTION(RestorePermissionsDeferred, Permissions)

UTILS_ACTION(RegisterPerfmonEx, Perfmon)
UTILS_ACTION(RegisterPerfmonExDeferred, Perfmon)
UTILS_ACTION(UnregisterPerfmonEx, Perfmon)
UTILS_ACTION(UnregisterPerfmonExDeferred, Perfmon)

UTILS_ACTION(ForceRollback, None)
