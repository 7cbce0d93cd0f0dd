#pragma once
// The MoveFileEx table's actions. MoveFilesEx reads and plans the table,
// carries out the immediate rows at once (undoing them itself when one fails)
// and schedules, in this order, MoveFilesExRollback (takes back what the
// immediate and deferred rows did, then carries out the rollback rows),
// MoveFilesExDeferredUser (deferred rows with a network source, impersonated),
// MoveFilesExDeferred and MoveFilesExFinalize (removes the backups, then
// carries out the commit rows). MoveFilesExDeferredUser is bound to the
// MoveFilesExDeferred entry point.

#include "runtime/session.h"

namespace setup {

void MoveFilesEx(Session& session);
void MoveFilesExDeferred(Session& session);
void MoveFilesExFinalize(Session& session);
void MoveFilesExRollback(Session& session);

}  // namespace setup
