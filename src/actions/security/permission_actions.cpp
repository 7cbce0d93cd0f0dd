#include "actions/security/permission_actions.h"

#include "runtime/win32.h"

#include <sddl.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "actions/registry/registry_access.h"
#include "actions/security/permission_plan.h"
#include "runtime/action_data.h"
#include "runtime/exception.h"
#include "runtime/program_log.h"
#include "runtime/throw.h"
#include "runtime/unique_handle.h"
#include "services/file_operations.h"
#include "services/path.h"
#include "services/record_store.h"
#include "services/security_descriptor.h"

namespace setup {

namespace {

using namespace permission;

constexpr wchar_t kTable[] = L"PermissionEx";
constexpr wchar_t kQuery[] =
    L"SELECT `PermissionEx`, `Component_`, `ObjectType`, `Object`, `Root`, `Sddl`, `Condition`, `Attributes` "
    L"FROM `PermissionEx`";

std::optional<std::vector<PermissionRow>> ReadRows(const Session& session) {
    std::vector<PermissionRow> rows;
    const bool exists = session.ActiveDatabase().ForEachRowOfTable(kTable, kQuery, [&](const Record& record) {
        PermissionRow row;
        row.id = record.GetString(1);
        if (row.id.empty()) Throw(kFail, L"The id is empty in PermissionEx table.");
        row.component = record.GetString(2);
        if (row.component.empty()) Throw(kFail, L"The component is empty in PermissionEx row '" + row.id + L"'.");
        row.objectType = record.GetIntegerOr(3, -1);
        row.object = record.GetString(4);
        row.root = record.GetIntegerOr(5, -1);
        row.sddl = record.GetString(6);
        row.condition = record.GetString(7);
        row.attributes = record.GetIntegerOr(8, 0);
        rows.push_back(std::move(row));
    });
    if (!exists) return std::nullopt;
    FormatRowTexts(session, rows, {&PermissionRow::object, &PermissionRow::sddl});
    for (PermissionRow& row : rows) {
        if (row.objectType == File || row.objectType == Folder) row.object = ResolvePath(row.object);
        LogInfo(L"Configured permissions %s, %s, %d, %s, %d, %s, %s, %d.", row.id, row.component, row.objectType,
                row.object, row.root, row.sddl, row.condition, row.attributes);
    }
    return rows;
}

SecuredObject ObjectOf(const PermissionItem& item) {
    switch (item.objectType) {
    case permission::RegistryKey:
        return {SecuredKind::RegistryKey, item.object, item.root,
                static_cast<std::uint32_t>((item.attributes & View64) ? KEY_WOW64_64KEY : 0)};
    case Service: return {SecuredKind::Service, item.object, 2, 0};
    default: return {SecuredKind::File, item.object, 2, 0};
    }
}

// --- Accounts ---

bool LooksLikeSid(const std::wstring& account) {
    if (account.rfind(L"S-", 0) == 0) return true;
    return account.size() == 2 && std::all_of(account.begin(), account.end(), [](wchar_t c) {
               return c >= L'A' && c <= L'Z';
           });
}

// A named account as its SID string; the SDDL aliases and SID strings stay.
std::wstring ResolveAccount(const std::wstring& account, const std::wstring& rowId) {
    if (LooksLikeSid(account)) return account;
    unsigned char sid[SECURITY_MAX_SID_SIZE];
    DWORD sidSize = sizeof(sid), domainSize = 256;
    wchar_t domain[256];
    SID_NAME_USE use;
    if (!::LookupAccountNameW(nullptr, account.c_str(), sid, &sidSize, domain, &domainSize, &use)) {
        const DWORD error = ::GetLastError();
        Throw(FailureFromWin32(error), L"The PermissionEx row '" + rowId + L"' names the account '" + account +
                                           L"', which this machine does not know.");
    }
    wchar_t* text = nullptr;
    ThrowLastErrorIf(!::ConvertSidToStringSidW(sid, &text), L"Failed to convert the SID of '" + account + L"'.");
    std::wstring result(text);
    ::LocalFree(text);
    LogInfo(L"Account '%s' of permissions '%s' is %s.", account, rowId, result);
    return result;
}

// The row's SDDL with every account as a SID, in the system's own spelling
// (a round trip through a descriptor): what the merge compares with.
std::wstring NormalizeRowSddl(const PermissionRow& row) {
    Sddl sddl = *ParseSddl(row.sddl);
    if (!sddl.owner.empty()) sddl.owner = ResolveAccount(sddl.owner, row.id);
    if (!sddl.group.empty()) sddl.group = ResolveAccount(sddl.group, row.id);
    for (SddlAce& ace : sddl.dacl) ace.account = ResolveAccount(ace.account, row.id);
    try {
        return DescriptorToSddl(SddlToDescriptor(sddl.Text()));
    } catch (const Exception& e) {
        Throw(e.Code(), L"The PermissionEx row '" + row.id + L"': " + e.Message());
    }
}

// --- Records ---

RecordStore Records(const std::wstring& product) { return RecordStore::ForProduct(L"PermissionEx", product); }
// What the deferred actions found before they changed an object, by run:
// rollback reads it, commit deletes it. A run without one never changed anything.
RecordStore Captures(const std::wstring& product) {
    return RecordStore::ForProduct(L"PermissionEx\\Captures", product);
}

void WriteRecordText(const std::wstring& product, const std::wstring& id, const std::optional<std::wstring>& text) {
    if (text) Records(product).Write(id, *text);
    else Records(product).Remove(id);
}

// --- Immediate actions ---

bool MissingObject(const Exception& e) {
    return e.Code() == FailureFromWin32(ERROR_FILE_NOT_FOUND) || e.Code() == FailureFromWin32(ERROR_PATH_NOT_FOUND) ||
           e.Code() == FailureFromWin32(ERROR_SERVICE_DOES_NOT_EXIST);
}

void Schedule(Session& session, ComponentTask task, const wchar_t* deferred) {
    const std::optional<std::vector<PermissionRow>> rows = ReadRows(session);
    if (!rows) return;
    SessionComponentStates states(session);
    ProgramLogSink log;
    const bool uninstalling = task == ComponentTask::Uninstall;
    PermissionActionData data{session.GetProperty(L"ProductCode"), uninstalling, {}};
    for (const PermissionRow& row : *rows) {
        const std::optional<ComponentState> state = states.State(row.component);
        if (!state || ClassifyComponent(*state) != task) continue;  // the other actions log those
        if (!DecidePermission(states, row, uninstalling, log).Chosen()) continue;
        if (const std::wstring why = PermissionRowProblem(row); !why.empty()) {
            Throw(kInvalidArgument, L"The PermissionEx row '" + row.id + L"' cannot act: " + why + L".");
        }
        std::optional<std::wstring> record = Records(data.product).Read(row.id);
        if (uninstalling && (row.attributes & Permanent)) {
            LogInfo(L"Skip permissions '%s'. They are permanent (0x80): uninstall leaves them.", row.id);
            continue;
        }
        if (uninstalling && !record) {
            LogInfo(L"Nothing to take back for permissions '%s': nothing of them is recorded.", row.id);
            continue;
        }
        data.items.push_back({row.id, row.objectType, row.object, row.root, NormalizeRowSddl(row), row.attributes,
                              CreateRandomHex(), std::move(record)});
        LogInfo(L"Permissions '%s' of '%s': %s.", row.id, row.object, data.items.back().sddl);
    }
    if (data.items.empty()) {
        LogNothingToSchedule(rows->size(), kTable,
                             task == ComponentTask::Install     ? L"installed"
                             : task == ComponentTask::Reinstall ? L"reinstalled"
                                                                : L"removed");
        return;
    }
    const std::wstring text = EncodePermissionActionData(data);
    session.ScheduleDeferred(uninstalling ? L"UninstallPermissionsRollback" : L"InstallPermissionsRollback", text);
    session.ScheduleDeferred(deferred, text);
    session.ScheduleDeferred(L"InstallPermissionsCommit", L"commit=1|" + text);
}

// --- Deferred work ---

// The object's descriptor now, or nothing when it is missing and the row
// allows that (0x100). A file or folder that is a link is refused: the change
// would land on whatever it points to.
std::optional<std::vector<unsigned char>> ReadCurrent(const PermissionItem& item) {
    if (item.objectType == File || item.objectType == Folder) {
        const DWORD attributes = ::GetFileAttributesW(LongPathForm(item.object).c_str());
        if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT)) {
            Throw(FailureFromWin32(ERROR_CANT_ACCESS_FILE),
                  L"Refused to change the permissions of '" + item.object + L"': it is a link.");
        }
    }
    try {
        return ReadSecurityDescriptor(ObjectOf(item), false);
    } catch (const Exception& e) {
        if (!MissingObject(e) || !(item.attributes & SkipMissing)) throw;
        LogInfo(L"Skip permissions '%s': '%s' does not exist (0x100).", item.id, item.object);
        return std::nullopt;
    }
}

