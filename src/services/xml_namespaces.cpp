#include "services/xml_namespaces.h"

namespace setup {

namespace {

bool IsBlank(wchar_t c) { return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n'; }

}  // namespace

std::optional<std::wstring> SelectionNamespaces(std::wstring_view namespaces) {
    std::wstring result;
    std::size_t i = 0;
    while (i < namespaces.size()) {
        while (i < namespaces.size() && IsBlank(namespaces[i])) ++i;
        if (i == namespaces.size()) break;
        std::size_t end = i;
        while (end < namespaces.size() && !IsBlank(namespaces[end])) ++end;
        const std::wstring_view pair = namespaces.substr(i, end - i);
        const std::size_t equals = pair.find(L'=');
        if (equals == 0 || equals == std::wstring_view::npos || equals + 1 == pair.size() ||
            pair.find_first_of(L"'\"") != std::wstring_view::npos) {
            return std::nullopt;
        }
        if (!result.empty()) result += L' ';
        result += L"xmlns:" + std::wstring(pair.substr(0, equals)) + L"='" + std::wstring(pair.substr(equals + 1)) + L"'";
        i = end;
    }
    return result;
}

}  // namespace setup
