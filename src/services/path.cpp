#include "services/path.h"

namespace setup {

std::wstring DirectoryOf(std::wstring_view path) {
    const std::size_t last = path.find_last_of(L"\\/");
    return last == std::wstring_view::npos ? std::wstring() : std::wstring(path.substr(0, last));
}

std::wstring JoinPath(std::wstring_view directory, std::wstring_view name) {
    std::wstring joined(directory);
    if (!directory.empty() && !name.empty() && directory.back() != L'\\' && directory.back() != L'/') {
        joined.push_back(L'\\');
    }
    joined.append(name);
    return joined;
}

}  // namespace setup