void WriteSddl(const PermissionItem& item, const std::wstring& sddl) {
    LogInfo(L"Set the security descriptor of '%s' to '%s'.", item.object, sddl);
    WriteSecurityDescriptor(ObjectOf(item), SddlToDescriptor(sddl));
    const std::wstring back = DescriptorToSddl(ReadSecurityDescriptor(ObjectOf(item), false));
    if (back != sddl) LogInfo(L"It reads back as '%s' (the object keeps only part of a descriptor).", back);
}

// The existing children of a folder or key, depth first, links never entered
// (a link itself is no child of ours either).
void ListFolder(const std::wstring& folder, int depth, std::vector<PermissionItem>& children, const PermissionItem& row) {
    constexpr int kMaxDepth = 512;
    if (depth >= kMaxDepth) return;
    WIN32_FIND_DATAW data;
    FindHandle find(::FindFirstFileW(LongPathForm(JoinPath(folder, L"*")).c_str(), &data));
    if (!find) return;
    do {
        const std::wstring name = data.cFileName;
        if (name == L"." || name == L"..") continue;
        const std::wstring path = JoinPath(folder, name);
        const DWORD attributes = ::GetFileAttributesW(LongPathForm(path).c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_REPARSE_POINT)) continue;
        PermissionItem child = row;
        child.object = path;
        child.objectType = (attributes & FILE_ATTRIBUTE_DIRECTORY) ? Folder : File;
        children.push_back(child);
        if (child.objectType == Folder) ListFolder(path, depth + 1, children, row);
    } while (::FindNextFileW(find.Get(), &data));
}

