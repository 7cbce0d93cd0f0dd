#pragma once
// The registry operations the actions use. A key carries its view: callers
// pass kView64 or kView32 (or kViewDefault) with every call, and it is ORed
// into the access asked for. Missing keys and values are results, not
// exceptions; other failures throw setup::Exception with the texts given.

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <string_view>
#include <vector>

#include "actions/registry/registry_value.h"
#include "runtime/unique_handle.h"
#include "runtime/win32.h"

namespace setup {

HKEY RootHandle(int root);  // any number but 0..3 is HKEY_LOCAL_MACHINE
// True when this process runs under WOW64 (IsWow64Process looked up at run time).
bool IsWow64();

// Creates the key as needed and sets the value. Throws "Failed to create
// registry key '<key>'." or "Failed to write registry value: Key '<key>',
// Name '<name>'."; logs "Write registry value: Key '%s', Name '%s', Value '%s'."
// (the value as "***" when `secret`).
void WriteValue(int root, std::wstring_view key, const RegistryValue& value, std::uint32_t view,
                bool secret = false);

// Writes a REG_SZ value, creating the key as needed, without logging its
// data (records that are long or hold old values: the caller logs what it
// records). Throws as WriteValue.
void WriteTextValue(int root, std::wstring_view key, std::wstring_view name, std::wstring_view text,
                    std::uint32_t view);
// The text of a REG_SZ value; nothing when it is missing or of another type.
std::optional<std::wstring> ReadTextValue(int root, std::wstring_view key, std::wstring_view name,
                                          std::uint32_t view);

// The value, or nothing when the key or the value does not exist. Throws
// "Failed to read registry value: Key '<key>', Name '<name>'." otherwise.
std::optional<RegistryValue> ReadValue(int root, std::wstring_view key, std::wstring_view name,
                                       std::uint32_t view);

// Deletes the value; a missing value is not an error. Logs "Remove registry
// value: Key '%s', Name '%s'.", or the failure (a missing key included: "Failed
// to open registry key '%s'. Error 0x%x."), never throws.
void DeleteValue(int root, std::wstring_view key, std::wstring_view name, std::uint32_t view);

// Creates the key (and the keys above it) as needed. Throws "Failed to create
// registry key '<key>'."; logs "Create registry key '%s'.".
void CreateKey(int root, std::wstring_view key, std::uint32_t view);

// Deletes one key without subkeys (RegDeleteKeyExW, looked up at run time, so
// that the view reaches the deletion too). The Win32 status; never throws.
LONG DeleteKey(int root, std::wstring_view key, std::uint32_t view);

// Deletes the key and everything below it. A missing key is no failure; other
// failures are logged. The Win32 status of the last deletion; never throws.
LONG RemoveKeyTree(int root, std::wstring_view key, std::uint32_t view);

// Deletes the key when it holds neither values nor subkeys, then its parent
// on the same terms, and so on up to the top-level key under the root; logs
// each step and stops at the first key in use. `keep`: the number of leading
// components that are never deleted (0: none). Never throws.
void RemoveEmptyKeys(int root, std::wstring_view key, std::uint32_t view, int keep = 0, bool quiet = false);

// Names of the key's subkeys, in index order. Throws "Failed to get registry
// subkeys. Can't open registry key <key>" or "... Can't enumerate subkeys of key <key>".
std::vector<std::wstring> GetSubkeys(int root, std::wstring_view key, std::uint32_t view);

// The key's values with their types and data, in index order. Throws "Failed
// to get registry values. ..." texts with the key.
std::vector<RegistryValue> GetValues(int root, std::wstring_view key, std::uint32_t view);

// The key and every key below it, depth first, as full paths; empty when the
// key does not exist. Throws "Failed to open registry key <key>" otherwise.
std::vector<std::wstring> CollectKeyTree(int root, std::wstring_view key, std::uint32_t view);

// How many leading components of `key` exist: KeyDepth(key) when the key does.
int ExistingDepth(int root, std::wstring_view key, std::uint32_t view);

// Every registry call of an action is a round trip to the system (under Wine,
// to its server), so the classes below serve a run of rows through one open
// key instead of an open, the call and a close for each row.

// Reads the registry as it stands at one moment, the capture before a change:
// each key is opened once (for reading) and held while the reader lives. As
// ExistingDepth and ReadValue, with the same texts.
class RegistrySnapshotReader {
public:
    int ExistingDepth(int root, std::wstring_view key, std::uint32_t view);
    std::optional<RegistryValue> Value(int root, std::wstring_view key, std::wstring_view name, std::uint32_t view);

private:
    struct Opened {
        LONG status = ERROR_SUCCESS;
        RegistryKey handle;
        int depth = -1;  // not asked yet
    };
    static constexpr std::size_t kMaxOpenKeys = 1024;
    Opened& Open(int root, std::wstring_view key, std::uint32_t view);
    std::map<std::tuple<int, std::wstring, std::uint32_t>, Opened, std::less<>> keys_;
};

// The key a run of rows goes through: its name and, while open, its handle.
class OpenKeyRun {
public:
    // True when the key is (root, key, view) and open; otherwise closes the
    // handle and names the new key, for the caller to open.
    bool Continues(int root, std::wstring_view key, std::uint32_t view);
    RegistryKey handle;
    std::wstring key;
    int root = 0;
    std::uint32_t view = 0;
};

// Writes values as WriteValue does, keeping the last key open for the next
// value of the same key.
class RegistryValueWriter {
public:
    void Write(int root, std::wstring_view key, const RegistryValue& value, std::uint32_t view, bool secret = false);

private:
    OpenKeyRun run_;
    bool quiet_;
};

// Removes values as DeleteValue followed by RemoveEmptyKeys(keep) does, with
// the same log lines, keeping the last key open for the next value of the same
// key. Close() before anything else changes the keys. Never throws.
class RegistryValueRemover {
public:
    // `quiet`: rollback's remover. A key that does not exist holds nothing to
    // take back (the step it would undo never ran): no line, no clean-up.
    explicit RegistryValueRemover(bool quiet = false) : quiet_(quiet) {}
    void Remove(int root, std::wstring_view key, std::wstring_view name, std::uint32_t view, int keep);
    void Close() { run_.handle.Reset(); }

private:
    OpenKeyRun run_;
    bool quiet_;
};

}  // namespace setup
