#include "actions/registry/registry_value.h"

#include <algorithm>

#include <cwctype>
#include <utility>

#include "runtime/exception.h"
#include "runtime/format.h"

namespace setup {

namespace {

constexpr const wchar_t* kLongNames[] = {L"HKEY_CLASSES_ROOT", L"HKEY_CURRENT_USER", L"HKEY_LOCAL_MACHINE",
                                         L"HKEY_USERS"};
constexpr const wchar_t* kShortNames[] = {L"CLASSES_ROOT", L"CURRENT_USER", L"MACHINE", L"USERS"};

// In ascending case-sensitive order of the prefix: the order of the walk.
constexpr std::pair<std::wstring_view, std::wstring_view> kRedirect32[] = {
    {L"HKEY_CLASSES_ROOT\\AppID\\", L"HKEY_CLASSES_ROOT\\Wow6432Node\\AppID\\"},
    {L"HKEY_CLASSES_ROOT\\CLSID\\", L"HKEY_CLASSES_ROOT\\Wow6432Node\\CLSID\\"},
    {L"HKEY_CLASSES_ROOT\\Interface\\", L"HKEY_CLASSES_ROOT\\Wow6432Node\\Interface\\"},
    {L"HKEY_CLASSES_ROOT\\TypeLib\\", L"HKEY_CLASSES_ROOT\\Wow6432Node\\TypeLib\\"},
    {L"HKEY_CURRENT_USER\\SOFTWARE\\", L"HKEY_CURRENT_USER\\SOFTWARE\\Wow6432Node\\"},
    {L"HKEY_LOCAL_MACHINE\\SOFTWARE\\", L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Wow6432Node\\"},
};
constexpr std::pair<std::wstring_view, std::wstring_view> kObjectNames[] = {
    {L"CLASSES_ROOT\\AppID\\", L"AppID\\"},       {L"CLASSES_ROOT\\CLSID\\", L"CLSID\\"},
    {L"CLASSES_ROOT\\Interface\\", L"Interface\\"}, {L"CLASSES_ROOT\\TypeLib\\", L"TypeLib\\"},
    {L"CURRENT_USER\\SOFTWARE\\", L"SOFTWARE\\"},   {L"MACHINE\\SOFTWARE\\", L"SOFTWARE\\"},
    {L"USERS\\SOFTWARE\\", L"SOFTWARE\\"},
};

template <std::size_t N>
std::wstring Walk(std::wstring_view path, const std::pair<std::wstring_view, std::wstring_view> (&table)[N]) {
    std::wstring text(path);
    for (const auto& [prefix, replacement] : table) {
        if (text.compare(0, prefix.size(), prefix) == 0) text.replace(0, prefix.size(), replacement);
    }
    return text;
}

std::uint64_t LittleEndian(const std::vector<unsigned char>& data, std::size_t bytes) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < bytes; ++i) value |= static_cast<std::uint64_t>(data[i]) << (8 * i);
    return value;
}

}  // namespace

int KeyDepth(std::wstring_view key) {
    return key.empty() ? 0 : static_cast<int>(std::count(key.begin(), key.end(), L'\\')) + 1;
}

int NormalizeRoot(int root) { return root >= 0 && root <= 3 ? root : 2; }
std::wstring RootLongName(int root) { return kLongNames[NormalizeRoot(root)]; }
std::wstring RootShortName(int root) { return kShortNames[NormalizeRoot(root)]; }

int RootFromShortName(std::wstring_view name) {
    for (int root = 0; root < 4; ++root) {
        const std::wstring_view prefix = kShortNames[root];
        if (name.compare(0, prefix.size(), prefix) == 0) return root;
    }
    return 2;
}

std::wstring RedirectTo32(std::wstring_view path) { return Walk(path, kRedirect32); }
std::wstring ObjectNameToSubkey(std::wstring_view name) { return Walk(name, kObjectNames); }