std::vector<PermissionItem> Children(const PermissionItem& item) {
    std::vector<PermissionItem> children;
    if (!(item.attributes & permission::Children)) return children;
    if (item.objectType == Folder) ListFolder(item.object, 0, children, item);
    if (item.objectType == permission::RegistryKey) {
        const std::vector<std::wstring> tree = CollectKeyTree(item.root, item.object, ObjectOf(item).view);
        for (std::size_t i = 1; i < tree.size(); ++i) {
            PermissionItem child = item;
            child.object = tree[i];
            children.push_back(child);
        }
    }
    return children;
}

// The row's inheritable entries brought to (or, on uninstall, taken from) each
// existing child, each child captured first under the run's name.
void ApplyToChildren(const PermissionItem& item, const std::wstring& product, bool uninstall) {
    const std::vector<PermissionItem> children = Children(item);
    if (children.empty()) return;
    LogInfo(L"%s the permissions '%s' %s the %u existing children of '%s'.", uninstall ? L"Take back" : L"Apply",
            item.id, uninstall ? L"from" : L"to", children.size(), item.object);
    const Sddl row = *ParseSddl(item.sddl);
    for (std::size_t i = 0; i < children.size(); ++i) {
        const PermissionItem& child = children[i];
        const std::vector<unsigned char> bytes = ReadSecurityDescriptor(ObjectOf(child), false);
        const std::wstring currentText = DescriptorToSddl(bytes);
        const Sddl current = *ParseSddl(currentText);
        const std::vector<SddlAce> inherited = InheritedEntries(row, child.objectType != File);
        const std::wstring wanted = (uninstall ? TakeBackPermissions(current, inherited)
                                               : MergeInherited(current, inherited, nullptr)).Text();
        if (wanted == currentText) continue;
        PropertyMap capture;
        capture.Set(L"type", child.objectType);
        capture.Set(L"object", child.object);
        capture.Set(L"bytes", BytesToHex(bytes));
        Captures(product).Write(item.run + L"|" + std::to_wstring(i), EncodeActionData(capture));
        LogInfo(L"Child %u of %u:", static_cast<unsigned>(i + 1), static_cast<unsigned>(children.size()));
        WriteSddl(child, wanted);
    }
}

