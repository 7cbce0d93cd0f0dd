#pragma once
// Path text helpers shared by the file services (portable; no file system access).

#include <string>
#include <string_view>
#include <vector>

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

// `path` as Windows resolves it (GetFullPathNameW's rules, without a current
// folder): '/' as '\\', the "\\\\?\\" forms read as the plain ones, empty and
// "." components dropped, ".." taking away the component before it (never the
// drive or share), trailing dots and blanks cut from each component. One
// trailing separator is kept. A relative path, or a device path ("\\\\.\\",
// "\\??\\"), comes back as it is: PathProblem refuses those. Every safety
// check works on this form, never on the text a row gave.
std::wstring NormalizePath(std::wstring_view path);

// Why a normalised `path` may not be a target that the library removes or
// replaces as a whole: the root of a drive or share, or one of `guarded`
// (the Windows folder, Program Files, profile roots) or a folder above one.
// Empty when it may.
std::wstring ProtectedPathProblem(std::wstring_view path, const std::vector<std::wstring>& guarded);

// Why the library refuses to write, move or delete `path`, or empty when it
// may. A device path ("\\\\.\\", "\\??\\", "\\\\?\\GLOBALROOT", a component
// named CON, NUL, COM1...) is refused. A path must be absolute: a drive ("C:\\..." or "C:/...") or a UNC share
// ("\\\\server\\share\\..."), also in the "\\\\?\\" forms; a relative path would
// land wherever the installer's current folder happens to be. A double
// quote, '<', '>', '|', '*', '?' (after any "\\\\?\\" prefix) or a control
// character can never be part of a Windows path: such a path is malformed or
// an attempt to smuggle arguments into a command line.
std::wstring PathProblem(std::wstring_view path);

}  // namespace setup
