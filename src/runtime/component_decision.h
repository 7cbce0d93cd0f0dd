#pragma once
// Whether a table row's work is to be scheduled, from its component's states
// and its condition, and why, in the installer log.
//
// Every feature shares one classification (ComponentTask) and one decision
// routine; a feature supplies what varies: which tasks it accepts, whether the
// row's condition counts, whether an uninstall that only removes files
// (FileAbsent) is skipped, and the log text for each verdict.

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "runtime/log_sink.h"

namespace setup {

// Installer states as MsiGetComponentStateW reports them (INSTALLSTATE_*);
// other values the installer may report are kept as they are.
namespace install_state {
enum : int {
    Unknown = -1,
    Advertised = 1,  // as an installed state
    Removed = 1,     // as an action: the component's files go ("FileAbsent")
    Absent = 2,
    Local = 3,
    Source = 4,
    Default = 5,
};
}  // namespace install_state

struct ComponentState {
    int installed = install_state::Unknown;
    int action = install_state::Unknown;
    bool operator==(const ComponentState&) const = default;
};

enum class ComponentTask : int { None = 0, Install = 1, Uninstall = 2, Reinstall = 3 };

// Condition results as MsiEvaluateConditionW reports them.
inline constexpr int kConditionFalse = 0;
inline constexpr int kConditionTrue = 1;
inline constexpr int kConditionNone = 2;  // empty condition: counts as satisfied
inline constexpr int kConditionError = 3;

// Installed locally or from source, and the action only removes its files.
bool IsFileAbsent(const ComponentState& state);

// Reinstall, then uninstall, then install: the first rule that holds wins.
ComponentTask ClassifyComponent(const ComponentState& state);

// What the decision needs from the installer.
class ComponentStates {
public:
    virtual ~ComponentStates() = default;
    // The component's states, or nothing when the query fails.
    virtual std::optional<ComponentState> State(std::wstring_view component) = 0;
    virtual int EvaluateCondition(std::wstring_view condition) = 0;
};

enum class Verdict {
    NullAction,      // task None: nothing happens to the component
    NotMarked,       // the task is not one the feature acts on
    FileAbsent,      // an uninstall that only removes the component's files
    ConditionFailed, // the row's condition is false or could not be evaluated
    Chosen,          // schedule the row's work
};

struct Decision {
    Verdict verdict = Verdict::NullAction;
    ComponentTask task = ComponentTask::None;
    ComponentState state;
    int condition = kConditionNone;  // evaluated only when the rule asks for it
    bool Chosen() const { return verdict == Verdict::Chosen; }
};

struct DecisionRule {
    bool acceptInstall = false;
    bool acceptUninstall = false;
    bool acceptReinstall = false;
    bool evaluateCondition = false;
    bool skipFileAbsent = false;  // installed locally or from source and action 1
};

// Install-time work: install or reinstall, row condition evaluated.
inline constexpr DecisionRule kStandardInstall{
    .acceptInstall = true, .acceptReinstall = true, .evaluateCondition = true};
// Uninstall-time work: uninstall only, no condition, FileAbsent skipped.
inline constexpr DecisionRule kStandardUninstall{.acceptUninstall = true, .skipFileAbsent = true};

// The log line for a decision; each feature words its own.
using DecisionText = std::function<std::wstring(const Decision&)>;

// Decides one row and logs the feature's text for the verdict.
Decision DecideRow(ComponentStates& states, const DecisionRule& rule, std::wstring_view component,
                   std::wstring_view condition, const DecisionText& text, LogSink& log);

}  // namespace setup
