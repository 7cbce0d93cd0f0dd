#pragma once
// The TextFile table's actions. InstallTextFiles reads and plans the table and
// schedules rollback, deferred and commit with one shared action data;
// InstallTextFilesDeferred backs up and writes the files (or stages them for
// the next restart under LOCKFILESONUPDATE=1); InstallTextFilesRollback puts
// the old files back and takes back its restart-time renames;
// InstallTextFilesCommit deletes the backups.

#include "runtime/session.h"

namespace setup {

void InstallTextFiles(Session& session);
void InstallTextFilesDeferred(Session& session);
void InstallTextFilesRollback(Session& session);
void InstallTextFilesCommit(Session& session);

}  // namespace setup
