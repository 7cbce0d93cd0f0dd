#include "actions/registry/registry_fixups.h"

#include <map>
#include <optional>
#include <vector>

#include "actions/registry/registry_access.h"
#include "actions/registry/registry_fixup_plan.h"
#include "runtime/exception.h"
#include "runtime/program_log.h"
#include "runtime/throw.h"

namespace setup {

namespace {

constexpr wchar_t kQwordQuery[] = L"SELECT `Registry_`, `Value`, `Condition` FROM `RegistryQword`";
constexpr wchar_t kRegistryRowQuery[] =
    L"SELECT `Root`, `Key`, `Name`, `Component_` FROM `Registry` WHERE `Registry` = ?";
constexpr wchar_t kComponentQuery[] = L"SELECT `Attributes` FROM `Component` WHERE `Component` = ?";
constexpr int kComponent64Bit = 0x100;  // msidbComponentAttributes64bit

std::optional<Record> FetchOne(const Database& database, const wchar_t* query, const std::wstring& key) {
    View view = database.OpenView(query);
    Record parameter = Record::Create(1);
    parameter.SetString(1, key);
    view.Execute(parameter);
    return view.Fetch();
}

// The RegistryQword rows joined with their Registry rows; nothing without the table.
std::optional<std::vector<QwordRow>> ReadQwordRows(const Session& session) {
    const Database database = session.ActiveDatabase();
    std::vector<std::pair<std::wstring, std::pair<std::wstring, std::wstring>>> raw;
    const bool exists = database.ForEachRowOfTable(L"RegistryQword", kQwordQuery, [&](const Record& record) {
        raw.push_back({record.GetString(1), {record.GetString(2), record.GetString(3)}});
    });
    if (!exists) return std::nullopt;
    std::vector<QwordRow> rows;
    std::map<std::wstring, bool> win64;
    for (const auto& [id, rest] : raw) {
        const std::optional<Record> registry = FetchOne(database, kRegistryRowQuery, id);
        if (!registry) Throw(kInvalidArgument, L"The RegistryQword row '" + id + L"' names no Registry row.");
        QwordRow row;
        row.id = id;
        row.root = registry->GetInteger(1);
        // Root -1: the machine for a per-machine install, else the user.
        if (row.root == -1) row.root = session.GetProperty(L"ALLUSERS").empty() ? 1 : 2;
        row.key = session.FormatText(registry->GetString(2));
        row.name = session.FormatText(registry->GetString(3));
        row.component = registry->GetString(4);
        row.value = session.FormatText(rest.first);
        row.condition = rest.second;
        // One lookup per component, whatever the number of its rows.
        auto known = win64.find(row.component);
        if (known == win64.end()) {
            const std::optional<Record> component = FetchOne(database, kComponentQuery, row.component);
            known = win64.emplace(row.component, component && (component->GetInteger(1) & kComponent64Bit) != 0).first;
        }
        row.win64 = known->second;
        rows.push_back(std::move(row));
    }
    return rows;
}

void WriteQwords(const Session& session) {
    for (const QwordItem& item : DecodeQwordItems(session.CustomActionData())) {
        WriteValue(item.root, item.key, RegistryValue{item.name, kRegQword, QwordBytes(item.qword)}, item.view);
    }
}

}  // namespace

void FixQwordRegistry(Session& session) {
    if (session.IsDeferred()) {
        WriteQwords(session);
        return;
    }
    const std::optional<std::vector<QwordRow>> rows = ReadQwordRows(session);
    if (!rows) return;
    SessionComponentStates states(session);
    ProgramLogSink log;
    std::vector<QwordItem> items = PlanQwords(*rows, states, log);
    if (items.empty()) {
        LogNothingToSchedule(rows->size(), L"RegistryQword", L"installed or reinstalled");
        return;
    }
    // What was there before the install is what the rollback puts back.
    for (QwordItem& item : items) item.previous = ReadValue(item.root, item.key, item.name, item.view);
    const std::wstring data = EncodeQwordItems(items);
    session.ScheduleDeferred(L"FixQwordRegistryRollback", data);
    session.ScheduleDeferred(L"FixQwordRegistryDeferred", data);
}

void FixQwordRegistryRollback(Session& session) {
    for (const QwordItem& item : DecodeQwordItems(session.CustomActionData())) {
        Leniently([&] {
            if (item.previous) WriteValue(item.root, item.key, *item.previous, item.view);
            else DeleteValue(item.root, item.key, item.name, item.view);
        });
    }
}

void FixRegistryIntegerProperties(Session& session) {
    SessionComponentStates states(session);
    ProgramLogSink log;
    const Database database = session.ActiveDatabase();
    std::vector<std::pair<std::wstring, std::wstring>> wanted;  // (row, property)
    database.ForEachRowOfTable(L"Registry", L"SELECT `Registry`, `Value`, `Component_` FROM `Registry`",
                               [&](const Record& record) {
        const std::optional<std::wstring> property = IntegerPropertyOf(record.GetString(2));
        if (!property) return;
        const std::wstring row = record.GetString(1);
        const Decision d = DecideRow(states, kStandardInstall, record.GetString(3), {}, [&](const Decision& x) {
            return x.Chosen() ? Format(L"Need to check property %s of Registry row '%s'.", *property, row)
                              : Format(L"Skip property %s of Registry row '%s': its component is not installed.",
                                       *property, row);
        }, log);
        if (d.Chosen()) wanted.emplace_back(row, *property);
    });
    if (wanted.empty()) LogInfo(L"Nothing to check: no Registry row of an installed component takes a property.");
    for (const auto& [row, property] : wanted) {
        const std::wstring value = session.GetProperty(property);
        const std::wstring normal = NormalizeDwordProperty(value, property, row);
        if (normal == value) continue;
        LogInfo(L"Property %s for Registry row '%s': '%s' becomes '%s'.", property, row, value, normal);
        session.SetProperty(property, normal);
    }
}

}  // namespace setup
