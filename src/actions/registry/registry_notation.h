#pragma once
// The notation of a RegistryEx `Value`, in the order it is recognised:
//   #x0A0B       binary (REG_BINARY), two hex digits per byte
//   #%text       expandable string (REG_EXPAND_SZ)
//   #t11:0011..  any type by its number, with its raw bytes in hex (what the
//                rollback data uses to put back a value exactly)
//   ##text       a string that begins with '#' (then as the two lines below)
//   #123         a number (REG_DWORD), unsigned decimal
//   a[~]b        a multi-string (REG_MULTI_SZ); an embedded NUL separates too
//   text         a string (REG_SZ)
// Both uses of it live here: the value a direct row writes, and the value
// line of a registry file (the text the registry editor imports). Portable.

#include <string>
#include <string_view>

#include "actions/registry/registry_value.h"

namespace setup {

// The registry allows value names of at most this many characters, and key
// names (each component of a path) of at most 255.
inline constexpr std::size_t kMaxValueName = 16383;
inline constexpr std::size_t kMaxKeyComponent = 255;
// The largest value data the library writes: a registry is no file store.
inline constexpr std::size_t kMaxValueBytes = 1024 * 1024;

// The value a direct row writes: name as given, type and bytes from the notation.
// Throws E_INVALIDARG "Failed to convert registry value to dword: <value>" (or
// "... to binary: ", "... to raw bytes: ") for a notation it cannot read.
RegistryValue ParseValueNotation(std::wstring_view name, std::wstring_view value);

// The notation that writes `value` back exactly (#t<type>:<hex>).
std::wstring RawValueNotation(const RegistryValue& value);

// The part of a registry-file value line after "=": "hex:0a,0b", "hex(2):...",
// "dword:0000007b", "hex(7):...", "hex(b):..." or a quoted string.
std::wstring RenderRegFileValue(std::wstring_view value);

// A name or a string in registry-file quotes: every backslash and double quote
// gets a backslash before it.
std::wstring QuoteRegFileString(std::wstring_view text);

// Why a row's key and name cannot be written, or empty text when they can: an
// empty key, a key with an empty component (a doubled, leading or trailing
// backslash), a component or a name longer than the registry allows, a key
// or a name holding CR, LF or NUL (a registry file would take it for lines of
// its own).
std::wstring RegistryPathProblem(std::wstring_view key, std::wstring_view name);

}  // namespace setup
