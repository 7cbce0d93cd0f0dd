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

namespace {

bool StartsWithFolded(std::wstring_view text, std::wstring_view prefix) {
    if (text.size() < prefix.size()) return false;
    for (std::size_t i = 0; i < prefix.size(); ++i) {
        if (std::towlower(text[i]) != std::towlower(prefix[i])) return false;
    }
    return true;
}

bool IsDevicePath(std::wstring_view text) {
    return StartsWithFolded(text, L"\\\\.\\") || StartsWithFolded(text, L"\\??\\") ||
           StartsWithFolded(text, L"\\\\?\\GLOBALROOT") || StartsWithFolded(text, L"//./");
}

// CON, PRN, AUX, NUL, COM1-9, LPT1-9, with or without an extension.
bool IsDeviceName(std::wstring_view component) {
    std::wstring_view stem = component.substr(0, component.find(L'.'));
    while (!stem.empty() && stem.back() == L' ') stem.remove_suffix(1);
    std::wstring lower = PathKey(stem);
    if (lower == L"con" || lower == L"prn" || lower == L"aux" || lower == L"nul" || lower == L"conin$" ||
        lower == L"conout$") {
        return true;
    }
    return lower.size() == 4 && (lower.starts_with(L"com") || lower.starts_with(L"lpt")) && lower[3] >= L'1' &&
           lower[3] <= L'9';
}

}  // namespace

std::wstring NormalizePath(std::wstring_view path) {
    if (IsDevicePath(path)) return std::wstring(path);
    std::wstring text;
    for (wchar_t c : path) text.push_back(c == L'/' ? L'\\' : c);
    if (StartsWithFolded(text, L"\\\\?\\UNC\\")) text = L"\\\\" + text.substr(8);
    else if (text.rfind(L"\\\\?\\", 0) == 0) text.erase(0, 4);
    std::wstring root;
    std::size_t at = 0;
    if (IsDriveAbsolute(text)) {
        root = text.substr(0, 2);
        at = 3;
    } else if (IsUncAbsolute(text)) {
        const std::size_t server = text.find(L'\\', 2);
        const std::size_t share = text.find(L'\\', server + 1);
        root = text.substr(0, share);
        at = share == std::wstring::npos ? text.size() : share + 1;
    } else {
        return std::wstring(path);
    }
    std::vector<std::wstring> parts;
    while (at < text.size()) {
        std::size_t end = text.find(L'\\', at);
        if (end == std::wstring::npos) end = text.size();
        std::wstring part = text.substr(at, end - at);
        at = end + 1;
        if (part == L"..") {
            if (!parts.empty()) parts.pop_back();
            continue;
        }
        while (!part.empty() && (part.back() == L'.' || part.back() == L' ')) part.pop_back();
        if (!part.empty()) parts.push_back(std::move(part));
    }
    std::wstring result = root;
    for (const std::wstring& part : parts) result += L"\\" + part;
    if (parts.empty() || text.back() == L'\\') result.push_back(L'\\');
    return result;
}

std::wstring ProtectedPathProblem(std::wstring_view path, const std::vector<std::wstring>& guarded) {
    const auto key = [](std::wstring_view p) {
        std::wstring k = PathKey(NormalizePath(p));
        while (k.size() > 1 && k.back() == L'\\') k.pop_back();
        return k;
    };
    const std::wstring mine = key(path);
    if (IsRootPath(mine)) return L"it is the root of a drive or share";
    for (const std::wstring& folder : guarded) {
        if (folder.empty()) continue;
        const std::wstring other = key(folder);
        if (other == mine) return L"it is a system folder (" + folder + L")";
        if (other.size() > mine.size() && other.compare(0, mine.size(), mine) == 0 && other[mine.size()] == L'\\') {
            return L"it holds a system folder (" + folder + L")";
        }
    }
    return {};
}

std::wstring PathProblem(std::wstring_view path) {
    if (IsDevicePath(path)) return L"it is a device path";
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
    for (std::size_t at = 0; at < rest.size();) {
        std::size_t end = rest.find_first_of(L"\\/", at);
        if (end == std::wstring_view::npos) end = rest.size();
        if (IsDeviceName(rest.substr(at, end - at))) {
            return L"it names the device '" + std::wstring(rest.substr(at, end - at)) + L"'";
        }
        at = end + 1;
    }
    return std::wstring();
}

}  // namespace setup
