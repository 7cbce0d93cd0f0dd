#include "actions/system/event_manifest_plan.h"

#include "runtime/exception.h"
#include "services/path.h"

namespace setup {

namespace {

constexpr DecisionRule kRegisterRule{.acceptInstall = true, .acceptReinstall = true};
constexpr DecisionRule kUnregisterRule{.acceptUninstall = true, .acceptReinstall = true, .skipFileAbsent = true};

std::wstring RegisterText(const Decision& d, const EventManifestRow& row) {
    switch (d.verdict) {
    case Verdict::NullAction:
        return Format(L"Skip install event log manifest '%s' for null-action component.", row.file);
    case Verdict::Chosen:
        return Format(L"Need to install event log manifest '%s'. Component '%s' to do %d.", row.file, row.component,
                      static_cast<int>(d.task));
    default:
        return Format(L"Skip install event log manifest '%s'. Component '%s' is not marked to install or reinstall.",
                      row.file, row.component);
    }
}

std::wstring UnregisterText(const Decision& d, const EventManifestRow& row) {
    switch (d.verdict) {
    case Verdict::NullAction:
        return Format(L"Skip uninstall event log manifest '%s' for null-action component.", row.file);
    case Verdict::FileAbsent:
        return Format(L"Skip uninstall event log manifest '%s'. Component action is FileAbsent.", row.file);
    case Verdict::Chosen:
        return Format(L"Need to uninstall event log manifest '%s'. Component '%s' to do %d.", row.file,
                      row.component, static_cast<int>(d.task));
    default:
        return Format(
            L"Skip uninstall event log manifest '%s'. Component '%s' is not marked to uninstall or reinstall.",
            row.file, row.component);
    }
}

}  // namespace

std::vector<std::wstring> SelectManifests(const std::vector<EventManifestRow>& rows, ManifestOperation operation,
                                          ComponentStates& states, LogSink& log) {
    const bool registering = operation == ManifestOperation::Register;
    std::vector<std::wstring> paths;
    for (const EventManifestRow& row : rows) {
        auto text = [&](const Decision& d) { return registering ? RegisterText(d, row) : UnregisterText(d, row); };
        const Decision d =
            DecideRow(states, registering ? kRegisterRule : kUnregisterRule, row.component, {}, text, log);
        if (!d.Chosen()) continue;
        // A quote would end the path inside the tool's command line and let
        // the rest pass as arguments: refused before anything runs.
        const std::wstring problem = PathProblem(row.file);
        if (!problem.empty()) {
            throw Exception(kInvalidArgument, L"The event manifest path '" + row.file + L"' is refused: " + problem + L".");
        }
        paths.push_back(row.file);
    }
    return paths;
}

std::wstring WevtutilPath(std::wstring_view systemDirectory) { return JoinPath(systemDirectory, L"wevtutil.exe"); }

std::wstring ManifestCommandLine(std::wstring_view tool, ManifestOperation operation, std::wstring_view manifest) {
    const std::wstring problem = PathProblem(manifest);
    if (!problem.empty()) {
        throw Exception(kInvalidArgument,
                        L"The event manifest path '" + std::wstring(manifest) + L"' is refused: " + problem + L".");
    }
    const wchar_t* verb = operation == ManifestOperation::Register ? L"im" : L"um";
    return Format(L"\"%s\" %s \"%s\"", tool, verb, manifest);
}

}  // namespace setup
