#pragma once
// Planning of the RegistryEx table: the reading rules, the install and
// uninstall decisions, the rows a direct write or removal carries, the
// rollback rows that put the registry back as it was, and the text of the
// registry files. Plain functions over plain data; the actions feed them the
// rows, the component states and the registry as it stands.

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "actions/registry/registry_value.h"
#include "runtime/component_decision.h"
#include "runtime/log_sink.h"

namespace setup {

// Attributes bits.
inline constexpr int kRegExDeleteOnInstall = 1;  // also: a removal row in action data
inline constexpr int kRegExWin64 = 2;
inline constexpr int kRegExKeyRow = 8;
inline constexpr int kRegExDisableRollback = 16;

struct RegistryExRow {
    std::wstring id;
    std::wstring file;  // empty: written directly
    int root = 0;
    std::wstring key;
    std::wstring name;
    std::wstring value;  // in the notation of registry_notation.h
    std::wstring component;
    int attributes = 0;
    std::wstring condition;
    ComponentState state;  // filled in after reading
    // Rollback removals only: how many leading components of the key existed
    // before; the clean-up of empty keys stops there. 0: no limit.
    int keep = 0;
    // Its key, name or value holds a hidden property's value: no line of the
    // deferred side shows the value, and the data travels hidden.
    bool secret = false;
    bool operator==(const RegistryExRow&) const = default;
};

// The view flag of a row: its Win64 bit gives the 64-bit view.
std::uint32_t RowView(const RegistryExRow& row);

// What a row stands for besides a value: a key (empty Name and Value, or a
// key marker "+", "-", "*" as Name with an empty Value).
enum class KeyMarker { None, Key, Create, Remove, CreateAndRemove };
KeyMarker RowKeyMarker(const RegistryExRow& row);

// How the table is read: properties and the machine, asked once per action.
struct RegistryExReading {
    bool system64 = true;   // false: Win64 bits are cleared
    bool wow64 = false;     // a 32-bit process on a 64-bit system
    std::wstring withoutRollback;  // RegFileComponentsWithoutRollback
    bool ignoreFile = false;       // IgnoreRegistryExFileAttribute is set
    std::wstring forceInstall;     // ForceInstallRegFileComponents
};

// The lines logged before the first row ("Wow64 redirection ...", the File override).
void LogRegistryExReading(const RegistryExReading& reading, LogSink& log);
// The per-row rules (Win64 on a 32-bit system, DisableRollback by component,
// File cleared), with their lines and the row's "successfully read" line.
void ApplyReadingRules(RegistryExRow& row, const RegistryExReading& reading, LogSink& log);
// ForceInstallRegFileComponents names the component (substring search) and
// its action is not absent: it is installed as if its action were local.
bool ForcedToInstall(std::wstring_view forceInstall, std::wstring_view component, const ComponentState& state);
// Each component's states, asked once, logged, forced to local by
// ForceInstallRegFileComponents, copied into its rows.
void ResolveComponentStates(std::vector<RegistryExRow>& rows, ComponentStates& states, std::wstring_view forceInstall,
                            LogSink& log);

bool DecideRegistryInstall(const RegistryExRow& row, ComponentStates& states, LogSink& log);
// The located state of a component on the machine, for any product (installer
// states; 3 or more: present).
using LocatedState = std::function<int(const std::wstring& component)>;

// The rows to install, in table order, each with its direct-or-file line.
// Direct rows whose value, key or root cannot be written fail here, naming the row.
std::vector<RegistryExRow> PlanRegistryInstall(const std::vector<RegistryExRow>& rows, ComponentStates& states,
                                               LogSink& log);
// The rows to uninstall, in table order: the decision with its shared-value
// check across rows of the same key and name.
std::vector<RegistryExRow> PlanRegistryUninstall(const std::vector<RegistryExRow>& rows, ComponentStates& states,
                                                 const LocatedState& located, LogSink& log);

// The direct work of a row: a write (install) or a removal (uninstall), as
// the deferred action applies it. Nothing for a row that has no direct work
// (a "-" key on install).
std::optional<RegistryExRow> InstallWork(const RegistryExRow& row);
RegistryExRow UninstallWork(const RegistryExRow& row);

// The registry as the rollback capture sees it.
class RegistryReader {
public:
    virtual ~RegistryReader() = default;
    // How many leading components of `key` exist (all of them: the key exists).
    virtual int ExistingDepth(int root, const std::wstring& key, std::uint32_t view) = 0;
    virtual std::optional<RegistryValue> Value(int root, const std::wstring& key, const std::wstring& name,
                                               std::uint32_t view) = 0;
    // The key and every key below it, each with its values (depth first).
    virtual std::vector<std::pair<std::wstring, std::vector<RegistryValue>>> Tree(int root, const std::wstring& key,
                                                                                   std::uint32_t view) = 0;
};

// The rows that undo `work` (a write or a removal of InstallWork/UninstallWork),
// from the registry's present state; logs the "is not exist" lines.
std::vector<RegistryExRow> CaptureRollback(const RegistryExRow& work, RegistryReader& registry, LogSink& log);

// Action data of the four direct actions: the rows under "rows".
std::wstring EncodeRegistryRows(const std::vector<RegistryExRow>& rows);
std::vector<RegistryExRow> DecodeRegistryRows(std::wstring_view text);
// Why a decoded row cannot be applied, or empty text.
std::wstring RegistryRowProblem(const RegistryExRow& row);

// The text of one registry file: the last installed version (empty when there
// is none) with the rows merged in (a row replaces the line of the same key and
// name; a key removal drops the key's old lines). Keys in key order, values in
// name order. `redirect32`: keys of rows without Win64 get their 32-bit path.
std::wstring RegFileText(const std::vector<RegistryExRow>& rows, bool redirect32, std::wstring_view lastVersion);

}  // namespace setup
