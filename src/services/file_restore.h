#pragma once
// Putting a file back from the backup a deferred action made of it, and
// removing such backups: the one restore discipline of every family that
// backs files up (text files, and the file and registry-file families).
//
// A restore changes the target only when it differs from its backup, and then
// by copying the backup's bytes back into the target (CopyIntoExistingFile):
// the file keeps its identity, descriptor, streams and hard links. A missing
// target gets the backup moved into place. When neither can happen now, a
// single restart-time replace of
// the target by the backup is queued, never a deletion of the target alone
// (a queued deletion would outlive the restore and delete the user's file at
// the next restart).

#include <string>
#include <string_view>

namespace setup {

// Makes `target` what `backup` holds: bytes, attributes and times. When the
// target already equals the backup (same bytes and last-write time: the
// deferred action never changed it) only the backup is removed. Throws
// "Failed to move file on reboot ..." when even the restart-time replace
// cannot be queued; the backup is then left where it is.
void RestoreFileFromBackup(std::wstring_view target, std::wstring_view backup);

// Deletes a backup this library made (read-only ones too); when it cannot go
// now, its deletion is queued for the next restart.
void RemoveBackupFile(std::wstring_view backup);

}  // namespace setup
