#pragma once
// Security descriptors as SDDL text, taken apart and put together again
// (portable). The parts the merge works on are kept as text: the owner, the
// group, the DACL's flags and its entries. Entries of kinds the merge does not
// touch (object or conditional entries, say) travel as they were read.
//
// In a PermissionEx row an entry may name its account by SID string, by SDDL
// alias or by name ("Users", what [ACCOUNT_USERS] formats to); names are
// resolved by the installer side before anything else reads the text.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace setup {

struct SddlAce {
    std::wstring type;    // "A" allow, "D" deny, other kinds kept as read
    std::wstring flags;   // "OICI", "ID", ...
    std::wstring rights;  // "FA", "0x1200a9", ...
    std::wstring objectGuid;
    std::wstring inheritGuid;
    std::wstring account;  // SID string, alias, or (in a row) a name
    std::wstring rest;     // anything after the account (a condition), kept as is
    bool operator==(const SddlAce&) const = default;

    bool Inherited() const;  // flags hold "ID"
    std::wstring Text() const;
};

struct Sddl {
    std::wstring owner;  // empty: not given
    std::wstring group;
    bool hasDacl = false;
    std::wstring daclFlags;  // "P", "AI", "PAI", ...
    std::vector<SddlAce> dacl;
    std::wstring sacl;  // "S:..." as read, put back as is
    bool operator==(const Sddl&) const = default;

    std::wstring Text() const;
};

// The parts of `text`, or a reason it does not parse (`why`).
std::optional<Sddl> ParseSddl(std::wstring_view text, std::wstring* why = nullptr);

// A flag group such as "PAI" or "OICIID" split into its two-letter or
// one-letter flags ("P", "AI"; "OI", "CI", "ID").
bool HasFlag(std::wstring_view flags, std::wstring_view flag);
std::wstring WithoutFlag(std::wstring_view flags, std::wstring_view flag);

}  // namespace setup
