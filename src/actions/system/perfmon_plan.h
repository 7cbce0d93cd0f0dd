#pragma once
// Planning of the PerfmonEx table (portable): which rows register or
// unregister a counter set, the checks of a legacy set's .ini file, the exact
// command texts, and the texts the work carries: the capture of a registry
// key, restored byte for byte, and the data of the scheduled actions.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "actions/registry/registry_value.h"
#include "runtime/component_decision.h"
#include "runtime/log_sink.h"

namespace setup {

namespace perfmon {
enum : int {
    Manifest = 0x1,       // a counters manifest (lodctr /m:), not a legacy .ini set
    CreateServiceKey = 0x2,  // create Services\<Name> when it is missing
    WarnOnFailure = 0x4,  // a failed call is a logged warning, not a failed install
    Permanent = 0x8,      // uninstall leaves the registration
};
inline constexpr int kKnownBits = 0xF;
}  // namespace perfmon

struct PerfmonRow {
    std::wstring id;
    std::wstring component;
    std::wstring name;         // formatted: service name, or the manifest's provider name
    std::wstring file;         // formatted: the .ini or the .man
    std::wstring library;      // formatted: "<dll>[;<open>;<collect>;<close>]" of a legacy set, or empty
    std::wstring resourceDir;  // formatted: manifests
    int attributes = 0;
    std::wstring condition;
};

// Why a row cannot act, or empty.
std::wstring PerfmonRowProblem(const PerfmonRow& row);

// Register rows: components installed or reinstalled; unregister rows:
// removed or reinstalled (a repair unregisters and registers again, once).
Decision DecidePerfmon(ComponentStates& states, const PerfmonRow& row, bool unregister, LogSink& log);

// Why a legacy set's .ini text cannot be loaded, or empty: its [info]
// drivername must be the row's Name, [languages] must name one, and every
// offset of the symbol file (`symbols`, its text; empty: none given) must be even.
std::wstring PerfIniProblem(std::wstring_view ini, std::wstring_view name, std::wstring_view symbols);
// The [info] symbolfile of an .ini text, or empty.
std::wstring PerfIniSymbolFile(std::wstring_view ini);

// The command texts: for loadperf.dll, and for the tools of a manifest.
std::wstring LoadCommand(std::wstring_view ini);      // lodctr "<ini>"
std::wstring UnloadCommand(std::wstring_view name);   // unlodctr <name>
std::wstring ManifestLoadCommand(std::wstring_view tool, std::wstring_view manifest, std::wstring_view resourceDir);
std::wstring ManifestUnloadCommand(std::wstring_view tool, std::wstring_view manifest);

// The Performance values a row with a Library writes: Library, Open, Collect, Close.
std::vector<RegistryValue> LibraryValues(std::wstring_view library);

// A registry key as it was, subkeys included (paths relative to the key).
struct KeyCapture {
    bool existed = false;
    std::vector<std::pair<std::wstring, std::vector<RegistryValue>>> keys;
    bool operator==(const KeyCapture&) const = default;
};
std::wstring EncodeKeyCapture(const KeyCapture& capture);
KeyCapture DecodeKeyCapture(std::wstring_view text);

// The provider GUID a counters manifest declares (providerGuid="{...}"), or empty.
std::wstring ManifestProviderGuid(std::wstring_view manifest);

struct PerfmonItem {
    std::wstring id;
    std::wstring name;
    std::wstring file;
    std::wstring library;
    std::wstring resourceDir;
    int attributes = 0;
    std::wstring key;     // the captured key: Services\<Name>\Performance, or the manifest provider's key
    KeyCapture capture;   // the key before the install (rollback restores it)
    bool operator==(const PerfmonItem&) const = default;
};

struct PerfmonActionData {
    bool rollback = false;
    std::vector<PerfmonItem> items;
};
std::wstring EncodePerfmonActionData(const PerfmonActionData& data);
PerfmonActionData DecodePerfmonActionData(std::wstring_view text);

}  // namespace setup
