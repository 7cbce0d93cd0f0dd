#include "runtime/component_decision.h"

namespace setup {

namespace {

bool InstalledHere(int installed) { return installed == 3 || installed == 4; }

bool Accepts(const DecisionRule& rule, ComponentTask task) {
    switch (task) {
    case ComponentTask::Install: return rule.acceptInstall;
    case ComponentTask::Uninstall: return rule.acceptUninstall;
    case ComponentTask::Reinstall: return rule.acceptReinstall;
    default: return false;
    }
}

}  // namespace

ComponentTask ClassifyComponent(const ComponentState& state) {
    const int a = state.action;
    const int i = state.installed;
    if ((a == 3 || a == 4 || a == 5) && InstalledHere(i)) return ComponentTask::Reinstall;
    if ((a == 1 || a == 2) && InstalledHere(i)) return ComponentTask::Uninstall;
    if (a == 3 || a == 4) return ComponentTask::Install;
    return ComponentTask::None;
}

ComponentTask GetComponentTask(ComponentStates& states, std::wstring_view component) {
    const std::optional<ComponentState> state = states.State(component);
    return state ? ClassifyComponent(*state) : ComponentTask::None;
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
    } else if (rule.skipFileAbsent && InstalledHere(d.state.installed) && d.state.action == 1) {
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

std::wstring StandardInstallText(const Decision& d, std::wstring_view key) {
    switch (d.verdict) {
    case Verdict::NullAction: return Format(L"Skip installation of cab '%s' for null-action component.", key);
    case Verdict::ConditionFailed:
        return Format(L"Skip installation of '%s' cab. Condition is '%d'.", key, d.condition);
    case Verdict::Chosen:
        return Format(L"Need to install '%s' cab. Component to do %d.", key, static_cast<int>(d.task));
    default: return Format(L"Skip installation of '%s' cab. Component is not marked to install.", key);
    }
}

std::wstring StandardUninstallText(const Decision& d, std::wstring_view key) {
    switch (d.verdict) {
    case Verdict::NullAction: return Format(L"Skip uninstallation of cab for null-action component '%s'.", key);
    case Verdict::FileAbsent:
        return Format(L"Skip uninstallation of '%s' cab. Component action is FileAbsent.", key);
    case Verdict::Chosen:
        return Format(L"Need to uninstall '%s' cab. Component to do %d.", key, static_cast<int>(d.task));
    default: return Format(L"Skip uninstallation of '%s' cab. Component is not marked to uninstall.", key);
    }
}

}  // namespace setup
