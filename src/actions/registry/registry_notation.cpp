#include "actions/registry/registry_notation.h"

#include <cwctype>
#include <utility>
#include <vector>

#include "runtime/exception.h"
#include "runtime/format.h"

namespace setup {

namespace {

enum class Notation { Binary, Expand, Raw, Number, Multi, String };

struct Parsed {
    Notation notation;
    std::wstring_view rest;  // the text after the marker
};

bool HasMultiSeparator(std::wstring_view text) {
    return text.find(L"[~]") != std::wstring_view::npos || text.find(L'\0') != std::wstring_view::npos;
}

Parsed Classify(std::wstring_view value) {
    if (value.starts_with(L"#x")) return {Notation::Binary, value.substr(2)};
    if (value.starts_with(L"#%")) return {Notation::Expand, value.substr(2)};
    if (value.starts_with(L"#t")) return {Notation::Raw, value.substr(2)};
    if (value.starts_with(L"##")) value.remove_prefix(1);
    else if (value.starts_with(L"#")) return {Notation::Number, value.substr(1)};
    return {HasMultiSeparator(value) ? Notation::Multi : Notation::String, value};
}

[[noreturn]] void Refuse(const wchar_t* what, std::wstring_view value) {
    throw Exception(kInvalidArgument, L"Failed to convert registry value to " + std::wstring(what) + L": " +
                                          std::wstring(value));
}

int HexDigit(wchar_t c) {
    if (c >= L'0' && c <= L'9') return c - L'0';
    if (c >= L'a' && c <= L'f') return 10 + (c - L'a');
    if (c >= L'A' && c <= L'F') return 10 + (c - L'A');
    return -1;
}

// Two digits per byte; an odd number of digits reads as if a zero stood in
// front ("0A0" is 00 A0), as the installer's own Registry table reads it.
std::vector<unsigned char> HexBytes(std::wstring_view digits, const wchar_t* what, std::wstring_view value) {
    std::vector<unsigned char> bytes;
    bytes.reserve(digits.size() / 2 + 1);
    int byte = 0;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        const int digit = HexDigit(digits[i]);
        if (digit < 0) Refuse(what, value);
        byte = byte * 16 + digit;
        if ((digits.size() - i) % 2 == 1) {  // the byte's low digit
            bytes.push_back(static_cast<unsigned char>(byte));
            byte = 0;
        }
    }
    return bytes;
}

// Unsigned-long parsing as the C library does it on Windows (32 bits): blanks,
// an optional sign (a minus wraps), the decimal digits that follow.
std::uint32_t ParseDword(std::wstring_view text, std::wstring_view value) {
    std::size_t i = 0;
    while (i < text.size() && std::iswspace(text[i])) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == L'+' || text[i] == L'-')) negative = text[i++] == L'-';
    std::uint64_t magnitude = 0;
    std::size_t digits = 0;
    for (; i < text.size() && text[i] >= L'0' && text[i] <= L'9'; ++i, ++digits) {
        magnitude = magnitude * 10 + static_cast<unsigned>(text[i] - L'0');
        if (magnitude > 0xFFFFFFFFull) {
            throw Exception(kInvalidArgument, L"Failed to convert registry value to dword: " + std::wstring(value) +
                                                  L" (stoul argument out of range)");
        }
    }
    if (digits == 0) {
        throw Exception(kInvalidArgument,
                        L"Failed to convert registry value to dword: " + std::wstring(value) + L" (invalid stoul argument)");
    }
    const auto result = static_cast<std::uint32_t>(magnitude);
    return negative ? 0u - result : result;
}

std::vector<std::wstring_view> MultiItems(std::wstring_view text) {
    std::vector<std::wstring_view> items;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= text.size();) {
        if (i == text.size()) {
            items.push_back(text.substr(start));
            break;
        }
        const std::size_t width = text[i] == L'\0' ? 1 : text.compare(i, 3, L"[~]") == 0 ? 3 : 0;
        if (width == 0) {
            ++i;
            continue;
        }
        items.push_back(text.substr(start, i - start));
        i += width;
        start = i;
    }
    return items;
}

std::vector<unsigned char> MultiBytes(std::wstring_view text) {
    std::vector<unsigned char> bytes;
    for (const std::wstring_view item : MultiItems(text)) AppendUtf16(bytes, item);
    bytes.push_back(0);
    bytes.push_back(0);
    return bytes;
}

std::wstring HexList(const std::vector<unsigned char>& bytes) {
    std::wstring text;
    text.reserve(bytes.size() * 3);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i) text.push_back(L',');
        text += Format(L"%02x", static_cast<unsigned>(bytes[i]));
    }
    return text;
}

// "#t<type>:<hex>": the type in decimal, then the bytes.
RegistryValue ParseRaw(std::wstring_view rest, std::wstring_view value) {
    const std::size_t colon = rest.find(L':');
    if (colon == 0 || colon == std::wstring_view::npos || colon > 10) Refuse(L"raw bytes", value);
    std::uint64_t type = 0;
    for (const wchar_t c : rest.substr(0, colon)) {
        if (c < L'0' || c > L'9') Refuse(L"raw bytes", value);
        type = type * 10 + static_cast<unsigned>(c - L'0');
    }
    if (type > 0xFFFFFFFFull) Refuse(L"raw bytes", value);
    RegistryValue raw;
    raw.type = static_cast<std::uint32_t>(type);
    raw.data = HexBytes(rest.substr(colon + 1), L"raw bytes", value);
    return raw;
}

}  // namespace

