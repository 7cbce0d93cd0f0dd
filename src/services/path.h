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

}  // namespace setup
