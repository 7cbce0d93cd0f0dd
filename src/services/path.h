#pragma once
// Path text helpers shared by the file services (portable; no file system access).

#include <string>
#include <string_view>

namespace setup {

// Everything before the last '\' or '/'; empty when there is none.
std::wstring DirectoryOf(std::wstring_view path);
// `directory` and `name` joined by one '\': none is added when the directory
// already ends in a separator, or when either part is empty.
std::wstring JoinPath(std::wstring_view directory, std::wstring_view name);

// `path` in lower case: the form paths are compared and looked up in, as
// Windows file names ignore letter case.
std::wstring PathKey(std::wstring_view path);

// `path` (absolute) in the "\\\\?\\" form that lifts the MAX_PATH limit:
// separators as '\', "\\\\server\\share" as "\\\\?\\UNC\\server\\share"; a path
// already in that form stays as it is.
std::wstring LongPathForm(std::wstring_view path);

// True for the root of a drive ("C:", "C:\\") or of a share ("\\\\server",
// "\\\\server\\share"), also in the "\\\\?\\" forms and with trailing separators.
bool IsRootPath(std::wstring_view path);

// Why the library refuses to write, move or delete `path`, or empty when it
// may. A path must be absolute: a drive ("C:\\..." or "C:/...") or a UNC share
// ("\\\\server\\share\\..."), also in the "\\\\?\\" forms; a relative path would
// land wherever the installer's current folder happens to be. A double
// quote, '<', '>', '|', '*', '?' (after any "\\\\?\\" prefix) or a control
// character can never be part of a Windows path: such a path is malformed or
// an attempt to smuggle arguments into a command line.
std::wstring PathProblem(std::wstring_view path);

}  // namespace setup
