#pragma once
// The XmlFile table's actions. InstallXmlFiles (after InstallFiles and
// InstallCabs: the files it edits are usually the package's own) reads and
// plans the table and schedules InstallXmlFilesRollback, InstallXmlFilesDeferred
// and InstallXmlFilesCommit. The deferred action edits each file in one pass
// in the platform's DOM, after a byte copy beside it, and writes it back in
// its own encoding, byte-order mark and line ends; before each edit it notes
// what the edit replaces, and keeps those notes in the registry so that
// uninstall can put the old values back. Rollback puts every file back byte
// for byte (a file it created goes) and the notes as they were; commit
// removes the copies.

#include "runtime/session.h"

namespace setup {

void InstallXmlFiles(Session& session);
void InstallXmlFilesDeferred(Session& session);
void InstallXmlFilesRollback(Session& session);
void InstallXmlFilesCommit(Session& session);

}  // namespace setup
