#pragma once
// The XmlFile table's actions. InstallXmlFiles (after InstallFiles and
// InstallCabs: the files it edits are usually the package's own) plans the
// rows whose component is installed or reinstalled, UninstallXmlFiles (before
// RemoveFiles, while those files are still there) the rows whose component is
// uninstalled; each schedules InstallXmlFilesRollback, InstallXmlFilesDeferred
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
void UninstallXmlFiles(Session& session);
void InstallXmlFilesDeferred(Session& session);
void InstallXmlFilesRollback(Session& session);
void InstallXmlFilesCommit(Session& session);

}  // namespace setup
