#pragma once
// The work and backup folders of the deferred actions.
//
// A deferred action runs as LocalSystem in folders that users can often
// write, so a folder it works in is never one whose name anybody could know
// beforehand: the immediate phase hands over only a token, and the deferred
// action creates the folder itself, new, under a random name beside the
// target, with a DACL for SYSTEM, Administrators and the account it runs as.
// A name that exists already (a folder, a junction, a link: anything) is
// passed over for a fresh one; the opened folder is checked to be a real
// folder, not a reparse point, before anything goes in.
//
// The rollback and commit actions that clean up find the folder through a
// record the deferred action writes under the token, in a key users cannot
// write (HKLM; HKCU for the actions that run as the user, whose folders are
// the user's own anyway). No record means the deferred step never made one:
// there is nothing to undo.

#include <optional>
#include <string>
#include <string_view>

namespace setup {

// The folder made for `token` by this process, or a new one: "<parent>\<prefix>
// <32 hex digits>". Throws "Failed to create folder '<parent>\<prefix>...'."
// with the error, or "Refused to use folder '<path>': it is a link (reparse
// point).".
std::wstring CreateWorkFolder(std::wstring_view parent, std::wstring_view prefix, std::wstring_view token,
                              bool perUser);

// The folder a deferred action recorded for `token`, or nothing: also when
// it is no longer a real folder (swapped for a link), which is logged
// ("Refused to use the work folder '%s': it is no longer the folder made for it.").
std::optional<std::wstring> FindWorkFolder(std::wstring_view token, bool perUser);

// Removes the folder recorded for `token` with everything in it (see
// RemoveFolderTree), then the record. Logs "Cleanup folder '%s'."; never throws.
void RemoveWorkFolder(std::wstring_view token, bool perUser);

// True when `folder` exists as a real folder: opened, and the handle is no
// reparse point. Every tree walk and removal asks this of its root first.
bool IsRealFolder(std::wstring_view folder);

}  // namespace setup
