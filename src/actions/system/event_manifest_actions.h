#pragma once
// The EventManifest table's actions. InstallEventManifest and
// UninstallEventManifest select the manifests whose components are being
// installed or removed and schedule the rollback action, then the deferred
// one, with the list of paths. The deferred actions run wevtutil.exe on each
// path and stop at the first failure; the rollback actions do the opposite
// operation on every path and only log failures.

#include "runtime/session.h"

namespace setup {

void InstallEventManifest(Session& session);
void InstallEventManifestDeferred(Session& session);
void InstallEventManifestRollback(Session& session);
void UninstallEventManifest(Session& session);
void UninstallEventManifestDeferred(Session& session);
void UninstallEventManifestRollback(Session& session);

}  // namespace setup
