#pragma once
// The CabPackage table's actions. InstallCabs (after InstallFiles: the
// cabinet is usually one of the package's files) plans the rows whose
// component is installed or reinstalled, UninstallCabs those whose component
// is uninstalled; each schedules the rollback, the deferred work and the
// commit, in a machine and a per-user flavour. The deferred work of a row runs
// in a work folder beside its target: the cabinet is extracted into it, then
// each file is moved in (an existing one moved aside first), every step
// written to the row's journal before it is taken; rollback reads the journal
// backwards, commit deletes the work folder. What a row placed is recorded in
// the registry, so that uninstall removes exactly that.

#include "runtime/session.h"

namespace setup {

void InstallCabs(Session& session);
void UninstallCabs(Session& session);
void InstallCabsDeferred(Session& session);
void InstallCabsDeferredUser(Session& session);
void InstallCabsRollback(Session& session);
void InstallCabsCommit(Session& session);

}  // namespace setup
