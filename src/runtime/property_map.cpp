#include "runtime/property_map.h"

#include <climits>

namespace setup {

namespace {

// Appends `value` with every `separator` doubled; copies whole runs between
// separators instead of going character by character.
void AppendEscaped(std::wstring& out, std::wstring_view value, wchar_t separator) {
    std::size_t start = 0;
    for (;;) {
        const std::size_t hit = value.find(separator, start);
        if (hit == std::wstring_view::npos) {
            out.append(value.substr(start));
            return;
        }
        out.append(value.substr(start, hit + 1 - start));
        out.push_back(separator);
        start = hit + 1;
    }
}

// `escaped` with every doubled separator turned back into one.
std::wstring Unescape(std::wstring_view escaped, wchar_t separator) {
    std::size_t hit = escaped.find(separator);
    if (hit == std::wstring_view::npos) return std::wstring(escaped);
    std::wstring out;
    out.reserve(escaped.size());
    std::size_t start = 0;
    while (hit != std::wstring_view::npos) {
        out.append(escaped.substr(start, hit + 1 - start));
        // Inside an entry separators come in pairs; skip the second of the pair.
        start = hit + 1 < escaped.size() && escaped[hit + 1] == separator ? hit + 2 : hit + 1;
        hit = escaped.find(separator, start);
    }
    out.append(escaped.substr(start < escaped.size() ? start : escaped.size()));
    return out;
}

}  // namespace

void PropertyMap::Set(std::wstring_view key, std::wstring_view value) {
    if (key.empty()) return;
    auto it = entries_.find(key);
    if (it != entries_.end()) {
        it->second.assign(value);
    } else {
        entries_.emplace(std::wstring(key), std::wstring(value));
    }
}

void PropertyMap::Set(std::wstring_view key, int value) { Set(key, std::to_wstring(value)); }

std::wstring PropertyMap::Get(std::wstring_view key) const {
    auto it = entries_.find(key);
    return it == entries_.end() ? std::wstring() : it->second;
}

std::wstring_view PropertyMap::View(std::wstring_view key) const {
    auto it = entries_.find(key);
    return it == entries_.end() ? std::wstring_view() : std::wstring_view(it->second);
}

int PropertyMap::GetInteger(std::wstring_view key) const {
    auto it = entries_.find(key);
    return it == entries_.end() ? 0 : ParseInteger(it->second);
}

int ParseInteger(std::wstring_view text) {
    std::size_t i = 0;
    while (i < text.size() && (text[i] == L' ' || text[i] == L'\t')) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == L'-' || text[i] == L'+')) negative = text[i++] == L'-';
    long long value = 0;
    for (; i < text.size() && text[i] >= L'0' && text[i] <= L'9'; ++i) {
        value = value * 10 + (text[i] - L'0');
        if (value > static_cast<long long>(INT_MAX) + 1) break;  // saturate below
    }
    if (negative) value = -value;
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

std::wstring Encode(const PropertyMap& map, wchar_t pairSeparator, wchar_t keyValueSeparator) {
    std::size_t size = 0;
    for (const auto& [key, value] : map.AllEntries()) size += key.size() + value.size() + 2;
    std::wstring out;
    out.reserve(size + size / 64);
    bool first = true;
    for (const auto& [key, value] : map.AllEntries()) {
        if (!first) out.push_back(pairSeparator);
        first = false;
        out.append(key);
        out.push_back(keyValueSeparator);
        AppendEscaped(out, value, pairSeparator);
    }
    return out;
}

PropertyMap Decode(std::wstring_view text, wchar_t pairSeparator, wchar_t keyValueSeparator) {
    PropertyMap map;
    std::size_t start = 0;
    while (start < text.size()) {
        // The entry ends at the first separator that is not doubled.
        std::size_t end = text.find(pairSeparator, start);
        while (end != std::wstring_view::npos && end + 1 < text.size() && text[end + 1] == pairSeparator) {
            end = text.find(pairSeparator, end + 2);
        }
        if (end == std::wstring_view::npos) end = text.size();
        const std::wstring_view entry = text.substr(start, end - start);
        const std::size_t split = entry.find(keyValueSeparator);
        if (split == std::wstring_view::npos) {
            map.Set(entry, std::wstring_view());
        } else if (split > 0) {
            map.Set(entry.substr(0, split), Unescape(entry.substr(split + 1), pairSeparator));
        }
        start = end + 1;
    }
    return map;
}

}  // namespace setup
