#include "actions/registry/registry_ex_plan.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include "actions/registry/registry_notation.h"
#include "runtime/action_data.h"
#include "runtime/exception.h"
#include "runtime/hresult.h"
#include "services/path.h"

namespace setup {

namespace {

using namespace install_state;

bool Contains(std::wstring_view list, std::wstring_view item) {
    return !item.empty() && list.find(item) != std::wstring_view::npos;
}

// The data of a rollback row that removes a value: any text but the empty one,
// which would make a row without a name stand for its whole key.
constexpr wchar_t kRemoveValue[] = L"-";

bool ConditionHolds(int result) { return result == kConditionTrue || result == kConditionNone; }

// A component that keeps the value on the machine: installed and staying, or being installed.
bool KeepsItsValues(const ComponentState& s) {
    return (s.installed >= Local && s.action != Advertised && s.action != Absent) || s.action == Local ||
           s.action == Source;
}

[[noreturn]] void RefuseRow(const RegistryExRow& row, const std::wstring& why) {
    throw Exception(kInvalidArgument, L"The registry row '" + row.id + L"' cannot be written: " + why + L".");
}

// Refuses, before anything is scheduled, a row whose work could not be done.
void CheckRow(const RegistryExRow& row) {
    if (row.root < 0 || row.root > 3) {
        RefuseRow(row, Format(L"the root %d is none of 0 (HKEY_CLASSES_ROOT), 1 (HKEY_CURRENT_USER), "
                              L"2 (HKEY_LOCAL_MACHINE) and 3 (HKEY_USERS)", row.root));
    }
    const std::wstring problem = RegistryPathProblem(row.key, row.name);
    if (!problem.empty()) RefuseRow(row, problem);
    if (RowKeyMarker(row) != KeyMarker::None) return;
    try {
        if (row.file.empty()) ParseValueNotation(row.name, row.value);
        else RenderRegFileValue(row.value);
    } catch (const Exception& e) {
        RefuseRow(row, e.Message());
    }
}

std::wstring FileKey(const RegistryExRow& row, bool redirect32) {
    std::wstring key = RootLongName(row.root) + L"\\" + row.key;
    if (redirect32 && !(row.attributes & kRegExWin64)) key = RedirectTo32(key);
    return key;
}

// One key of a registry file: its removal line, whether it is opened, and its
// value lines by value name.
struct FileSection {
    bool remove = false;
    bool open = false;
    std::map<std::wstring, std::wstring> values;
};

// The value name of a value line ("name"=... or @=...), or nothing.
std::optional<std::wstring> LineValueName(std::wstring_view line) {
    if (line.starts_with(L"@=")) return std::wstring();
    if (!line.starts_with(L"\"")) return std::nullopt;
    std::wstring name;
    for (std::size_t i = 1; i < line.size(); ++i) {
        if (line[i] == L'\\' && i + 1 < line.size()) {
            name.push_back(line[++i]);
        } else if (line[i] == L'"') {
            if (i + 1 < line.size() && line[i + 1] == L'=') return name;
            return std::nullopt;
        } else {
            name.push_back(line[i]);
        }
    }
    return std::nullopt;
}

void ReadLastVersion(std::wstring_view text, std::map<std::wstring, FileSection>& sections) {
    std::wstring joined;
    FileSection* current = nullptr;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find(L'\n', start);
        if (end == std::wstring_view::npos) end = text.size();
        std::wstring_view line = text.substr(start, end - start);
        start = end + 1;
        if (!line.empty() && line.back() == L'\r') line.remove_suffix(1);
        // A line ending in a backslash goes on in the next one.
        if (!line.empty() && line.back() == L'\\') {
            joined.append(line.substr(0, line.size() - 1));
            continue;
        }
        joined.append(line);
        const std::wstring whole = std::move(joined);
        joined.clear();
        if (whole.size() >= 2 && whole.front() == L'[' && whole.back() == L']') {
            const bool remove = whole[1] == L'-';
            const std::wstring key = whole.substr(remove ? 2 : 1, whole.size() - (remove ? 3 : 2));
            current = &sections[key];
            (remove ? current->remove : current->open) = true;
            continue;
        }
        if (!current) continue;  // the header, or anything before the first key
        if (const auto name = LineValueName(whole)) current->values[*name] = whole;
    }
}

std::wstring ValueLine(const std::wstring& name, std::wstring_view rendered) {
    return (name.empty() ? std::wstring(L"@") : QuoteRegFileString(name)) + L"=" + std::wstring(rendered);
}

}  // namespace

