#pragma once
// The registry operations the actions use. A key carries its view: callers
// pass kView64 or kView32 (or kViewDefault) with every call, and it is ORed
// into the access asked for. Missing keys and values are results, not
// exceptions; other failures throw setup::Exception with the texts given.

#include <optional>
#include <string>
#include <string_view>

#include "actions/registry/registry_value.h"
#include "runtime/win32.h"

namespace setup {

HKEY RootHandle(int root);  // any number but 0..3 is HKEY_LOCAL_MACHINE
// True when this process runs under WOW64 (IsWow64Process looked up at run time).
bool IsWow64();

// Creates the key as needed and sets the value. Throws "Failed to create
// registry key '<key>'." or "Failed to write registry value: Key '<key>',
// Name '<name>'."; logs "Write registry value: Key '%s', Name '%s', Value '%s'.".
void WriteValue(int root, std::wstring_view key, const RegistryValue& value, std::uint32_t view);

// The value, or nothing when the key or the value does not exist. Throws
// "Failed to read registry value: Key '<key>', Name '<name>'." otherwise.
std::optional<RegistryValue> ReadValue(int root, std::wstring_view key, std::wstring_view name,
                                       std::uint32_t view);

// Deletes the value; a missing key or value is not an error. Logs
// "Remove registry value: Key '%s', Name '%s'." or the failure, never throws.
void DeleteValue(int root, std::wstring_view key, std::wstring_view name, std::uint32_t view);

}  // namespace setup
