#include "actions/security/permission_plan.h"

#include <algorithm>

#include "runtime/action_data.h"
#include "runtime/format.h"

namespace setup {

using namespace permission;

namespace {

bool IsDeny(const SddlAce& ace) { return ace.type == L"D"; }

// An explicit entry equal to `ace` but for the order of nothing: same kind,
// flags, rights and account.
bool SameEntry(const SddlAce& a, const SddlAce& b) {
    return a.type == b.type && a.flags == b.flags && a.rights == b.rights && a.objectGuid == b.objectGuid &&
           a.inheritGuid == b.inheritGuid && a.account == b.account && a.rest == b.rest;
}

// Where an explicit entry goes in canonical order: denies after the explicit
// denies, allows (and other kinds) after every explicit entry.
std::size_t InsertionPoint(const std::vector<SddlAce>& dacl, const SddlAce& ace) {
    std::size_t at = 0;
    while (at < dacl.size() && !dacl[at].Inherited() && (!IsDeny(ace) || IsDeny(dacl[at]))) ++at;
    return at;
}

}  // namespace

std::wstring PermissionRowProblem(const PermissionRow& row) {
    if (row.objectType < File || row.objectType > Service) {
        return Format(L"the object type %d is none of 0 (file), 1 (folder), 2 (registry key), 3 (service)",
                      row.objectType);
    }
    if (row.objectType == RegistryKey && (row.root < 0 || row.root > 3)) {
        return Format(L"the root %d is none of 0 (HKEY_CLASSES_ROOT), 1 (HKEY_CURRENT_USER), 2 "
                      L"(HKEY_LOCAL_MACHINE), 3 (HKEY_USERS)", row.root);
    }
    if (row.attributes & ~kKnownBits) return Format(L"the attributes %d hold bits the library does not know", row.attributes);
    if ((row.attributes & Children) && row.objectType != Folder && row.objectType != RegistryKey) {
        return L"existing children (0x20) belong to a folder or a registry key only";
    }
    if ((row.attributes & Protect) && (row.attributes & Unprotect)) return L"it both protects (0x4) and unprotects (0x8)";
    if ((row.attributes & Replace) && (row.attributes & Revoke)) return L"it both replaces (0x1) and revokes (0x2)";
    if (row.object.empty()) return L"the object is empty";
    std::wstring why;
    const std::optional<Sddl> sddl = ParseSddl(row.sddl, &why);
    if (!sddl) return L"the SDDL '" + row.sddl + L"' does not parse: " + why;
    if (!sddl->hasDacl && !((row.attributes & Owner) && !sddl->owner.empty())) {
        return L"the SDDL '" + row.sddl + L"' gives no DACL (D:)" +
               ((row.attributes & Owner) ? L" and no owner (O:)" : L"");
    }
    if ((row.attributes & Owner) && sddl->owner.empty()) return L"0x10 sets the owner, but the SDDL has no O:";
    if (row.objectType == File || row.objectType == Service) {
        for (const SddlAce& ace : sddl->dacl) {
            if (HasFlag(ace.flags, L"OI") || HasFlag(ace.flags, L"CI") || HasFlag(ace.flags, L"IO")) {
                return L"the entry " + ace.Text() + L" carries inheritance flags, which a " +
                       (row.objectType == File ? L"file" : L"service") + L" has no children to pass on to";
            }
        }
    }
    return {};
}

Decision DecidePermission(ComponentStates& states, const PermissionRow& row, bool uninstalling, LogSink& log) {
    const DecisionRule rule = uninstalling ? kStandardUninstall : kStandardInstall;
    const auto text = [&](const Decision& d) -> std::wstring {
        switch (d.verdict) {
        case Verdict::NullAction: return Format(L"Skip permissions '%s' for null-action component.", row.id);
        case Verdict::NotMarked: return {};
        case Verdict::FileAbsent:
            return Format(L"Skip permissions '%s'. Component action is FileAbsent.", row.id);
        case Verdict::ConditionFailed: return Format(L"Skip permissions '%s'. Condition is '%d'.", row.id, d.condition);
        case Verdict::Chosen:
            return Format(L"Need to %s permissions '%s' of '%s'. Component to do %d.",
                          uninstalling ? L"take back" : L"apply", row.id, row.object, static_cast<int>(d.task));
        }
        return {};
    };
    return DecideRow(states, rule, row.component, row.condition, text, log);
}

Sddl MergePermissions(const Sddl& current, const Sddl& row, int attributes, std::vector<SddlAce>* added) {
    Sddl merged = current;
    if ((attributes & Owner) && !row.owner.empty()) merged.owner = row.owner;
    if (!row.hasDacl) return merged;
    merged.hasDacl = true;
    if (attributes & Protect) {
        merged.daclFlags = L"P" + WithoutFlag(merged.daclFlags, L"P");
        for (SddlAce& ace : merged.dacl) ace.flags = WithoutFlag(ace.flags, L"ID");
    }
    if (attributes & Unprotect) merged.daclFlags = WithoutFlag(merged.daclFlags, L"P");
    if (attributes & Revoke) {
        std::erase_if(merged.dacl, [&](const SddlAce& ace) {
            return !ace.Inherited() && std::any_of(row.dacl.begin(), row.dacl.end(),
                                                   [&](const SddlAce& r) { return r.account == ace.account; });
        });
        return merged;
    }
    if (attributes & Replace) std::erase_if(merged.dacl, [](const SddlAce& ace) { return !ace.Inherited(); });
    for (const SddlAce& ace : row.dacl) {
        const bool present = std::any_of(merged.dacl.begin(), merged.dacl.end(),
                                         [&](const SddlAce& e) { return !e.Inherited() && SameEntry(e, ace); });
        if (present) continue;
        merged.dacl.insert(merged.dacl.begin() + static_cast<std::ptrdiff_t>(InsertionPoint(merged.dacl, ace)), ace);
        if (added) added->push_back(ace);
    }
    return merged;
}

std::vector<SddlAce> InheritedEntries(const Sddl& row, bool container) {
    std::vector<SddlAce> entries;
    for (const SddlAce& ace : row.dacl) {
        const bool oi = HasFlag(ace.flags, L"OI"), ci = HasFlag(ace.flags, L"CI"), np = HasFlag(ace.flags, L"NP");
        SddlAce child = ace;
        if (!container) {
            if (!oi) continue;
            child.flags = L"ID";
        } else if (ci) {
            child.flags = np ? L"ID" : std::wstring(oi ? L"OI" : L"") + L"CIID";
        } else if (oi && !np) {
            child.flags = L"OIIOID";
        } else {
            continue;
        }
        entries.push_back(std::move(child));
    }
    return entries;
}

Sddl MergeInherited(const Sddl& child, const std::vector<SddlAce>& inherited, std::vector<SddlAce>* added) {
    Sddl merged = child;
    if (HasFlag(merged.daclFlags, L"P")) return merged;
    std::size_t at = 0;
    while (at < merged.dacl.size() && !merged.dacl[at].Inherited()) ++at;
    for (const SddlAce& ace : inherited) {
        if (std::any_of(merged.dacl.begin(), merged.dacl.end(), [&](const SddlAce& e) { return SameEntry(e, ace); })) {
            continue;
        }
        merged.dacl.insert(merged.dacl.begin() + static_cast<std::ptrdiff_t>(at++), ace);
        if (added) added->push_back(ace);
    }
    return merged;
}

Sddl TakeBackPermissions(const Sddl& current, const std::vector<SddlAce>& added) {
    Sddl result = current;
    for (const SddlAce& ace : added) {
        // The flags tell an explicit entry from an inherited one (ID).
        const auto it = std::find_if(result.dacl.begin(), result.dacl.end(),
                                     [&](const SddlAce& e) { return SameEntry(e, ace); });
        if (it != result.dacl.end()) result.dacl.erase(it);
    }
    return result;
}

bool CanonicalOrder(const std::vector<SddlAce>& dacl) {
    int stage = 0;  // 0 explicit deny, 1 explicit other, 2 inherited
    for (const SddlAce& ace : dacl) {
        const int kind = ace.Inherited() ? 2 : IsDeny(ace) ? 0 : 1;
        if (kind < stage) return false;
        stage = kind;
    }
    return true;
}

std::wstring EncodePermissionRecord(const PermissionRecord& record) {
    PropertyMap map;
    map.Set(L"original", record.original);
    map.Set(L"added", EncodeTextList(record.added));
    return EncodeActionData(map);
}

PermissionRecord DecodePermissionRecord(std::wstring_view text) {
    const PropertyMap map = DecodeActionData(text);
    return {map.Get(L"original"), DecodeTextList(map.View(L"added"))};
}

std::wstring EncodePermissionActionData(const PermissionActionData& data) {
    std::vector<PropertyMap> items;
    for (const PermissionItem& item : data.items) {
        PropertyMap r;
        r.Set(L"id", item.id);
        r.Set(L"type", item.objectType);
        r.Set(L"object", item.object);
        r.Set(L"root", item.root);
        r.Set(L"sddl", item.sddl);
        r.Set(L"atr", item.attributes);
        r.Set(L"run", item.run);
        if (item.record) r.Set(L"record", *item.record);
        items.push_back(std::move(r));
    }
    PropertyMap top;
    top.Set(L"pc", data.product);
    if (data.uninstall) top.Set(L"uninstall", 1);
    top.Set(L"items", EncodeRecordList(items));
    return EncodeActionData(top);
}

PermissionActionData DecodePermissionActionData(std::wstring_view text) {
    const PropertyMap top = DecodeActionData(text);
    PermissionActionData data{top.Get(L"pc"), top.GetInteger(L"uninstall") != 0, {}};
    for (const PropertyMap& r : DecodeRecordList(top.View(L"items"))) {
        PermissionItem item{r.Get(L"id"), r.GetInteger(L"type"), r.Get(L"object"), r.GetInteger(L"root"),
                            r.Get(L"sddl"), r.GetInteger(L"atr"), r.Get(L"run"), std::nullopt};
        if (r.Contains(L"record")) item.record = r.Get(L"record");
        data.items.push_back(std::move(item));
    }
    return data;
}

std::wstring BytesToHex(const std::vector<unsigned char>& bytes) {
    static constexpr wchar_t kDigits[] = L"0123456789abcdef";
    std::wstring hex;
    hex.reserve(bytes.size() * 2);
    for (unsigned char b : bytes) {
        hex.push_back(kDigits[b >> 4]);
        hex.push_back(kDigits[b & 15]);
    }
    return hex;
}

std::vector<unsigned char> HexToBytes(std::wstring_view hex) {
    const auto digit = [](wchar_t c) -> int {
        return c >= L'0' && c <= L'9' ? c - L'0' : c >= L'a' && c <= L'f' ? c - L'a' + 10 : c >= L'A' && c <= L'F' ? c - L'A' + 10 : 0;
    };
    std::vector<unsigned char> bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(digit(hex[i]) * 16 + digit(hex[i + 1])));
    }
    return bytes;
}

}  // namespace setup