std::uint32_t RowView(const RegistryExRow& row) {
    return static_cast<std::uint32_t>(row.attributes & kRegExWin64) << 7;
}

KeyMarker RowKeyMarker(const RegistryExRow& row) {
    if (!row.value.empty()) return KeyMarker::None;
    if (row.name.empty()) return KeyMarker::Key;
    if (row.name == L"+") return KeyMarker::Create;
    if (row.name == L"-") return KeyMarker::Remove;
    if (row.name == L"*") return KeyMarker::CreateAndRemove;
    return KeyMarker::None;
}

void LogRegistryExReading(const RegistryExReading& reading, LogSink& log) {
    log.Info(L"Wow64 redirection %s", reading.wow64 ? L"enabled." : L"disabled.");
    if (reading.ignoreFile) log.Info(L"Force removed File attribute due to IgnoreRegistryExFileAttribute was specified.");
}

void ApplyReadingRules(RegistryExRow& row, const RegistryExReading& reading, LogSink& log) {
    if (!reading.system64 && (row.attributes & kRegExWin64)) {
        row.attributes &= ~kRegExWin64;
        log.Info(L"Force removed Win64 attribute from '%s' for x86 operation system.", row.id);
    }
    if (Contains(reading.withoutRollback, row.component)) {
        row.attributes |= kRegExDisableRollback;
        log.Info(L"Force add DisableRollback attribute for '%s'.", row.id);
    }
    if (reading.ignoreFile) row.file.clear();
    log.Info(L"The registry row '%s' was successfully read. component '%s'", row.id, row.component);
}

bool ForcedToInstall(std::wstring_view forceInstall, std::wstring_view component, const ComponentState& state) {
    return Contains(forceInstall, component) && state.action != Absent;
}

void ResolveComponentStates(std::vector<RegistryExRow>& rows, ComponentStates& states, std::wstring_view forceInstall,
                            LogSink& log) {
    std::map<std::wstring, ComponentState, std::less<>> resolved;
    for (const RegistryExRow& row : rows) {
        if (resolved.count(row.component)) continue;
        ComponentState state;
        if (const auto known = states.State(row.component)) {
            state = *known;
        } else {
            log.Info(L"Failed to get state of component '%s'. Error 0x%x.", row.component, kFail);
        }
        log.Info(L"Component: '%s'; Installed: '%d'; Action: '%d'", row.component, state.installed, state.action);
        if (ForcedToInstall(forceInstall, row.component, state)) {
            state.action = Local;
            log.Info(L"Force install '%s' reg file. The component specified in ForceInstallRegFileComponents property.",
                     row.component);
        }
        resolved.emplace(row.component, state);
    }
    for (RegistryExRow& row : rows) row.state = resolved.find(row.component)->second;
}

bool DecideRegistryInstall(const RegistryExRow& row, ComponentStates& states, LogSink& log) {
    if (row.state.installed == Unknown || row.state.action == Unknown) {
        log.Info(L"Skip install registry row '%s' for null-action component '%s'.", row.id, row.component);
        return false;
    }
    const int condition = states.EvaluateCondition(row.condition);
    if (!ConditionHolds(condition)) {
        log.Info(L"Skip install registry row '%s'. Condition is '%d'.", row.id, condition);
        return false;
    }
    const ComponentTask task = ClassifyComponent(row.state);
    if (task != ComponentTask::Install && task != ComponentTask::Reinstall) {
        log.Info(L"Skip install registry row '%s'. Component is not marked to install.", row.id);
        return false;
    }
    log.Info(L"Need to install registry row '%s', component '%s'.", row.id, row.component);
    return true;
}