void AppendUtf16(std::vector<unsigned char>& bytes, std::wstring_view text) {
    for (const wchar_t c : text) {
        bytes.push_back(static_cast<unsigned char>(c & 0xFF));
        bytes.push_back(static_cast<unsigned char>((c >> 8) & 0xFF));
    }
    bytes.push_back(0);
    bytes.push_back(0);
}

RegistryValue ParseValueNotation(std::wstring_view name, std::wstring_view value) {
    const Parsed parsed = Classify(value);
    RegistryValue result;
    switch (parsed.notation) {
    case Notation::Binary:
        result.type = kRegBinary;
        result.data = HexBytes(parsed.rest, L"binary", value);
        break;
    case Notation::Expand:
        result.type = kRegExpandSz;
        AppendUtf16(result.data, parsed.rest);
        break;
    case Notation::Raw: result = ParseRaw(parsed.rest, value); break;
    case Notation::Number:
        result.type = kRegDword;
        result.data = DwordBytes(ParseDword(parsed.rest, value));
        break;
    case Notation::Multi:
        result.type = kRegMultiSz;
        result.data = MultiBytes(parsed.rest);
        break;
    case Notation::String:
        result.type = kRegSz;
        AppendUtf16(result.data, parsed.rest);
        break;
    }
    if (result.data.size() > kMaxValueBytes) {
        throw Exception(kInvalidArgument, Format(L"The registry value '%s' holds %u bytes: more than the %u a value may hold.",
                                                 std::wstring(name), result.data.size(), kMaxValueBytes));
    }
    result.name = std::wstring(name);
    return result;
}

std::wstring RawValueNotation(const RegistryValue& value) {
    std::wstring text = L"#t" + std::to_wstring(value.type) + L":";
    for (const unsigned char b : value.data) text += Format(L"%02x", static_cast<unsigned>(b));
    return text;
}

std::wstring QuoteRegFileString(std::wstring_view text) {
    std::wstring quoted = L"\"";
    quoted.reserve(text.size() + 2);
    for (const wchar_t c : text) {
        if (c == L'\\' || c == L'"') quoted.push_back(L'\\');
        quoted.push_back(c);
    }
    quoted.push_back(L'"');
    return quoted;
}

std::wstring RenderRegFileValue(std::wstring_view value) {
    const Parsed parsed = Classify(value);
    switch (parsed.notation) {
    case Notation::Binary: return L"hex:" + HexList(HexBytes(parsed.rest, L"binary", value));
    case Notation::Expand: {
        std::vector<unsigned char> bytes;
        AppendUtf16(bytes, parsed.rest);
        return L"hex(2):" + HexList(bytes);
    }
    case Notation::Raw: {
        const RegistryValue raw = ParseRaw(parsed.rest, value);
        if (raw.type == kRegDword && raw.data.size() == 4) return Format(L"dword:%08x", BytesToInteger(raw.data));
        return Format(L"hex(%x):", raw.type) + HexList(raw.data);
    }
    case Notation::Number: return Format(L"dword:%08x", ParseDword(parsed.rest, value));
    case Notation::Multi: return L"hex(7):" + HexList(MultiBytes(parsed.rest));
    case Notation::String: break;
    }
    // A quoted string ends at its line: one holding a line break (or any
    // control character) would carry lines of its own into the file.
    for (const wchar_t c : parsed.rest) {
        if (c < 0x20) {
            std::vector<unsigned char> bytes;
            AppendUtf16(bytes, parsed.rest);
            return L"hex(1):" + HexList(bytes);
        }
    }
    return QuoteRegFileString(parsed.rest);
}

std::wstring RegistryPathProblem(std::wstring_view key, std::wstring_view name) {
    if (key.empty()) return L"the key is empty";
    for (const auto& [what, text] : {std::pair{L"key", key}, std::pair{L"value name", name}}) {
        const std::size_t bad = text.find_first_of(std::wstring_view(L"\r\n\0", 3));
        if (bad != std::wstring_view::npos) {
            return Format(L"the %s holds a line break or NUL (code %d), which no registry file can carry", what,
                          int{text[bad]});
        }
    }
    std::size_t start = 0;
    while (start <= key.size()) {
        std::size_t end = key.find(L'\\', start);
        if (end == std::wstring_view::npos) end = key.size();
        if (end == start) return L"the key '" + std::wstring(key) + L"' has an empty component";
        if (end - start > kMaxKeyComponent) {
            return Format(L"a component of the key '%s' is longer than %u characters", std::wstring(key),
                          kMaxKeyComponent);
        }
        start = end + 1;
    }
    if (name.size() > kMaxValueName) {
        return Format(L"the value name is %u characters long, more than the %u the registry allows", name.size(),
                      kMaxValueName);
    }
    return {};
}

}  // namespace setup
