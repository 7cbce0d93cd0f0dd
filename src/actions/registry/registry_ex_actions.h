#pragma once
// The RegistryEx table's actions. InstallRegFiles and UninstallRegFiles read
// and decide the table: registry files go to the text-file actions (under the
// names InstallRegFilesRollback, InstallRegFilesDeferred, InstallRegFilesCommit),
// direct rows are scheduled with the registry's present state for their
// rollback. The four deferred actions apply a row set: removals first, then
// writes by key.

#include "runtime/session.h"

namespace setup {

void InstallRegFiles(Session& session);
void UninstallRegFiles(Session& session);
void InstallRegistryDeferred(Session& session);
void InstallRegistryRollback(Session& session);
void UninstallRegistryDeferred(Session& session);
void UninstallRegistryRollback(Session& session);

}  // namespace setup
