#include "services/path.h"

#include <cwctype>

#include "runtime/format.h"

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

std::wstring PathKey(std::wstring_view path) {
    std::wstring key;
    key.reserve(path.size());
    for (wchar_t c : path) key.push_back(static_cast<wchar_t>(std::towlower(c)));
    return key;
}

std::wstring LongPathForm(std::wstring_view path) {
    std::wstring text(path);
    for (wchar_t& c : text) {
        if (c == L'/') c = L'\\';
    }
    if (text.rfind(L"\\\\?\\", 0) == 0) return text;
    if (text.rfind(L"\\\\", 0) == 0) return L"\\\\?\\UNC\\" + text.substr(2);
    return L"\\\\?\\" + text;
}

namespace {

bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }
bool IsLetter(wchar_t c) { return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z'); }

// "X:\" with a separator after the colon.
bool IsDriveAbsolute(std::wstring_view p) { return p.size() >= 3 && IsLetter(p[0]) && p[1] == L':' && IsSeparator(p[2]); }

// "\\server\share" with both parts non-empty.
bool IsUncAbsolute(std::wstring_view p) {
    if (p.size() < 5 || !IsSeparator(p[0]) || !IsSeparator(p[1])) return false;
    const std::size_t server = p.find_first_of(L"\\/", 2);
    if (server == std::wstring_view::npos || server == 2) return false;
    return server + 1 < p.size() && !IsSeparator(p[server + 1]);
}

}  // namespace

bool IsRootPath(std::wstring_view path) {
    std::wstring text;
    for (wchar_t c : path) text.push_back(c == L'/' ? L'\\' : c);
    if (text.rfind(L"\\\\?\\UNC\\", 0) == 0 || text.rfind(L"\\\\?\\unc\\", 0) == 0) {
        text = L"\\\\" + text.substr(8);
    } else if (text.rfind(L"\\\\?\\", 0) == 0) {
        text.erase(0, 4);
    }
    while (text.size() > 2 && text.back() == L'\\') text.pop_back();
    if (text.size() == 2 && text[1] == L':') return true;
    if (text.rfind(L"\\\\", 0) != 0) return false;
    std::size_t separators = 0;
    for (std::size_t i = 2; i < text.size(); ++i) separators += text[i] == L'\\';
    return separators <= 1;
}

std::wstring PathProblem(std::wstring_view path) {
    std::wstring_view rest = path;
    bool absolute = false;
    constexpr std::wstring_view kLong = L"\\\\?\\";
    constexpr std::wstring_view kLongUnc = L"\\\\?\\UNC\\";
    if (rest.substr(0, kLongUnc.size()) == kLongUnc) {
        rest.remove_prefix(kLongUnc.size());
        absolute = IsUncAbsolute(std::wstring(L"\\\\").append(rest));
    } else if (rest.substr(0, kLong.size()) == kLong) {
        rest.remove_prefix(kLong.size());
        absolute = IsDriveAbsolute(rest);
    } else {
        absolute = IsDriveAbsolute(rest) || IsUncAbsolute(rest);
    }
    for (std::size_t i = 0; i < rest.size(); ++i) {
        const wchar_t c = rest[i];
        const bool driveColon = i == 1 && c == L':' && IsLetter(rest[0]);
        if (c < 32 || c == L'"' || c == L'<' || c == L'>' || c == L'|' || c == L'*' || c == L'?' ||
            (c == L':' && !driveColon)) {
            if (c < 32) return Format(L"it holds a control character (code %d), which no Windows path can hold", int{c});
            return std::wstring(L"it holds '") + c + L"', which no Windows path can hold";
        }
    }
    if (!absolute) return L"it is not an absolute path (a drive or a network share)";
    return std::wstring();
}

}  // namespace setup