void Apply(const PermissionItem& item, const std::wstring& product, bool uninstall) {
    const std::optional<std::vector<unsigned char>> bytes = ReadCurrent(item);
    if (!bytes) return;
    const std::wstring currentText = DescriptorToSddl(*bytes);
    const Sddl current = *ParseSddl(currentText);
    if (item.objectType == Service && current.hasDacl && current.dacl.empty() && !HasFlag(current.daclFlags, L"NO_ACCESS_CONTROL")) {
        Throw(FailureFromWin32(ERROR_INVALID_SECURITY_DESCR),
              L"Refused to change the permissions of service '" + item.object +
                  L"': its DACL reads as empty (D:), and putting that back would lock everyone out.");
    }
    // The journal first: rollback puts back exactly this.
    Captures(product).Write(item.run, BytesToHex(*bytes));
    PermissionRecord record = item.record ? DecodePermissionRecord(*item.record) : PermissionRecord{BytesToHex(*bytes), {}};
    if (uninstall) {
        if (!(item.attributes & Permanent)) {
            if (item.attributes & RestoreExact) {
                LogInfo(L"Put back the descriptor of '%s' from before the product.", item.object);
                WriteSecurityDescriptor(ObjectOf(item), HexToBytes(record.original));
            } else {
                std::vector<SddlAce> added;
                for (const std::wstring& text : record.added) {
                    if (const std::optional<Sddl> one = ParseSddl(L"D:" + text); one && !one->dacl.empty()) {
                        added.push_back(one->dacl.front());
                    }
                }
                WriteSddl(item, TakeBackPermissions(current, added).Text());
            }
        }
        if (!(item.attributes & Permanent)) ApplyToChildren(item, product, true);
        Records(product).Remove(item.id);
        return;
    }
    std::vector<SddlAce> added;
    const std::wstring merged = MergePermissions(current, *ParseSddl(item.sddl), item.attributes, &added).Text();
    if (merged == currentText) {
        LogInfo(L"The permissions '%s' of '%s' are in place already.", item.id, item.object);
    } else if (item.attributes & Owner) {
        PrivilegeScope takeOwnership(L"SeTakeOwnershipPrivilege");
        WriteSddl(item, merged);
    } else {
        WriteSddl(item, merged);
    }
    ApplyToChildren(item, product, false);
    // A repair keeps the first capture: the descriptor from before the product.
    for (const SddlAce& ace : added) record.added.push_back(ace.Text());
    if (!(item.attributes & Permanent)) {
        LogInfo(L"Record the permissions '%s' under '%s'.", item.id, Records(product).Key());
        Records(product).Write(item.id, EncodePermissionRecord(record));
    }
}

void CarryOut(const Session& session) {
    const PermissionActionData data = DecodePermissionActionData(session.CustomActionData());
    for (const PermissionItem& item : data.items) {
        try {
            Apply(item, data.product, data.uninstall);
        } catch (const Exception& e) {
            Throw(e.Code(), L"Failed permissions '" + item.id + L"' of '" + item.object + L"': " + e.Message());
        }
    }
}

// Rollback (or, with commit=1, commit): what each run captured goes back
// exactly, latest first; a row whose run captured nothing never changed.
void Undo(const Session& session) {
    const std::wstring text = session.CustomActionData();
    const bool commit = text.rfind(L"commit=1|", 0) == 0;
    const PermissionActionData data = DecodePermissionActionData(commit ? std::wstring_view(text).substr(9) : text);
    for (auto it = data.items.rbegin(); it != data.items.rend(); ++it) {
        const PermissionItem& item = *it;
        const RecordStore captures = Captures(data.product);
        const std::optional<std::wstring> captured = captures.Read(item.run);
        if (captured && !commit) {
            Leniently([&] {
                const std::vector<unsigned char> before = HexToBytes(*captured);
                if (ReadSecurityDescriptor(ObjectOf(item), false) == before) return;
                LogInfo(L"Put back the security descriptor of '%s': '%s'.", item.object, DescriptorToSddl(before));
                WriteSecurityDescriptor(ObjectOf(item), before);
            });
            Leniently([&] { WriteRecordText(data.product, item.id, item.record); });
        }
        if (captured) captures.Remove(item.run);
        // The children this run changed, by the names it captured them under.
        for (const auto& [name, text] : captures.ReadAll()) {
            if (name.rfind(item.run + L"|", 0) != 0) continue;
            if (!commit) {
                Leniently([&] {
                    const PropertyMap capture = DecodeActionData(text);
                    PermissionItem child = item;
                    child.objectType = capture.GetInteger(L"type");
                    child.object = capture.Get(L"object");
                    LogInfo(L"Put back the security descriptor of '%s'.", child.object);
                    WriteSecurityDescriptor(ObjectOf(child), HexToBytes(capture.View(L"bytes")));
                });
            }
            captures.Remove(name);
        }
    }
}

}  // namespace

void InstallPermissions(Session& session) { Schedule(session, ComponentTask::Install, L"InstallPermissionsDeferred"); }
void RestorePermissions(Session& session) { Schedule(session, ComponentTask::Reinstall, L"RestorePermissionsDeferred"); }
void UninstallPermissions(Session& session) {
    Schedule(session, ComponentTask::Uninstall, L"UninstallPermissionsDeferred");
}
void InstallPermissionsDeferred(Session& session) { CarryOut(session); }
void RestorePermissionsDeferred(Session& session) { CarryOut(session); }
void InstallPermissionsRollback(Session& session) { Undo(session); }
void UninstallPermissionsRollback(Session& session) { Undo(session); }

}  // namespace setup
