#pragma once
// PermissionEx: the security descriptors of files, folders, registry keys and
// services, merged with a row's entries on install and repair, taken back on
// uninstall, and put back exactly on rollback (docs/PermissionEx.md).

#include "runtime/session.h"

namespace setup {

void InstallPermissions(Session& session);
void InstallPermissionsDeferred(Session& session);
void InstallPermissionsRollback(Session& session);
void UninstallPermissions(Session& session);
void UninstallPermissionsRollback(Session& session);
void RestorePermissions(Session& session);
void RestorePermissionsDeferred(Session& session);

}  // namespace setup
