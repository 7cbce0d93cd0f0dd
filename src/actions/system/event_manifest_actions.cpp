#include "actions/system/event_manifest_actions.h"

#include <optional>
#include <string>
#include <vector>

#include "actions/system/event_manifest_plan.h"
#include "runtime/action_data.h"
#include "runtime/exception.h"
#include "runtime/program_log.h"
#include "runtime/throw.h"
#include "services/file_operations.h"
#include "services/process_runner.h"

namespace setup {

namespace {

constexpr wchar_t kTable[] = L"EventManifest";
// Exactly the columns the table's contract names: a package whose table has
// only these two must work (the kit's key column is optional).
constexpr wchar_t kQuery[] = L"SELECT `Component_`, `File` FROM `EventManifest`";

std::wstring SystemWevtutil() { return WevtutilPath(SystemDirectory()); }

// The table's rows, or nothing when the package has no such table.
std::optional<std::vector<EventManifestRow>> ReadRows(const Session& session) {
    std::vector<EventManifestRow> rows;
    const bool exists = session.ActiveDatabase().ForEachRowOfTable(kTable, kQuery, [&](const Record& record) {
        rows.push_back({record.GetString(1), record.GetString(2)});
    });
    if (!exists) return std::nullopt;
    // Formatted together: a few installer calls for the table, not one a row.
    FormatRowTexts(session, rows, {&EventManifestRow::file});
    for (const EventManifestRow& row : rows) {
        if (row.file.empty()) Throw(kFail, L"The file is empty in EventManifest table.");
        if (row.component.empty()) Throw(kFail, L"The component is empty in EventManifest table.");
    }
    return rows;
}

struct Schedule {
    const wchar_t* action;
    ManifestOperation operation;
    const wchar_t* rollback;
    const wchar_t* deferred;
};

void ScheduleManifests(Session& session, const Schedule& schedule) {
    if (::GetFileAttributesW(SystemWevtutil().c_str()) == INVALID_FILE_ATTRIBUTES) {
        LogInfo(L"Skip action %s. Wevtutil.exe is not exist.", schedule.action);
        return;
    }
    const std::optional<std::vector<EventManifestRow>> rows = ReadRows(session);
    if (!rows) return;
    SessionComponentStates states(session);
    ProgramLogSink log;
    const std::vector<std::wstring> paths = SelectManifests(*rows, schedule.operation, states, log);
    if (paths.empty()) {
        LogNothingToSchedule(rows->size(), L"EventManifest",
                             schedule.operation == ManifestOperation::Register ? L"installed or reinstalled"
                                                                              : L"removed or reinstalled");
        return;
    }
    const std::wstring data = EncodeTextList(paths);
    session.ScheduleDeferred(schedule.rollback, data);
    session.ScheduleDeferred(schedule.deferred, data);
}

enum class OnFailure { Stop, Ignore };

// Runs the tool on every path of the action data, in order.
void RunManifests(const Session& session, ManifestOperation operation, OnFailure onFailure) {
    const std::wstring tool = SystemWevtutil();
    const wchar_t* verb = operation == ManifestOperation::Register ? L"register" : L"unregister";
    for (const std::wstring& path : DecodeTextList(session.CustomActionData())) {
        try {
            ProcessRunner runner;
            runner.RunProcess(ManifestCommandLine(tool, operation, path));
        } catch (const Exception& e) {
            if (onFailure == OnFailure::Ignore) {
                LogInfo(L"Ignore: failed to %s event manifest '%s'. %s Error 0x%x.", verb, path, e.Message(), e.Code());
                continue;
            }
            LogInfo(L"Failed to %s event manifest '%s'. %s Error 0x%x.", verb, path, e.Message(), e.Code());
            throw;
        }
    }
}

}  // namespace

void InstallEventManifest(Session& session) {
    ScheduleManifests(session, {L"InstallEventManifest", ManifestOperation::Register, L"InstallEventManifestRollback",
                                L"InstallEventManifestDeferred"});
}

void InstallEventManifestDeferred(Session& session) {
    RunManifests(session, ManifestOperation::Register, OnFailure::Stop);
}

void InstallEventManifestRollback(Session& session) {
    RunManifests(session, ManifestOperation::Unregister, OnFailure::Ignore);
}

void UninstallEventManifest(Session& session) {
    ScheduleManifests(session, {L"UninstallEventManifest", ManifestOperation::Unregister,
                                L"UninstallEventManifestRollback", L"UninstallEventManifestDeferred"});
}

void UninstallEventManifestDeferred(Session& session) {
    RunManifests(session, ManifestOperation::Unregister, OnFailure::Stop);
}

void UninstallEventManifestRollback(Session& session) {
    RunManifests(session, ManifestOperation::Register, OnFailure::Ignore);
}

}  // namespace setup
