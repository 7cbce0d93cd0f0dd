#include "actions/files/remove_file_plan.h"

#include <cwctype>
#include <map>
#include <utility>

#include "runtime/action_data.h"
#include "services/path.h"

namespace setup {

namespace {

using namespace remove_file;

bool Accepts(int attributes, ComponentTask task) {
    switch (task) {
    case ComponentTask::Install: return (attributes & OnInstall) != 0;
    case ComponentTask::Uninstall: return (attributes & OnUninstall) != 0;
    case ComponentTask::Reinstall: return (attributes & OnReinstall) != 0;
    default: return false;
    }
}

// Lower case, '/' as '\', no trailing separator: the form paths are compared in.
const wchar_t* PhaseName(int phase) {
    switch (phase) {
    case Deferred: return L"deferred";
    case Immediate: return L"immediate";
    case Commit: return L"on commit";
    case RollbackOnly: return L"on rollback";
    case AtRestart: return L"at restart";
    default: return L"in no phase";
    }
}

std::wstring EncodeItems(const std::vector<RemoveFileItem>& items) {
    std::vector<PropertyMap> records;
    for (const RemoveFileItem& item : items) {
        PropertyMap record;
        record.Set(L"id", item.id);
        record.Set(L"path", item.path);
        record.Set(L"phase", item.phase);
        record.Set(L"atr", item.attributes);
        if (!item.backup.empty()) record.Set(L"bak", item.backup);
        if (item.wholeFolder) record.Set(L"whole", 1);
        records.push_back(std::move(record));
    }
    return EncodeRecordList(records);
}

std::vector<RemoveFileItem> DecodeItems(std::wstring_view text) {
    std::vector<RemoveFileItem> items;
    for (const PropertyMap& record : DecodeRecordList(text)) {
        items.push_back({record.Get(L"id"), record.Get(L"path"), record.GetInteger(L"phase"),
                         record.GetInteger(L"atr"), record.Get(L"bak"), record.GetInteger(L"whole") != 0});
    }
    return items;
}

}  // namespace

RemovalTarget TargetOf(const std::wstring& path, bool isFolder) {
    RemovalTarget target;
    std::wstring trimmed = path;
    const bool endsWithSeparator = !path.empty() && (path.back() == L'\\' || path.back() == L'/');
    while (trimmed.size() > 3 && (trimmed.back() == L'\\' || trimmed.back() == L'/')) trimmed.pop_back();
    if (isFolder || endsWithSeparator) {
        target.folder = trimmed;
        target.pattern = L"*";
        target.wholeFolder = true;
        return target;
    }
    target.folder = DirectoryOf(trimmed);
    target.pattern = trimmed.substr(target.folder.size() + (target.folder.size() < trimmed.size() ? 1 : 0));
    return target;
}

bool MatchesPattern(std::wstring_view name, std::wstring_view pattern) {
    std::size_t n = 0, p = 0, star = std::wstring_view::npos, resume = 0;
    while (n < name.size()) {
        if (p < pattern.size() && (pattern[p] == L'?' || std::towlower(pattern[p]) == std::towlower(name[n]))) {
            ++n;
            ++p;
        } else if (p < pattern.size() && pattern[p] == L'*') {
            star = p++;
            resume = n;
        } else if (star != std::wstring_view::npos) {
            p = star + 1;
            n = ++resume;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == L'*') ++p;
    return p == pattern.size();
}

std::wstring RemovalProblem(const std::wstring& folder, const std::vector<std::wstring>& protectedFolders) {
    if (const std::wstring why = PathProblem(folder + L"\\x"); !why.empty()) return why;
    return ProtectedPathProblem(folder, protectedFolders);
}

Decision DecideRemoveFile(ComponentStates& states, const RemoveFileRow& row, bool upgrading, LogSink& log) {
    Decision d;
    if (const auto state = states.State(row.component)) {
        d.state = *state;
        d.task = ClassifyComponent(*state);
    }
    const int task = static_cast<int>(d.task);
    if (d.task == ComponentTask::None) {
        d.verdict = Verdict::NullAction;
        log.Info(L"Skip remove files '%s', '%s' for null-action component.", row.id, row.path);
        return d;
    }
    d.condition = states.EvaluateCondition(row.condition);
    if (d.condition == kConditionFalse || d.condition == kConditionError) {
        d.verdict = Verdict::ConditionFailed;
        log.Info(L"Skip remove files '%s', '%s'. Condition is '%d'.", row.id, row.path, d.condition);
        return d;
    }
    if (!Accepts(row.attributes, d.task)) {
        d.verdict = Verdict::NotMarked;
        log.Info(L"Skip remove files '%s', '%s'. Component action %d is not suitable.", row.id, row.path, task);
        return d;
    }
    if (upgrading && !(row.attributes & DuringUpgrade)) {
        d.verdict = Verdict::NotMarked;
        log.Info(L"Skip remove files '%s', '%s'. A major upgrade is removing this product (UPGRADINGPRODUCTCODE) "
                 L"and the row lacks 0x40.",
                 row.id, row.path);
        return d;
    }
    d.verdict = Verdict::Chosen;
    log.Info(L"Need to remove files '%s', '%s' %s. Component to do %d.", row.id, row.path, PhaseName(row.phase), task);
    return d;
}

RemoveFilePhases PlanRemoveFiles(const std::vector<RemoveFileRow>& rows, ComponentStates& states, bool upgrading,
                                 RemoveFileMachine& machine, LogSink& log) {
    RemoveFilePhases phases;
    std::map<std::wstring, std::wstring> sharedBackups;  // folder (case-blind) -> its backup folder
    std::wstring unshared;
    for (const RemoveFileRow& row : rows) {
        if (!DecideRemoveFile(states, row, upgrading, log).Chosen()) continue;
        RemoveFileItem item{row.id, row.path, row.phase, row.attributes, L"", false};
        switch (row.phase) {
        case Immediate: phases.immediate.push_back(std::move(item)); break;
        case Commit: phases.commit.push_back(std::move(item)); break;
        case RollbackOnly: phases.rollback.push_back(std::move(item)); break;
        case Deferred: {
            // On the same volume as what it keeps: removing is a rename, and
            // rollback a rename back.
            const RemovalTarget target = TargetOf(row.path, machine.IsFolder(row.path));
            item.wholeFolder = target.wholeFolder;
            // Rows that remove files from the same folder share its backup
            // folder: one folder more in it, not one per row (Wine looks names
            // up by scanning a folder, so each entry there costs every later
            // lookup). Rollback of the first of them puts all back.
            std::wstring& shared = target.wholeFolder ? unshared : sharedBackups[PathKey(target.folder)];
            if (shared.empty()) {
                const std::wstring name = L"~rfx" + machine.NewUuid();
                shared = JoinPath(target.wholeFolder ? DirectoryOf(target.folder) : target.folder, name);
            }
            item.backup = shared;
            unshared.clear();
            phases.deferred.push_back(std::move(item));
            break;
        }
        case AtRestart: phases.deferred.push_back(std::move(item)); break;
        default:
            log.Info(L"The row '%s' names phase %d, which is none of 0 to 4: it is carried out nowhere.", row.id,
                     row.phase);
        }
    }
    return phases;
}

std::wstring EncodeRemoveFileActionData(const RemoveFileActionData& data) {
    PropertyMap top;
    top.Set(L"mode", data.mode);
    top.Set(L"files", EncodeItems(data.items));
    if (!data.undo.empty()) top.Set(L"undo", EncodeItems(data.undo));
    top.Set(L"pfr", EncodePendingRenames(data.snapshot.entries));
    top.Set(L"pfe", data.snapshot.exists ? 1 : 0);
    return EncodeActionData(top);
}

RemoveFileActionData DecodeRemoveFileActionData(std::wstring_view text) {
    const PropertyMap top = DecodeActionData(text);
    RemoveFileActionData data;
    data.mode = top.Get(L"mode");
    data.items = DecodeItems(top.View(L"files"));
    data.undo = DecodeItems(top.View(L"undo"));
    data.snapshot.entries = DecodePendingRenames(top.View(L"pfr"));
    data.snapshot.exists = top.GetInteger(L"pfe") != 0;
    return data;
}

}  // namespace setup
