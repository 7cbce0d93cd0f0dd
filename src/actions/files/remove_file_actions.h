#pragma once
// The RemoveFileEx table's actions. RemoveFilesEx reads and plans the table,
// removes the immediate rows for good, and schedules RemoveFilesExRollback
// (puts back what the deferred rows removed, takes back their restart-time
// removals, then removes the rollback-only rows), RemoveFilesExDeferred and
// RemoveFilesExCommit. The last two run the one entry point
// RemoveFilesExFinalize: its data says which ("mode"). Deferred rows rename
// what they remove into a backup folder on the same volume; commit deletes
// the backup folders, then removes the commit rows.

#include "runtime/session.h"

namespace setup {

void RemoveFilesEx(Session& session);
void RemoveFilesExFinalize(Session& session);
void RemoveFilesExRollback(Session& session);

}  // namespace setup