namespace {

void LogDirectOrFile(const RegistryExRow& row, LogSink& log) {
    if (row.file.empty()) {
        log.Info(L"Need to write registry row directly '%s', component '%s'. %s, %s, %s.", row.id, row.component,
                 row.key, row.name, row.value);
    } else {
        log.Info(L"Need to write registry row to file '%s', component '%s'. %s, %s, %s.", row.id, row.component,
                 row.key, row.name, row.value);
    }
}

bool DecideRegistryUninstall(const RegistryExRow& row, const std::vector<const RegistryExRow*>& sameValue,
                             ComponentStates& states, const LocatedState& located, LogSink& log) {
    if (row.state.installed == Unknown) {
        log.Info(L"Skip uninstallation of registry row '%s' for unknown state of component '%s'.", row.id,
                 row.component);
        return false;
    }
    const int condition = states.EvaluateCondition(row.condition);
    if (!ConditionHolds(condition)) {
        log.Info(L"Skip uninstallation of registry row '%s'. Condition is '%d'.", row.id, condition);
        return false;
    }
    if (row.state.installed == Absent && row.state.action == Unknown && located && located(row.component) >= Local) {
        log.Info(L"Found previous version of component '%s'.", row.component);
    } else if (row.state.action == Unknown) {
        log.Info(L"Skip uninstallation of registry row '%s' for null-action component '%s'.", row.id, row.component);
        return false;
    } else if (ClassifyComponent(row.state) != ComponentTask::Uninstall) {
        log.Info(L"Skip uninstallation of registry row '%s'. Component is not marked to uninstall.", row.id);
        return false;
    }
    if (row.name.empty() && row.value.empty() && !(row.attributes & kRegExKeyRow)) {
        log.Info(L"Skip uninstallation of registry row '%s'. The registry value is empty.", row.id);
        return false;
    }
    if (row.attributes & kRegExDeleteOnInstall) {
        log.Info(L"Skip uninstallation of registry row '%s'. The registry marked to delete on install.", row.id);
        return false;
    }
    for (const RegistryExRow* other : sameValue) {
        if (other == &row || (other->attributes & kRegExWin64) != (row.attributes & kRegExWin64) ||
            (other->attributes & kRegExDeleteOnInstall) || !ConditionHolds(states.EvaluateCondition(other->condition))) {
            continue;
        }
        if (KeepsItsValues(other->state)) {
            log.Info(L"Skip uninstallation of registry row '%s'. Other installed component write the same registry "
                     L"value. '%s', '%s', %s, %s, %s.",
                     row.id, other->id, other->component, other->key, other->name, other->value);
            return false;
        }
    }
    log.Info(L"Need to uninstall registry row '%s', component '%s'. %s, %s, %s.", row.id, row.component, row.key,
             row.name, row.value);
    return true;
}

}  // namespace

std::vector<RegistryExRow> PlanRegistryInstall(const std::vector<RegistryExRow>& rows, ComponentStates& states,
                                               LogSink& log) {
    std::vector<RegistryExRow> chosen;
    for (const RegistryExRow& row : rows) {
        if (!DecideRegistryInstall(row, states, log)) continue;
        LogDirectOrFile(row, log);
        CheckRow(row);
        chosen.push_back(row);
    }
    return chosen;
}

