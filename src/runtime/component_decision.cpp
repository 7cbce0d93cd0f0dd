#include "runtime/component_decision.h"

namespace setup {

namespace {

using namespace install_state;

bool InstalledHere(int installed) { return installed == Local || installed == Source; }

bool Accepts(const DecisionRule& rule, ComponentTask task) {
    switch (task) {
    case ComponentTask::Install: return rule.acceptInstall;
    case ComponentTask::Uninstall: return rule.acceptUninstall;
    case ComponentTask::Reinstall: return rule.acceptReinstall;
    default: return false;
    }
}

}  // namespace

bool IsFileAbsent(const ComponentState& state) { return InstalledHere(state.installed) && state.action == Removed; }

ComponentTask ClassifyComponent(const ComponentState& state) {
    const int a = state.action;
    const int i = state.installed;
    if ((a == Local || a == Source || a == Default) && InstalledHere(i)) return ComponentTask::Reinstall;
    if ((a == Removed || a == Absent) && InstalledHere(i)) return ComponentTask::Uninstall;
    if (a == Local || a == Source) return ComponentTask::Install;
    return ComponentTask::None;
}

Decision DecideRow(ComponentStates& states, const DecisionRule& rule, std::wstring_view component,
                   std::wstring_view condition, const DecisionText& text, LogSink& log) {
    Decision d;
    if (const auto state = states.State(component)) {
        d.state = *state;
        d.task = ClassifyComponent(*state);
    }
    if (d.task == ComponentTask::None) {
        d.verdict = Verdict::NullAction;
    } else if (!Accepts(rule, d.task)) {
        d.verdict = Verdict::NotMarked;
    } else if (rule.skipFileAbsent && IsFileAbsent(d.state)) {
        d.verdict = Verdict::FileAbsent;
    } else if (rule.evaluateCondition &&
               ((d.condition = states.EvaluateCondition(condition)) == kConditionFalse ||
                d.condition == kConditionError)) {
        d.verdict = Verdict::ConditionFailed;
    } else {
        d.verdict = Verdict::Chosen;
    }
    log.Line(text(d));
    return d;
}

}  // namespace setup