std::int32_t BytesToInteger(const std::vector<unsigned char>& data, LogSink* log) {
    if (data.size() < 4) {
        if (log) log->Info(L"Incorrect data size %d.", static_cast<int>(data.size()));
        throw Exception(kInvalidArgument, L"Filed to convert registry bytes to integer.");
    }
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(LittleEndian(data, 4)));
}

std::uint64_t BytesToQword(const std::vector<unsigned char>& data, LogSink* log) {
    if (data.size() < 8) {
        if (log) log->Info(L"Incorrect data size %d.", static_cast<int>(data.size()));
        throw Exception(kInvalidArgument, L"Filed to convert registry bytes to qword.");
    }
    return LittleEndian(data, 8);
}

std::vector<unsigned char> QwordBytes(std::uint64_t value) {
    std::vector<unsigned char> bytes(8);
    for (std::size_t i = 0; i < 8; ++i) bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    return bytes;
}

std::vector<unsigned char> DwordBytes(std::uint32_t value) {
    std::vector<unsigned char> bytes(4);
    for (std::size_t i = 0; i < 4; ++i) bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    return bytes;
}

std::wstring RenderValue(const RegistryValue& value) {
    if ((value.type == kRegSz || value.type == kRegExpandSz || value.type == kRegMultiSz)) {
        std::wstring text;
        for (std::size_t i = 0; i + 1 < value.data.size(); i += 2) {
            const wchar_t c = static_cast<wchar_t>(value.data[i] | (value.data[i + 1] << 8));
            text.push_back(c == L'\0' ? L' ' : c);
        }
        while (!text.empty() && text.back() == L' ') text.pop_back();
        return text;
    }
    if (value.type == kRegDword && value.data.size() >= 4) return std::to_wstring(BytesToInteger(value.data));
    if (value.type == kRegQword && value.data.size() >= 8) return std::to_wstring(BytesToQword(value.data));
    std::wstring hex;
    for (const unsigned char b : value.data) hex += Format(L"%02x", static_cast<unsigned>(b));
    return hex;
}

std::optional<std::int64_t> ParseAuthorInteger(std::wstring_view text, std::int64_t min, std::uint64_t max,
                                               std::wstring& why) {
    std::size_t i = 0, end = text.size();
    while (i < end && std::iswspace(text[i])) ++i;
    while (end > i && std::iswspace(text[end - 1])) --end;
    bool negative = false;
    if (i < end && (text[i] == L'+' || text[i] == L'-')) negative = text[i++] == L'-';
    unsigned base = 10;
    if (end - i > 2 && text[i] == L'0' && (text[i + 1] == L'x' || text[i + 1] == L'X')) {
        base = 16;
        i += 2;
    }
    if (i == end) {
        why = L"it is not a number";
        return std::nullopt;
    }
    std::uint64_t magnitude = 0;
    for (; i < end; ++i) {
        const wchar_t c = text[i];
        unsigned digit = 16;
        if (c >= L'0' && c <= L'9') digit = c - L'0';
        else if (base == 16 && c >= L'a' && c <= L'f') digit = 10 + (c - L'a');
        else if (base == 16 && c >= L'A' && c <= L'F') digit = 10 + (c - L'A');
        if (digit >= base) {
            why = L"it is not a number";
            return std::nullopt;
        }
        if (magnitude > (UINT64_MAX - digit) / base) {
            why = L"it is out of range";
            return std::nullopt;
        }
        magnitude = magnitude * base + digit;
    }
    const std::uint64_t limit = negative ? static_cast<std::uint64_t>(-(min + 1)) + 1 : max;
    if (magnitude > limit || (negative && min >= 0 && magnitude != 0)) {
        why = L"it is out of range";
        return std::nullopt;
    }
    // A magnitude above INT64_MAX only reaches here for max > INT64_MAX: the
    // caller reads it back as unsigned.
    return negative ? static_cast<std::int64_t>(0 - magnitude) : static_cast<std::int64_t>(magnitude);
}

}  // namespace setup