std::vector<RegistryExRow> PlanRegistryUninstall(const std::vector<RegistryExRow>& rows, ComponentStates& states,
                                                 const LocatedState& located, LogSink& log) {
    // The same value whatever the letter case of its key and name (the registry
    // ignores it), and only under the same root.
    using ValueKey = std::tuple<int, std::wstring, std::wstring>;
    const auto valueOf = [](const RegistryExRow& row) {
        return ValueKey{NormalizeRoot(row.root), PathKey(row.key), PathKey(row.name)};
    };
    std::map<ValueKey, std::vector<const RegistryExRow*>> byValue;
    for (const RegistryExRow& row : rows) byValue[valueOf(row)].push_back(&row);
    std::vector<RegistryExRow> chosen;
    for (const RegistryExRow& row : rows) {
        if (!DecideRegistryUninstall(row, byValue[valueOf(row)], states, located, log)) continue;
        LogDirectOrFile(row, log);
        // Nothing is written on uninstall: only the key and the root must be usable.
        if (row.root >= 0 && row.root <= 3 && RegistryPathProblem(row.key, row.name).empty()) {
            chosen.push_back(row);
        } else {
            log.Info(L"Skip uninstallation of registry row '%s'. Its key '%s' (root %d) names no registry key.", row.id,
                     row.key, row.root);
        }
    }
    return chosen;
}

std::optional<RegistryExRow> InstallWork(const RegistryExRow& row) {
    if (RowKeyMarker(row) == KeyMarker::Remove && !(row.attributes & kRegExDeleteOnInstall)) return std::nullopt;
    RegistryExRow work = row;
    work.file.clear();
    return work;
}

RegistryExRow UninstallWork(const RegistryExRow& row) {
    RegistryExRow work = row;
    work.file.clear();
    work.attributes |= kRegExDeleteOnInstall;
    return work;
}

std::vector<RegistryExRow> CaptureRollback(const RegistryExRow& work, RegistryReader& registry, LogSink& log) {
    const std::uint32_t view = RowView(work);
    const bool removal = (work.attributes & kRegExDeleteOnInstall) != 0;
    const KeyMarker marker = RowKeyMarker(work);
    const int depth = KeyDepth(work.key);
    const int existing = registry.ExistingDepth(work.root, work.key, view);
    std::vector<RegistryExRow> rows;
    auto restoring = [&](std::wstring key, std::wstring name, std::wstring value, int attributes) {
        RegistryExRow row;
        row.id = work.id;
        row.root = work.root;
        row.key = std::move(key);
        row.name = std::move(name);
        row.value = std::move(value);
        row.component = work.component;
        row.attributes = (work.attributes & kRegExWin64) | attributes;
        rows.push_back(std::move(row));
    };
    if (existing < depth) {
        log.Info(L"The registry key '%s' is not exist.", work.key);
        // Whatever is created goes again, and so do the keys above it that did not exist.
        if (!removal) {
            if (marker == KeyMarker::None) restoring(work.key, work.name, kRemoveValue, kRegExDeleteOnInstall);
            else restoring(work.key, L"", L"", kRegExDeleteOnInstall | kRegExKeyRow);
            rows.back().keep = existing;
        }
        return rows;
    }
    if (removal && (marker == KeyMarker::Key || marker == KeyMarker::Remove || marker == KeyMarker::CreateAndRemove)) {
        // A whole key goes: every key below it and every value come back.
        for (const auto& [key, values] : registry.Tree(work.root, work.key, view)) {
            if (values.empty()) restoring(key, L"", L"", kRegExKeyRow);
            for (const RegistryValue& value : values) restoring(key, value.name, RawValueNotation(value), 0);
        }
        return rows;
    }
    if (marker != KeyMarker::None) {
        // The key exists: creating it changes nothing; removing it when empty is undone by creating it.
        if (removal) restoring(work.key, L"", L"", kRegExKeyRow);
        return rows;
    }
    const std::optional<RegistryValue> present = registry.Value(work.root, work.key, work.name, view);
    if (removal) restoring(work.key, L"", L"", kRegExKeyRow);  // the clean-up may take the key
    if (present) {
        restoring(work.key, work.name, RawValueNotation(*present), 0);
    } else {
        log.Info(L"The registry value '%s' is not exist.", work.name);
        if (!removal) {
            restoring(work.key, work.name, kRemoveValue, kRegExDeleteOnInstall);
            rows.back().keep = depth;
        }
    }
    return rows;
}

