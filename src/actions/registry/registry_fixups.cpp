#include "actions/registry/registry_fixups.h"

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <tuple>
#include <vector>

#include "actions/registry/registry_access.h"
#include "actions/registry/registry_fixup_plan.h"
#include "runtime/exception.h"
#include "runtime/program_log.h"
#include "runtime/throw.h"

namespace setup {

namespace {

constexpr wchar_t kQwordQuery[] = L"SELECT `Registry_`, `Value`, `Condition` FROM `RegistryQword`";
constexpr wchar_t kRegistryJoinQuery[] =
    L"SELECT `Registry`.`Registry`, `Registry`.`Root`, `Registry`.`Key`, `Registry`.`Name`, `Registry`.`Component_` "
    L"FROM `Registry`, `RegistryQword` WHERE `Registry`.`Registry` = `RegistryQword`.`Registry_`";
constexpr wchar_t kRegistryQuery[] =
    L"SELECT `Registry`, `Root`, `Key`, `Name`, `Component_` FROM `Registry`";
// From this many RegistryQword rows on, the Registry table is read whole
// instead of joined. Wine evaluates a join as nested loops over both tables,
// about 11 ns for each pair of rows, while one fetch across the custom-action
// boundary costs about 0.5 ms: the join of M rows costs less than reading a
// Registry table of any size whole while M stays below some 45,000 rows, and
// either way the work stays within twice the cheaper one.
constexpr std::size_t kJoinedRowsLimit = 30000;
constexpr wchar_t kComponentQuery[] = L"SELECT `Attributes` FROM `Component` WHERE `Component` = ?";
constexpr int kComponent64Bit = 0x100;  // msidbComponentAttributes64bit

std::optional<Record> FetchOne(const Database& database, const wchar_t* query, const std::wstring& key) {
    View view = database.OpenView(query);
    Record parameter = Record::Create(1);
    parameter.SetString(1, key);
    view.Execute(parameter);
    return view.Fetch();
}

// The RegistryQword rows with their Registry rows; nothing without the table.
// The table's own rows first, then the Registry rows they name: through one
// join for the usual few rows, by reading the Registry table whole for many
// (kJoinedRowsLimit). A join alone would hide a row whose Registry row is
// missing, and that must stay an error. The texts are formatted in one batch.
std::optional<std::vector<QwordRow>> ReadQwordRows(const Session& session) {
    const Database database = session.ActiveDatabase();
    std::vector<QwordRow> rows;
    const bool exists = database.ForEachRowOfTable(L"RegistryQword", kQwordQuery, [&](const Record& record) {
        QwordRow row;
        row.id = record.GetString(1);
        row.value = record.GetString(2);
        row.condition = record.GetString(3);
        rows.push_back(std::move(row));
    });
    if (!exists) return std::nullopt;
    // Registry row -> root, key, name, component (fields copied: no handle is kept per row).
    std::map<std::wstring, std::tuple<int, std::wstring, std::wstring, std::wstring>> registry;
    const bool wholeTable = rows.size() >= kJoinedRowsLimit;
    std::set<std::wstring> wanted;
    if (wholeTable) {
        for (const QwordRow& row : rows) wanted.insert(row.id);
    }
    database.ForEachRow(wholeTable ? kRegistryQuery : kRegistryJoinQuery, [&](const Record& record) {
        std::wstring id = record.GetString(1);
        if (wholeTable && wanted.count(id) == 0) return;
        registry.emplace(std::move(id), std::tuple{record.GetInteger(2), record.GetString(3), record.GetString(4),
                                                   record.GetString(5)});
    });
    std::map<std::wstring, bool> win64;
    std::optional<std::wstring> allUsers;
    for (QwordRow& row : rows) {
        const auto found = registry.find(row.id);
        if (found == registry.end()) Throw(kInvalidArgument, L"The RegistryQword row '" + row.id + L"' names no Registry row.");
        std::wstring key, name;
        std::tie(row.root, key, name, row.component) = found->second;
        // Root -1: the machine for a per-machine install, else the user.
        if (row.root == -1) {
            if (!allUsers) allUsers = session.GetProperty(L"ALLUSERS");
            row.root = allUsers->empty() ? 1 : 2;
        }
        row.key = std::move(key);
        row.name = std::move(name);
        // One lookup per component, whatever the number of its rows.
        auto known = win64.find(row.component);
        if (known == win64.end()) {
            const std::optional<Record> component = FetchOne(database, kComponentQuery, row.component);
            known = win64.emplace(row.component, component && (component->GetInteger(1) & kComponent64Bit) != 0).first;
        }
        row.win64 = known->second;
    }
    FormatRowTexts(session, rows, {&QwordRow::key, &QwordRow::name, &QwordRow::value});
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
    // Each property is checked once, for the first row that takes it (once it
    // is normal, the rows after it have nothing to change), and the values
    // come formatted together ("[P]" of each): a few installer calls for the
    // whole table instead of one a row.
    std::set<std::wstring> seen;
    std::erase_if(wanted, [&seen](const auto& entry) { return !seen.insert(entry.second).second; });
    std::vector<std::wstring> references;
    references.reserve(wanted.size());
    for (const auto& entry : wanted) references.push_back(L"[" + entry.second + L"]");
    const std::vector<std::wstring> values = session.FormatTexts(references);
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        const auto& [row, property] = wanted[i];
        const std::wstring& value = values[i];
        const std::wstring normal = NormalizeDwordProperty(value, property, row);
        if (normal == value) continue;
        LogInfo(L"Property %s for Registry row '%s': '%s' becomes '%s'.", property, row, value, normal);
        session.SetProperty(property, normal);
    }
}

}  // namespace setup
