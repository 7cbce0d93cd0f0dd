#pragma once
// The registry as plain data: root numbers and their names, the 32-bit
// redirection of key paths, values as bytes with their type, and the
// conversions between integers, text and value bytes (portable).

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/log_sink.h"

namespace setup {

// Registry value types (winnt.h).
inline constexpr std::uint32_t kRegSz = 1, kRegExpandSz = 2, kRegBinary = 3, kRegDword = 4, kRegMultiSz = 7,
                               kRegQword = 11;

// View flags ORed into a key's access: the 64-bit or the 32-bit view.
inline constexpr std::uint32_t kViewDefault = 0, kView64 = 0x100, kView32 = 0x200;

struct RegistryValue {
    std::wstring name;  // empty: the default value
    std::uint32_t type = kRegSz;
    std::vector<unsigned char> data;
    bool operator==(const RegistryValue&) const = default;
};

// Root numbers as the installer's Root column has them: 0 HKEY_CLASSES_ROOT,
// 1 HKEY_CURRENT_USER, 2 HKEY_LOCAL_MACHINE, 3 HKEY_USERS; any other number
// is HKEY_LOCAL_MACHINE.
int NormalizeRoot(int root);
// Number of components of a key path.
int KeyDepth(std::wstring_view key);
std::wstring RootLongName(int root);   // "HKEY_LOCAL_MACHINE"
std::wstring RootShortName(int root);  // "MACHINE"
// The first of CLASSES_ROOT, CURRENT_USER, MACHINE, USERS that `name` begins
// with (case-sensitive); 2 when none.
int RootFromShortName(std::wstring_view name);

// A key path in long-name form, its prefix replaced by the 32-bit one (the
// Wow6432Node table, walked in ascending prefix order, case-sensitive).
std::wstring RedirectTo32(std::wstring_view path);
// A security object name in short-name form, turned into its subkey path.
std::wstring ObjectNameToSubkey(std::wstring_view name);

// The first 4 (8) bytes, little-endian. Fewer bytes log "Incorrect data
// size %d." (when a sink is given) and throw E_INVALIDARG "Filed to convert
// registry bytes to integer." ("... to qword.").
std::int32_t BytesToInteger(const std::vector<unsigned char>& data, LogSink* log = nullptr);
std::uint64_t BytesToQword(const std::vector<unsigned char>& data, LogSink* log = nullptr);
std::vector<unsigned char> QwordBytes(std::uint64_t value);
std::vector<unsigned char> DwordBytes(std::uint32_t value);
// `text` as REG_SZ data: UTF-16LE with its terminating NUL, appended to `bytes`.
void AppendUtf16(std::vector<unsigned char>& bytes, std::wstring_view text);

// A readable rendering of a value's data for the log: strings as text, numbers
// in decimal, anything else as hex bytes.
std::wstring RenderValue(const RegistryValue& value);

// An integer as package authors write it: blanks around it, an optional sign,
// decimal digits or "0x" and hexadecimal digits. Nothing when the text is not
// such a number or lies outside [min, max]; `why` then says what is wrong.
std::optional<std::int64_t> ParseAuthorInteger(std::wstring_view text, std::int64_t min, std::uint64_t max,
                                               std::wstring& why);

}  // namespace setup
