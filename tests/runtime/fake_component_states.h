#pragma once
// Component states and condition results for the host tests of feature
// decisions: components by name, conditions "TRUE", "BROKEN" (an error) and
// anything else false; an empty condition counts as none. Five components
// are there from the start, named after their task: Install, Reinstall,
// Remove, FileAbsent (installed, action 1) and Idle (no action).

#include <map>
#include <optional>
#include <string>

#include "runtime/component_decision.h"

namespace setup::test {

class FakeComponentStates : public ComponentStates {
public:
    std::optional<ComponentState> State(std::wstring_view component) override {
        const auto it = states.find(std::wstring(component));
        if (it == states.end()) return std::nullopt;
        return it->second;
    }
    int EvaluateCondition(std::wstring_view condition) override {
        ++evaluations;
        if (condition.empty()) return kConditionNone;
        return condition == L"TRUE" ? kConditionTrue : condition == L"BROKEN" ? kConditionError : kConditionFalse;
    }
    std::map<std::wstring, ComponentState> states = {
        {L"Install", {2, 3}}, {L"Reinstall", {3, 3}}, {L"Remove", {3, 2}}, {L"FileAbsent", {3, 1}}, {L"Idle", {3, -1}}};
    int evaluations = 0;
};

}  // namespace setup::test
