#include "actions/files/cabinet_plan.h"

#include <set>
#include <utility>

#include "runtime/action_data.h"
#include "runtime/format.h"
#include "services/path.h"

namespace setup {

namespace {

using namespace cabinet;


std::wstring TrimSeparators(std::wstring path) {
    while (path.size() > 3 && (path.back() == L'\\' || path.back() == L'/')) path.pop_back();
    return path;
}

const wchar_t* const kKindNames[] = {L"folder", L"placed", L"replaced", L"removed", L"rmdir", L"record"};

std::wstring EncodeItems(const std::vector<CabinetItem>& items) {
    std::vector<PropertyMap> records;
    for (const CabinetItem& item : items) {
        PropertyMap record;
        record.Set(L"id", item.id);
        record.Set(L"cab", item.cabinet);
        record.Set(L"dst", item.target);
        record.Set(L"atr", item.attributes);
        if (item.remove) record.Set(L"rm", 1);
        record.Set(L"work", item.work);
        record.Set(L"pc", item.product);
        if (item.remove) record.Set(L"rec", EncodeCabinetRecord(item.record));
        records.push_back(std::move(record));
    }
    return EncodeRecordList(records);
}

}  // namespace

std::wstring EncodeCabinetRecord(const CabinetRecord& record) {
    PropertyMap map;
    map.Set(L"target", record.target);
    map.Set(L"files", EncodeTextList(record.files));
    map.Set(L"folders", EncodeTextList(record.folders));
    return EncodeActionData(map);
}

CabinetRecord DecodeCabinetRecord(std::wstring_view text) {
    const PropertyMap map = DecodeActionData(text);
    return {map.Get(L"target"), DecodeTextList(map.View(L"files")), DecodeTextList(map.View(L"folders"))};
}

CabinetRecord MergeCabinetRecords(const CabinetRecord& earlier, const CabinetRecord& added) {
    CabinetRecord merged = earlier;
    merged.target = added.target.empty() ? earlier.target : added.target;
    const auto merge = [](std::vector<std::wstring>& into, const std::vector<std::wstring>& more) {
        std::set<std::wstring> seen;
        for (const std::wstring& path : into) seen.insert(PathKey(path));
        for (const std::wstring& path : more) {
            if (seen.insert(PathKey(path)).second) into.push_back(path);
        }
    };
    merge(merged.files, added.files);
    merge(merged.folders, added.folders);
    return merged;
}

std::wstring MergeCabinetRecordTexts(const std::wstring& ours, const std::optional<std::wstring>& heirs) {
    return EncodeCabinetRecord(MergeCabinetRecords(DecodeCabinetRecord(ours),
                                                   heirs ? DecodeCabinetRecord(*heirs) : CabinetRecord{}));
}

std::wstring CabinetNameProblem(std::wstring_view name) {
    if (name.empty()) return L"the name is empty";
    if (name.front() == L'\\' || name.front() == L'/') return L"it begins with a separator";
    if (name.find(L':') != std::wstring_view::npos) return L"it holds ':' (a drive or a stream)";
    std::size_t start = 0;
    while (start <= name.size()) {
        std::size_t end = name.find_first_of(L"\\/", start);
        if (end == std::wstring_view::npos) end = name.size();
        const std::wstring_view part = name.substr(start, end - start);
        if (part == L"..") return L"it climbs out of the target folder ('..')";
        if (part.empty() || part == L".") return L"it has an empty component";
        if (part.back() == L'.' || part.back() == L' ') return L"a component ends in a dot or a blank";
        for (wchar_t c : part) {
            if (c < 0x20 || c == L'"' || c == L'<' || c == L'>' || c == L'|' || c == L'*' || c == L'?') {
                return L"it holds a character no file name can hold";
            }
        }
        start = end + 1;
    }
    return {};
}

std::wstring CabinetTargetProblem(const std::wstring& target) {
    if (std::wstring why = PathProblem(JoinPath(target, L"x")); !why.empty()) return why;
    if (IsRootPath(target)) return L"it is the root of a drive or share";
    return {};
}

Decision DecideCabinet(ComponentStates& states, const CabinetRow& row, LogSink& log) {
    const DecisionRule rule{.acceptInstall = true,
                            .acceptUninstall = (row.attributes & KeepOnUninstall) == 0,
                            .acceptReinstall = true,
                            .evaluateCondition = true};
    const auto text = [&](const Decision& d) {
        const int task = static_cast<int>(d.task);
        switch (d.verdict) {
        case Verdict::NullAction:
            return Format(L"Skip cabinet '%s', '%s' for null-action component.", row.id, row.cabinet);
        case Verdict::NotMarked:
            return Format(L"Skip cabinet '%s', '%s'. Its files stay on uninstall (0x8).", row.id, row.cabinet);
        case Verdict::Chosen:
            if (d.task == ComponentTask::Uninstall) {
                return Format(L"Need to remove the files of cabinet '%s', '%s'. Component to do %d.", row.id,
                              row.cabinet, task);
            }
            return Format(L"Need to extract cabinet '%s', '%s' to '%s'. Component to do %d.", row.id, row.cabinet,
                          row.target, task);
        default: return Format(L"Skip cabinet '%s', '%s'. Condition is '%d'.", row.id, row.cabinet, d.condition);
        }
    };
    return DecideRow(states, rule, row.component, row.condition, text, log);
}

std::vector<CabinetItem> PlanCabinets(const std::vector<CabinetRow>& rows, ComponentStates& states,
                                      bool uninstalling, const std::wstring& product, CabinetMachine& machine,
                                      LogSink& log) {
    std::vector<CabinetItem> items;
    for (const CabinetRow& row : rows) {
        // Each action acts on its own task only; the other one's rows are
        // skipped without a line, the other action logs them.
        const std::optional<ComponentState> state = states.State(row.component);
        const bool uninstallRow = state && ClassifyComponent(*state) == ComponentTask::Uninstall;
        if (uninstallRow != uninstalling) continue;
        if (!DecideCabinet(states, row, log).Chosen()) continue;
        CabinetItem item{row.id, row.cabinet, TrimSeparators(row.target), row.attributes, uninstalling, L"", product, {}};
        if (uninstalling) {
            const std::optional<CabinetRecord> record = machine.ReadRecord(item);
            if (!record || (record->files.empty() && record->folders.empty())) {
                log.Info(L"Nothing to remove for cabinet '%s': no files of it are recorded.", row.id);
                continue;
            }
            item.record = *record;
            item.target = TrimSeparators(record->target);
        }
        item.work = JoinPath(DirectoryOf(item.target), L"~cab" + machine.NewUuid());
        items.push_back(std::move(item));
    }
    return items;
}

std::wstring EncodeJournalEntry(const JournalEntry& entry) {
    PropertyMap map;
    map.Set(L"op", kKindNames[entry.kind]);
    map.Set(L"path", entry.path);
    if (!entry.kept.empty()) map.Set(L"kept", entry.kept);
    return Encode(map, kRecordLevel) + L"\n";
}

std::vector<JournalEntry> DecodeJournal(std::wstring_view text) {
    std::vector<JournalEntry> entries;
    std::size_t start = 0;
    for (std::size_t end = text.find(L'\n'); end != std::wstring_view::npos; end = text.find(L'\n', start)) {
        const PropertyMap map = Decode(text.substr(start, end - start), kRecordLevel);
        start = end + 1;
        const std::wstring op = map.Get(L"op");
        for (int kind = JournalEntry::Folder; kind <= JournalEntry::Record; ++kind) {
            if (op == kKindNames[kind]) {
                entries.push_back({static_cast<JournalEntry::Kind>(kind), map.Get(L"path"), map.Get(L"kept")});
            }
        }
    }
    return entries;
}

std::wstring EncodeCabinetActionData(const CabinetActionData& data) {
    PropertyMap top;
    top.Set(L"cabs", EncodeItems(data.items));
    if (!data.warningsFile.empty()) top.Set(L"wrn", data.warningsFile);
    if (!data.handovers.empty()) {
        top.Set(L"pc", data.product);
        top.Set(L"ho", EncodeRecordHandovers(data.handovers));
    }
    return EncodeActionData(top);
}

CabinetActionData DecodeCabinetActionData(std::wstring_view text) {
    const PropertyMap top = DecodeActionData(text);
    CabinetActionData data;
    data.warningsFile = top.Get(L"wrn");
    data.product = top.Get(L"pc");
    data.handovers = DecodeRecordHandovers(top.View(L"ho"));
    for (const PropertyMap& record : DecodeRecordList(top.View(L"cabs"))) {
        CabinetItem item;
        item.id = record.Get(L"id");
        item.cabinet = record.Get(L"cab");
        item.target = record.Get(L"dst");
        item.attributes = record.GetInteger(L"atr");
        item.remove = record.GetInteger(L"rm") != 0;
        item.work = record.Get(L"work");
        item.product = record.Get(L"pc");
        if (item.remove) item.record = DecodeCabinetRecord(record.View(L"rec"));
        data.items.push_back(std::move(item));
    }
    return data;
}

}  // namespace setup