std::wstring EncodeRegistryRows(const std::vector<RegistryExRow>& rows) {
    std::vector<PropertyMap> records;
    records.reserve(rows.size());
    for (const RegistryExRow& row : rows) {
        PropertyMap record;
        record.Set(L"id", row.id);
        record.Set(L"file", row.file);
        record.Set(L"root", row.root);
        record.Set(L"key", row.key);
        record.Set(L"name", row.name);
        record.Set(L"data", row.value);
        record.Set(L"atr", row.attributes);
        record.Set(L"cmp", row.component);
        record.Set(L"condition", row.condition);
        if (row.keep) record.Set(L"keep", row.keep);
        if (row.secret) record.Set(L"sec", 1);
        records.push_back(std::move(record));
    }
    PropertyMap top;
    top.Set(L"rows", EncodeRecordList(records));
    return EncodeActionData(top);
}

std::vector<RegistryExRow> DecodeRegistryRows(std::wstring_view text) {
    const PropertyMap top = DecodeActionData(text);
    std::vector<RegistryExRow> rows;
    for (const PropertyMap& record : DecodeRecordList(top.View(L"rows"))) {
        RegistryExRow row;
        row.id = record.Get(L"id");
        row.file = record.Get(L"file");
        row.root = record.Contains(L"root") ? record.GetInteger(L"root") : -1;
        row.key = record.Get(L"key");
        row.name = record.Get(L"name");
        row.value = record.Get(L"data");
        row.attributes = record.GetInteger(L"atr");
        row.component = record.Get(L"cmp");
        row.condition = record.Get(L"condition");
        row.keep = record.GetInteger(L"keep");
        row.secret = record.GetInteger(L"sec") != 0;
        rows.push_back(std::move(row));
    }
    return rows;
}

std::wstring RegistryRowProblem(const RegistryExRow& row) {
    if (row.root < 0 || row.root > 3) return Format(L"the root '%d' is not one of 0..3", row.root);
    return RegistryPathProblem(row.key, row.name);
}

std::wstring RegFileText(const std::vector<RegistryExRow>& rows, bool redirect32, std::wstring_view lastVersion) {
    std::map<std::wstring, FileSection> sections;
    ReadLastVersion(lastVersion, sections);
    // Key removals first: they drop what the last version had under the key,
    // never what a row of this version puts there.
    for (const RegistryExRow& row : rows) {
        const KeyMarker marker = RowKeyMarker(row);
        const bool removesKey = marker == KeyMarker::Remove ||
                                (marker == KeyMarker::Key && (row.attributes & kRegExDeleteOnInstall));
        if (!removesKey) continue;
        FileSection& section = sections[FileKey(row, redirect32)];
        section = FileSection{};
        section.remove = true;
    }
    for (const RegistryExRow& row : rows) {
        const KeyMarker marker = RowKeyMarker(row);
        if (marker == KeyMarker::Remove || (marker == KeyMarker::Key && (row.attributes & kRegExDeleteOnInstall))) {
            continue;
        }
        FileSection& section = sections[FileKey(row, redirect32)];
        if (marker != KeyMarker::None) {
            section.open = true;
        } else if (row.attributes & kRegExDeleteOnInstall) {
            section.values[row.name] = ValueLine(row.name, L"-");
        } else {
            section.open = true;
            section.values[row.name] = ValueLine(row.name, RenderRegFileValue(row.value));
        }
    }
    std::wstring text = L"Windows Registry Editor Version 5.00\n";
    for (const auto& [key, section] : sections) {
        if (section.remove) text += L"\n[-" + key + L"]\n";
        if (!section.open && section.values.empty()) continue;
        text += L"\n[" + key + L"]\n";
        for (const auto& [name, line] : section.values) text += line + L"\n";
    }
    return text;
}

}  // namespace setup
