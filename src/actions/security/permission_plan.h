#pragma once
// Planning of the PermissionEx table (portable): which rows act, the merge of
// a row's entries into an object's descriptor, what uninstall takes back, and
// the texts the work keeps: the record of each row's capture and the data of
// the scheduled actions. Plain functions over plain data.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "actions/security/sddl.h"
#include "runtime/component_decision.h"
#include "runtime/log_sink.h"

namespace setup {

namespace permission {
// Attributes bits.
enum : int {
    Replace = 0x1,       // the row's entries replace the explicit ones
    Revoke = 0x2,        // the explicit entries of the row's accounts go instead
    Protect = 0x4,       // stop inheritance, the inherited entries kept as explicit ones
    Unprotect = 0x8,     // inherit again
    Owner = 0x10,        // also set the owner from O:
    Children = 0x20,     // the existing children of a folder or key receive the inheritable entries
    View64 = 0x40,       // registry keys: the 64-bit view
    Permanent = 0x80,    // uninstall leaves the change
    SkipMissing = 0x100, // a missing object is a logged skip
    RestoreExact = 0x200,  // uninstall puts back the exact earlier descriptor
};
inline constexpr int kKnownBits = 0x3FF;
enum ObjectType : int { File = 0, Folder = 1, RegistryKey = 2, Service = 3 };
}  // namespace permission

struct PermissionRow {
    std::wstring id;
    std::wstring component;
    int objectType = 0;
    std::wstring object;  // formatted
    int root = -1;        // registry keys: 0..3
    std::wstring sddl;    // formatted
    std::wstring condition;
    int attributes = 0;
};

// Why a row cannot act, or empty: its type, root, bits, and the parse of its
// SDDL (which must give a DACL, or an owner with 0x10).
std::wstring PermissionRowProblem(const PermissionRow& row);

// The decision for one row: install and reinstall rows (`uninstalling`
// false) or uninstall rows, as the other families decide.
Decision DecidePermission(ComponentStates& states, const PermissionRow& row, bool uninstalling, LogSink& log);

// The descriptor a row asks for, given what the object holds now: the row's
// entries merged in canonical order (explicit deny, explicit allow, inherited)
// or, by its bits, replacing the explicit ones, revoking its accounts',
// protecting or unprotecting, setting the owner. `added` receives the entries
// that were not there before (what uninstall takes back).
Sddl MergePermissions(const Sddl& current, const Sddl& row, int attributes, std::vector<SddlAce>* added);

// The row's entries as an existing child receives them from its parent, the
// way Windows propagates them: a container (a folder or key) gets the
// container-inherit entries (and object-inherit ones as inherit-only), a file
// the object-inherit ones; all marked inherited (ID), no further inheritance
// flags after NP.
std::vector<SddlAce> InheritedEntries(const Sddl& row, bool container);
// A child's descriptor with those entries among its inherited ones, first,
// unless it is protected or holds them already; `added` receives the new ones.
Sddl MergeInherited(const Sddl& child, const std::vector<SddlAce>& inherited, std::vector<SddlAce>* added);

// Uninstall's default: the entries the row added leave the descriptor as it
// stands now; whatever else changed since (an administrator's entry) stays.
Sddl TakeBackPermissions(const Sddl& current, const std::vector<SddlAce>& added);

// True when the DACL's entries are in canonical order.
bool CanonicalOrder(const std::vector<SddlAce>& dacl);

// What a row keeps on the machine between install and uninstall: the
// descriptor before the product (self-relative bytes, hex) and the entries it
// added. A repair keeps the first capture and adds what it added.
struct PermissionRecord {
    std::wstring original;  // hex
    std::vector<std::wstring> added;  // entry texts
    bool operator==(const PermissionRecord&) const = default;
};
std::wstring EncodePermissionRecord(const PermissionRecord& record);
PermissionRecord DecodePermissionRecord(std::wstring_view text);

// One object's work for the deferred and rollback actions.
struct PermissionItem {
    std::wstring id;
    int objectType = 0;
    std::wstring object;
    int root = -1;
    std::wstring sddl;  // the row's, accounts resolved to SIDs
    int attributes = 0;
    std::wstring run;  // a fresh name: what the run captured is kept under it
    std::optional<std::wstring> record;  // rollback: the record as it stood
    bool operator==(const PermissionItem&) const = default;
};

struct PermissionActionData {
    std::wstring product;
    bool uninstall = false;
    std::vector<PermissionItem> items;
};
std::wstring EncodePermissionActionData(const PermissionActionData& data);
PermissionActionData DecodePermissionActionData(std::wstring_view text);

std::wstring BytesToHex(const std::vector<unsigned char>& bytes);
std::vector<unsigned char> HexToBytes(std::wstring_view hex);

}  // namespace setup
