#include "actions/files/move_file_plan.h"

#include <utility>

#include "runtime/action_data.h"
#include "runtime/hresult.h"
#include "runtime/exception.h"
#include "services/path.h"

namespace setup {

namespace {

using namespace move_file;

bool Accepts(int attributes, ComponentTask task) {
    switch (task) {
    case ComponentTask::Install: return (attributes & OnInstall) != 0;
    case ComponentTask::Reinstall: return (attributes & OnReinstall) != 0;
    case ComponentTask::Uninstall: return (attributes & OnUninstall) != 0;
    default: return false;
    }
}

MoveFileItem ItemOf(const MoveFileRow& row) {
    MoveFileItem item;
    item.id = row.id;
    item.source = row.source;
    item.destination = row.destination;
    item.attributes = row.attributes;
    return item;
}

// An item that changes its destination now, while the installation can still
// be rolled back: its backup (when there is something to keep) and the folders
// it will create.
MoveFileItem UndoableItem(const MoveFileRow& row, MoveFileMachine& machine) {
    MoveFileItem item = ItemOf(row);
    if (row.attributes & AtRestart) return item;  // the destination stays as it is until the restart
    if (machine.FileExists(row.destination)) item.backup = JoinPath(DirectoryOf(row.destination), machine.NewUuid());
    item.newFolders = machine.MissingFolders(row.destination);
    return item;
}

PropertyMap RecordOf(const MoveFileItem& item) {
    PropertyMap record;
    record.Set(L"id", item.id);
    record.Set(L"src", item.source);
    record.Set(L"dst", item.destination);
    if (!item.backup.empty()) record.Set(L"bak", item.backup);
    record.Set(L"atr", item.attributes);
    if (item.newFolders) record.Set(L"dir", item.newFolders);
    return record;
}

std::vector<MoveFileItem> ItemsOf(std::wstring_view text) {
    std::vector<MoveFileItem> items;
    for (const PropertyMap& record : DecodeRecordList(text)) {
        items.push_back({record.Get(L"id"), record.Get(L"src"), record.Get(L"dst"), record.Get(L"bak"),
                         record.GetInteger(L"atr"), record.GetInteger(L"dir")});
    }
    return items;
}

std::wstring EncodeItems(const std::vector<MoveFileItem>& items) {
    std::vector<PropertyMap> records;
    records.reserve(items.size());
    for (const MoveFileItem& item : items) records.push_back(RecordOf(item));
    return EncodeRecordList(records);
}

}  // namespace

Decision DecideMoveFile(ComponentStates& states, const MoveFileRow& row, LogSink& log) {
    Decision d;
    if (const auto state = states.State(row.component)) {
        d.state = *state;
        d.task = ClassifyComponent(*state);
    }
    const auto& id = row.id;
    const auto& from = row.source;
    const auto& to = row.destination;
    if (d.task == ComponentTask::None) {
        d.verdict = Verdict::NullAction;
        log.Info(L"Skip move files '%s', '%s'->'%s' for null-action component.", id, from, to);
        return d;
    }
    d.condition = states.EvaluateCondition(row.condition);
    if (d.condition == kConditionFalse || d.condition == kConditionError) {
        d.verdict = Verdict::ConditionFailed;
        log.Info(L"Skip move files '%s', '%s'->'%s'. Condition is '%d'.", id, from, to, d.condition);
        return d;
    }
    if (IsFileAbsent(d.state)) {
        d.verdict = Verdict::FileAbsent;
        log.Info(L"Skip move files '%s', '%s'->'%s'. Component '%s' action is FileAbsent.", id, from, to, row.component);
        return d;
    }
    const int task = static_cast<int>(d.task);
    if (!Accepts(row.attributes, d.task)) {
        d.verdict = Verdict::NotMarked;
        log.Info(L"Skip move files '%s', '%s'->'%s'. Component action %d is not suitable. ", id, from, to, task);
        return d;
    }
    d.verdict = Verdict::Chosen;
    log.Info(L"Need to move files '%s', '%s'->'%s'. Component to do %d.", id, from, to, task);
    return d;
}

std::wstring MoveFilePathProblem(std::wstring_view source, std::wstring_view destination) {
    if (source.empty()) return L"the source is empty";
    if (destination.empty()) return L"the destination is empty";
    if (const std::wstring why = PathProblem(source); !why.empty()) return L"the source is refused: " + why;
    if (const std::wstring why = PathProblem(destination); !why.empty()) return L"the destination is refused: " + why;
    return {};
}

MoveFilePhases PlanMoveFiles(const std::vector<MoveFileRow>& rows, ComponentStates& states,
                             MoveFileMachine& machine, LogSink& log) {
    MoveFilePhases phases;
    for (const MoveFileRow& row : rows) {
        if (!DecideMoveFile(states, row, log).Chosen()) continue;
        const auto& id = row.id;
        const auto& from = row.source;
        const auto& to = row.destination;
        const int bits = row.attributes;
        if (const std::wstring problem = MoveFilePathProblem(row.source, row.destination); !problem.empty()) {
            const std::wstring text = L"Cannot move files '" + id + L"', '" + from + L"'->'" + to + L"': " + problem + L".";
            if (!(bits & ContinueOnError)) throw Exception(kInvalidArgument, text);
            log.Info(L"%s The row continues on error: it fails where it runs.", text);
        }
        if (bits & Immediate) {
            log.Info(L"Need to move files immediate '%s', '%s'->'%s'.", id, from, to);
            phases.immediate.push_back(UndoableItem(row, machine));
        }
        if (bits & Deferred) {
            if (machine.IsNetworkPath(from)) {
                log.Info(L"Need to move files deferred from network '%s', '%s'.", id, from);
                phases.deferredUser.push_back(UndoableItem(row, machine));
            } else {
                log.Info(L"Need to move files deferred '%s', '%s'->'%s'.", id, from, to);
                phases.deferred.push_back(UndoableItem(row, machine));
            }
        }
        if (bits & Commit) {
            log.Info(L"Need to move files on commit '%s', '%s'->'%s'.", id, from, to);
            phases.commit.push_back(ItemOf(row));
        }
        if (bits & move_file::Rollback) {
            log.Info(L"Need to move files on rollback '%s', '%s'->'%s'.", id, from, to);
            phases.rollback.push_back(ItemOf(row));
        }
        if (bits & AtRestart) log.Info(L"Need to move files on reboot '%s', '%s'->'%s'.", id, from, to);
        if (!(bits & kPhases)) {
            log.Info(L"The row '%s' names no phase (0x100, 0x200, 0x400 or 0x800): it is carried out nowhere.", id);
        }
    }
    return phases;
}

std::wstring EncodeMoveFileActionData(const MoveFileActionData& data) {
    PropertyMap top;
    top.Set(L"files", EncodeItems(data.items));
    if (!data.undo.empty()) top.Set(L"undo", EncodeItems(data.undo));
    top.Set(L"wrn", data.warningsFile);
    top.Set(L"pfr", EncodePendingRenames(data.snapshot.entries));
    top.Set(L"pfe", data.snapshot.exists ? 1 : 0);
    return EncodeActionData(top);
}

MoveFileActionData DecodeMoveFileActionData(std::wstring_view text) {
    const PropertyMap top = DecodeActionData(text);
    MoveFileActionData data;
    data.items = ItemsOf(top.View(L"files"));
    data.undo = ItemsOf(top.View(L"undo"));
    data.warningsFile = top.Get(L"wrn");
    data.snapshot.entries = DecodePendingRenames(top.View(L"pfr"));
    data.snapshot.exists = top.GetInteger(L"pfe") != 0;
    return data;
}

}  // namespace setup
