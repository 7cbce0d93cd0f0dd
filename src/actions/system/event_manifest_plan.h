#pragma once
// Which event-log manifests to register or unregister, and the tool's command
// lines (portable: the actions read the table and run the tool).

#include <string>
#include <string_view>
#include <vector>

#include "runtime/component_decision.h"
#include "runtime/log_sink.h"

namespace setup {

struct EventManifestRow {
    std::wstring component;  // raw key
    std::wstring file;       // formatted manifest path
};

enum class ManifestOperation { Register, Unregister };

// Registration selects components being installed or reinstalled; unregistration
// those being uninstalled or reinstalled, except an uninstall that only removes
// files (FileAbsent). No row condition counts. Every decision is logged. A
// chosen row whose path PathProblem refuses throws, as ManifestCommandLine does.
std::vector<std::wstring> SelectManifests(const std::vector<EventManifestRow>& rows, ManifestOperation operation,
                                          ComponentStates& states, LogSink& log);

// The tool in the system directory.
std::wstring WevtutilPath(std::wstring_view systemDirectory);

// "<tool>" im "<manifest>" (um to unregister). Nothing inside the quotes is
// escaped: a manifest path that PathProblem refuses (a quote, a relative
// path) throws E_INVALIDARG "The event manifest path '<path>' is refused: <why>.".
std::wstring ManifestCommandLine(std::wstring_view tool, ManifestOperation operation, std::wstring_view manifest);

}  // namespace setup
